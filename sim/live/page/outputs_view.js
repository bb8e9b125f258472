// The pictures of the four posts side by side, with each post's thread below its picture, and the
// guides that all pictures can show.

import {announce} from './announce.js';
import {element, find, setOff, setText, showText} from './dom.js';
import {drawGuides, isEmpty, safeArea} from './picture.js';
import {cellOf, modeName, modeOf, parseSize, POST_SIZES, POSTS, safeSpaceOf} from './slots.js';

const SIZES = [...POST_SIZES, '352x288'];

// ---- Guides ------------------------------------------------------------------------------------

// Which guides are switched on, and what they are of a post.
export class GuideSwitches extends EventTarget {
    #live;

    constructor(live) {
        super();
        this.#live = live;
        for (const name of ['frames', 'overlaps', 'safe', 'cells', 'cell'])
            find(`#guide-${name}`).addEventListener('input', () => this.#changed());
        live.addEventListener('state', () => this.#propose());
        live.addEventListener('parameters', () => this.#changed());
    }

    // For drawGuides(); null if nothing is to be drawn.
    of(post) {
        const isOn = (name) => find(`#guide-${name}`).checked;
        const safe = isOn('safe') ? safeSpaceOf(this.#live.valueOf, post.number) : null;
        const cell = isOn('cells') ? this.#cellOf(post) : null;
        const guides = {frames: isOn('frames'), overlaps: isOn('overlaps'), safe, cell};
        return Object.values(guides).some(Boolean) ? guides : null;
    }

    #cellOf(post) {
        const typed = find('#guide-cell').value.trim();
        return typed === '' ? cellOf(this.#live.valueOf, post) : parseSize(typed);
    }

    // The field's proposal is the cell of the first post that shows a text.
    #propose() {
        const cells = this.#live.state.posts.map((post) => cellOf(this.#live.valueOf, post));
        const cell = cells.find(Boolean);
        find('#guide-cell').placeholder = cell ? `${cell.width}x${cell.height}` : 'none';
    }

    #changed() {
        const field = find('#guide-cell');
        const typed = field.value.trim();
        field.setAttribute('aria-invalid', typed !== '' && !parseSize(typed));
        if (this.#live.state)
            this.#propose();
        this.dispatchEvent(new CustomEvent('change'));
    }
}

// A post's picture with its guides, as an ImageData.
export function paint({picture, layers}, guides, thick) {
    const {width, height} = picture;
    if (!guides)
        return new ImageData(picture.rgba, width, height);
    const marked = {width, height, rgba: picture.rgba.slice()};
    drawGuides(marked, layers, guides, thick);
    return new ImageData(marked.rgba, width, height);
}

// What the head of a post says of its size.
export function sizeOf({state_error: error, posts}, number) {
    const {open, width, height} = posts[number];
    if (open)
        return `${width} × ${height}`;
    return error ? 'not known' : 'no thread';
}

// Why there is no picture of a post that isn't open.
export function whyEmpty(state, number) {
    return state.state_error ? 'What is shown cannot be told.' : `Post ${number} has no thread.`;
}

// Why the picture of a post isn't what the codec shows; '' if it is.
export function whyStale({state, pictures, whyNoPalette}, number) {
    const why = pictures[number].failure || whyNoPalette;
    return why && state.posts[number].open ? `This picture is not up to date: ${why}` : '';
}

// ---- One post ----------------------------------------------------------------------------------

class PostView {
    root;
    #number;
    #live;
    #guides;
    #actions;
    #parts = {};
    #wasOpen = null;
    #thick = 1; // pixels of the picture that a guide's line takes

    constructor(number, live, guides, actions, zoom) {
        this.#number = number;
        this.#live = live;
        this.#guides = guides;
        this.#actions = actions;
        this.root = this.#make(zoom);
        new ResizeObserver(() => this.#keepThick()).observe(this.#parts.canvas);
    }

    #make(zoom) {
        const id = `post-${this.#number}`;
        const p = this.#parts;
        p.size = element('span', {className: 'number post-size'});
        p.pixels = element('button', {
            type: 'button',
            textContent: 'Pixels',
            attributes: {'aria-label': `Pixels of post ${this.#number}`},
            on: {click: () => zoom(this.#number)},
        });
        p.canvas = element('canvas', {
            id: `canvas-${this.#number}`,
            hidden: true,
            attributes: {role: 'img'},
            on: {dblclick: () => zoom(this.#number)},
        });
        p.empty = element('p', {className: 'empty'});
        const heading = element('h3', {id: `${id}-heading`}, `Post ${this.#number} `,
                                element('span', {}, POSTS[this.#number]));
        const head = element('div', {className: 'post-head'}, heading, p.size, p.pixels);
        const screen = element('div', {className: 'screen'}, p.canvas, p.empty);
        return element('article', {
            className: 'post', id, attributes: {'aria-labelledby': heading.id},
        }, head, screen, this.#makeForm());
    }

    #makeForm() {
        const p = this.#parts;
        p.wanted = element('input', {
            type: 'text',
            id: `post-${this.#number}-size`,
            autocomplete: 'off',
            spellcheck: false,
            attributes: {'aria-label': `Size of post ${this.#number}`, list: 'sizes', size: 10},
            on: {input: () => this.#showButtons()},
        });
        p.set = element('button', {type: 'submit', textContent: 'Resize'});
        p.close = element('button', {
            type: 'button', textContent: 'Close', on: {click: () => this.#change('closed')},
        });
        p.note = element('p', {className: 'hint', hidden: true});
        p.safe = element('p', {
            className: 'hint',
            hidden: true,
            textContent: 'The safe spaces leave nothing of this picture.',
        });
        p.failure = element('p', {className: 'error', hidden: true});
        p.outcome = element('p', {className: 'outcome', hidden: true});
        return element('form', {
            className: 'post-form',
            attributes: {'aria-label': `Thread of post ${this.#number}`},
            on: {submit: (event) => {
                event.preventDefault();
                this.#change(p.wanted.value.trim() || p.wanted.placeholder);
            }},
        }, p.wanted, p.set, p.close, p.note, p.safe, p.failure, p.outcome);
    }

    async #change(size) {
        const p = this.#parts;
        const answer = await this.#actions.run(p.outcome, 'PUT', `/api/posts/${this.#number}`,
                                               {size});
        if (answer.good && p.wanted.value.trim() === size)
            p.wanted.value = '';
        this.#showButtons();
    }

    get #post() {
        return this.#live.state?.posts[this.#number];
    }

    showState() {
        const p = this.#parts;
        const post = this.#post;
        setText(p.size, sizeOf(this.#live.state, this.#number));
        p.canvas.hidden = !post.open;
        p.empty.hidden = post.open;
        setText(p.empty, whyEmpty(this.#live.state, this.#number));
        setOff(p.pixels, !post.open);
        const now = post.open ? `${post.width}x${post.height}` : 'closed';
        const wanted = post.wanted ?? POST_SIZES[this.#number];
        p.wanted.placeholder = wanted === 'closed' ? POST_SIZES[this.#number] : wanted;
        const isDue = post.wanted !== null && now !== wanted;
        p.note.hidden = !isDue;
        setText(p.note, isDue ? `${wanted} is wanted` + (this.#live.state.device_open ?
            '.' : '; the codec takes it up when the application runs.') : '');
        this.#wasOpen = wanted !== 'closed';
        this.#showButtons();
        this.#describe();
    }

    #showButtons() {
        const p = this.#parts;
        const typed = p.wanted.value.trim();
        p.wanted.setAttribute('aria-invalid', typed !== '' && !parseSize(typed));
        setText(p.set, this.#wasOpen === false ? 'Open' : 'Resize');
        setOff(p.set, this.#wasOpen !== false && typed === '');
        setOff(p.close, this.#wasOpen === false);
    }

    // What the picture shows, in words.
    #describe() {
        const post = this.#post;
        const shown = post.osds.filter((osd) => osd.shown).map((osd) => {
            const mode = modeOf(this.#live.valueOf, post.number, osd.number);
            return mode === 'text' || mode === 'rectangle' ? modeName(mode, osd.number)
                                                           : `OSD ${osd.number}`;
        });
        const what = shown.length > 0 ? shown.join(', ') : 'no OSD';
        this.#parts.canvas.setAttribute('aria-label',
            `Picture of post ${post.number}, ${post.width} by ${post.height}, showing ${what}`);
    }

    #showFailure() {
        const {failure} = this.#parts;
        const why = this.#post ? whyStale(this.#live, this.#number) : '';
        if (why !== '' && why !== failure.textContent)
            announce(`Post ${this.#number}: ${why}`);
        showText(failure, why);
    }

    // As many as one of the page, as far as the page shows the canvas.
    #findThick() {
        const {canvas} = this.#parts;
        return Math.max(1, Math.round(canvas.width / (canvas.clientWidth || canvas.width)));
    }

    // Another width of the page, and the picture's return from Pixels, need other guides.
    #keepThick() {
        if (this.#parts.canvas.clientWidth > 0 && this.#findThick() !== this.#thick)
            this.repaint();
    }

    repaint() {
        const shown = this.#live.pictures[this.#number];
        const {picture} = shown;
        const {canvas, safe} = this.#parts;
        this.#showFailure();
        if (!picture || !this.#post?.open)
            return;
        if (canvas.width !== picture.width || canvas.height !== picture.height)
            Object.assign(canvas, {width: picture.width, height: picture.height});
        const guides = this.#guides.of(this.#post);
        this.#thick = this.#findThick();
        canvas.getContext('2d').putImageData(paint(shown, guides, this.#thick), 0, 0);
        safe.hidden = !guides?.safe || !isEmpty(safeArea(picture, guides.safe));
    }
}

// ---- All four ----------------------------------------------------------------------------------

export class OutputsView {
    #views;

    constructor(live, guides, actions, zoom) {
        this.#views = POSTS.map((_, number) => new PostView(number, live, guides, actions, zoom));
        const sizes = SIZES.map((value) => element('option', {value}));
        find('#posts').append(element('datalist', {id: 'sizes'}, ...sizes),
                              ...this.#views.map((view) => view.root));
        const showState = () => this.#views.forEach((view) => view.showState());
        live.addEventListener('state', showState);
        live.addEventListener('parameters', showState);
        live.addEventListener('picture', (event) => this.#views[event.detail].repaint());
        guides.addEventListener('change', () => this.repaint());
    }

    repaint() {
        this.#views.forEach((view) => view.repaint());
    }
}
