// One post's picture at a whole number of screen pixels for each of its own, and what stands at the
// pixel under the pointer or the cursor that the keyboard moves.

import {element, find, oncePerFrame, setOff, setText, showText} from './dom.js';
import {colorCode, colorStyle} from './format.js';
import {announce} from './announce.js';
import {paint, sizeOf, whyEmpty, whyStale} from './outputs_view.js';
import {areaOf, commonArea, isEmpty, probe, wholeArea} from './picture.js';
import {modeName, modeOf, POSTS} from './slots.js';

const SCALES = [1, 2, 3, 4, 6, 8, 12, 16, 24, 32];
const FIRST_SCALE = 3;
const GRID_FROM = 12; // at this scale the edges of the pixels are drawn
const FAR = 10; // how far a step with Shift goes
const UNSTEADY = 5; // so far a finger moves that is to rest, in pixels of style

const STEPS = {
    ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, -1], ArrowDown: [0, 1],
};

function clamp(value, least, most) {
    return Math.max(least, Math.min(most, value));
}

// Lines between the pixels; the view begins with a whole one.
function drawGrid(context, scale) {
    context.fillStyle = 'rgb(128 128 128 / 0.35)';
    const {width, height} = context.canvas;
    for (let x = 0; x < width; x += scale)
        context.fillRect(x, 0, 1, height);
    for (let y = 0; y < height; y += scale)
        context.fillRect(0, y, width, 1);
}

export class ZoomView {
    #live;
    #guides;
    #post = null; // number of the post, or null while all four are shown
    #opener = null;
    #scale = 1;
    #left = 0; // the picture's pixel at the canvas's left upper corner
    #top = 0;
    #cursor = {x: 0, y: 0};
    #drag = null;
    #canvas = find('#zoom-canvas');
    #copy = new OffscreenCanvas(1, 1); // the picture with its guides
    #cells = {};
    #draw = oncePerFrame(() => this.#drawNow());

    constructor(live, guides) {
        this.#live = live;
        this.#guides = guides;
        this.#makeProbe();
        this.#makeButtons();
        this.#listen();
    }

    // Shows a post's pixels in place of the four pictures.
    open(number) {
        if (this.#post === null)
            this.#opener = document.activeElement;
        this.#post = number;
        find('#posts').hidden = true;
        find('#zoom').hidden = false;
        this.#cursor = this.#firstPlace();
        this.#scale = FIRST_SCALE;
        this.#fitCanvas();
        this.#center();
        this.#copyPicture();
        this.#showHead();
        this.#canvas.focus();
    }

    // The middle of the first OSD that is shown, or else of the picture.
    #firstPlace() {
        const {picture, layers} = this.#shown;
        if (!picture)
            return {x: 0, y: 0};
        const areas = layers.map((layer) => commonArea(areaOf(layer), wholeArea(picture)));
        const area = areas.find((each) => !isEmpty(each)) ?? wholeArea(picture);
        return {x: (area.left + area.right) >> 1, y: (area.top + area.bottom) >> 1};
    }

    close() {
        this.#post = null;
        find('#zoom').hidden = true;
        find('#posts').hidden = false;
        this.#opener?.focus();
    }

    // ---- Making --------------------------------------------------------------------------------

    #makeProbe() {
        const cell = (name) => (this.#cells[name] = element('td', {className: 'number'}));
        const swatch = (name) => (this.#cells[name] = element('span', {className: 'swatch'}));
        const row = (name, ...cells) => element('tr', {},
            element('th', {scope: 'row'}, name), ...cells);
        const head = (...names) => element('thead', {}, element('tr', {}, ...names.map(
            (name) => element('th', {scope: 'col'}, name))));
        const rows = [0, 1, 2, 3].map((osd) => {
            this.#cells[`name${osd}`] = element('th', {scope: 'row'});
            return element('tr', {}, this.#cells[`name${osd}`], cell(`index${osd}`),
                element('td', {}, swatch(`swatch${osd}`)), cell(`color${osd}`),
                cell(`place${osd}`));
        });
        find('#zoom-probe').append(
            element('table', {className: 'data'},
                element('caption', {}, 'At the cursor'),
                element('tbody', {}, row('Position', element('td'), cell('position')),
                    row('Colour', element('td', {}, swatch('swatch')), cell('color')),
                    row('Background', element('td', {}, swatch('below-swatch')), cell('below')))),
            element('table', {className: 'data'},
                element('caption', {}, 'Palette index of each OSD'),
                head('OSD', 'Index', '', 'Red, green, blue, alpha', 'In memory'),
                element('tbody', {}, ...rows)));
        // An empty head cell has no name to give.
        find('#zoom-probe thead th:empty').replaceWith(element('td'));
    }

    #makeButtons() {
        const buttons = POSTS.map((_, number) => element('button', {
            type: 'button', textContent: `Post ${number}`, on: {click: () => this.#turnTo(number)},
        }));
        find('#zoom-posts').append(...buttons);
        find('#zoom-in').addEventListener('click', () => this.#rescale(1));
        find('#zoom-out').addEventListener('click', () => this.#rescale(-1));
        find('#zoom-one').addEventListener('click', () => this.#setScale(1));
        find('#zoom-close').addEventListener('click', () => this.close());
    }

    #listen() {
        const canvas = this.#canvas;
        canvas.addEventListener('wheel', (event) => this.#wheel(event), {passive: false});
        canvas.addEventListener('keydown', (event) => this.#key(event));
        canvas.addEventListener('pointerdown', (event) => this.#grab(event));
        canvas.addEventListener('pointermove', (event) => this.#point(event));
        canvas.addEventListener('pointerup', (event) => this.#release(event));
        canvas.addEventListener('pointercancel', () => (this.#drag = null));
        find('#zoom').addEventListener('keydown', (event) => {
            if (event.key === 'Escape')
                this.close();
        });
        new ResizeObserver(() => {
            if (this.#post !== null) {
                this.#fitCanvas();
                this.#draw();
            }
        }).observe(canvas);
        this.#live.addEventListener('picture', (event) => {
            if (event.detail === this.#post)
                this.#copyPicture();
        });
        this.#live.addEventListener('state', () => {
            this.#showHead();
            this.#draw();
        });
        this.#guides.addEventListener('change', () => this.#copyPicture());
    }

    // ---- What is shown -------------------------------------------------------------------------

    get #shown() {
        return this.#live.pictures[this.#post];
    }

    #turnTo(number) {
        if (number === this.#post)
            return;
        this.open(number);
    }

    #showHead() {
        if (this.#post === null)
            return;
        const size = sizeOf(this.#live.state, this.#post);
        setText(find('#zoom-heading'), `Post ${this.#post}, ${POSTS[this.#post]}: ${size}`);
        this.#canvas.setAttribute('aria-label', `Pixels of post ${this.#post}`);
        [...find('#zoom-posts').children].forEach((button, number) => {
            button.setAttribute('aria-pressed', number === this.#post);
            setOff(button, !this.#live.state.posts[number].open && number !== this.#post);
        });
    }

    #whyEmpty() {
        const {state} = this.#live;
        const isDue = this.#shown.picture || state.posts[this.#post].open;
        return isDue ? '' : whyEmpty(state, this.#post);
    }

    #copyPicture() {
        if (this.#post === null)
            return;
        const {picture} = this.#shown;
        if (picture) {
            const {width, height} = picture;
            if (this.#copy.width !== width || this.#copy.height !== height) {
                Object.assign(this.#copy, {width, height});
                this.#putCursor(this.#cursor.x, this.#cursor.y);
                this.#center();
            }
            const guides = this.#guides.of(this.#live.state.posts[this.#post]);
            this.#copy.getContext('2d').putImageData(paint(this.#shown, guides, 1), 0, 0);
        }
        this.#draw();
    }

    // One pixel of the canvas for each of the screen.
    #fitCanvas() {
        const width = Math.max(1, Math.round(this.#canvas.clientWidth * devicePixelRatio));
        const height = Math.max(1, Math.round(this.#canvas.clientHeight * devicePixelRatio));
        if (this.#canvas.width !== width || this.#canvas.height !== height)
            Object.assign(this.#canvas, {width, height});
    }

    #drawNow() {
        if (this.#post === null)
            return;
        const context = this.#canvas.getContext('2d');
        const {width, height} = this.#canvas;
        context.clearRect(0, 0, width, height);
        this.#showProbe();
        showText(find('#zoom-empty'), this.#whyEmpty());
        showText(find('#zoom-failure'), whyStale(this.#live, this.#post));
        setText(find('#zoom-scale'), `${this.#scale}×`);
        setOff(find('#zoom-out'), this.#scale === SCALES[0]);
        setOff(find('#zoom-in'), this.#scale === SCALES.at(-1));
        if (!this.#shown.picture)
            return;
        context.imageSmoothingEnabled = false;
        const scale = this.#scale;
        context.drawImage(this.#copy, -this.#left * scale, -this.#top * scale,
                          this.#copy.width * scale, this.#copy.height * scale);
        if (scale >= GRID_FROM)
            drawGrid(context, scale);
        this.#drawCursor(context, scale);
    }

    // Light in dark, so that it is seen on any colour.
    #drawCursor(context, scale) {
        const left = (this.#cursor.x - this.#left) * scale;
        const top = (this.#cursor.y - this.#top) * scale;
        context.strokeStyle = '#000';
        context.strokeRect(left - 1.5, top - 1.5, scale + 3, scale + 3);
        context.strokeStyle = '#fff';
        context.strokeRect(left - 0.5, top - 0.5, scale + 1, scale + 1);
    }

    // What stands at the cursor; null while there is no picture.
    #probe() {
        const {picture, background, layers} = this.#shown;
        const {x, y} = this.#cursor;
        return picture && probe(picture, background, layers, this.#live.palette, x, y);
    }

    #showProbe() {
        const found = this.#probe();
        const cells = this.#cells;
        setText(cells.position, found ? `${found.x}, ${found.y}` : '—');
        this.#showColor('swatch', 'color', found?.color);
        this.#showColor('below-swatch', 'below', found?.below);
        for (let osd = 0; osd < POSTS.length; osd++) {
            const mode = modeOf(this.#live.valueOf, this.#post, osd);
            const at = found?.osds[osd];
            setText(cells[`name${osd}`], `${osd} ${modeName(mode, osd)}`);
            setText(cells[`index${osd}`], at ? String(at.index) : '—');
            setText(cells[`color${osd}`], at ? at.color.join(', ') : '—');
            setText(cells[`place${osd}`], at ? `${at.column}, ${at.line}` : '—');
            cells[`swatch${osd}`].style.backgroundColor = at ? colorStyle(at.color) : '';
        }
    }

    #showColor(swatch, cell, color) {
        setText(this.#cells[cell], color ? `${colorCode(color)}  ${color.join(', ')}` : '—');
        this.#cells[swatch].style.backgroundColor = color ? colorStyle(color) : '';
    }

    // ---- Moving --------------------------------------------------------------------------------

    get #viewWidth() {
        return this.#canvas.width / this.#scale;
    }

    get #viewHeight() {
        return this.#canvas.height / this.#scale;
    }

    // Moves the view so that it shows as much as it can of the picture; a smaller one stands in the
    // middle.
    #moveTo(left, top) {
        const {picture} = this.#shown;
        if (!picture)
            return;
        const keep = (at, view, whole) => (view >= whole
            ? Math.round((whole - view) / 2)
            : clamp(Math.round(at), 0, Math.ceil(whole - view)));
        this.#left = keep(left, this.#viewWidth, picture.width);
        this.#top = keep(top, this.#viewHeight, picture.height);
        this.#draw();
    }

    #center() {
        this.#moveTo(this.#cursor.x - this.#viewWidth / 2, this.#cursor.y - this.#viewHeight / 2);
    }

    // Keeps the picture's pixel at this place of the canvas where it is.
    #setScale(scale, at = null) {
        const pixel = at ? {x: this.#left + at.x / this.#scale, y: this.#top + at.y / this.#scale}
                         : {x: this.#cursor.x + 0.5, y: this.#cursor.y + 0.5};
        this.#scale = scale;
        const place = at ?? {x: this.#canvas.width / 2, y: this.#canvas.height / 2};
        this.#moveTo(pixel.x - place.x / scale, pixel.y - place.y / scale);
        this.#draw();
    }

    #rescale(direction, at = null) {
        const place = clamp(SCALES.indexOf(this.#scale) + direction, 0, SCALES.length - 1);
        this.#setScale(SCALES[place], at);
    }

    #placeOf(event) {
        return {x: event.offsetX * devicePixelRatio, y: event.offsetY * devicePixelRatio};
    }

    #wheel(event) {
        if (event.ctrlKey) // the browser's own scale
            return;
        event.preventDefault();
        if (event.deltaY !== 0)
            this.#rescale(event.deltaY < 0 ? 1 : -1, this.#placeOf(event));
    }

    #grab(event) {
        this.#canvas.setPointerCapture(event.pointerId);
        const place = this.#placeOf(event);
        this.#drag = {...place, left: this.#left, top: this.#top, isMoving: false};
    }

    // A finger has no pointer that goes ahead of it: a tap puts the cursor there.
    #release(event) {
        const wasMoving = this.#drag?.isMoving;
        this.#drag = null;
        if (!wasMoving)
            this.#point(event);
    }

    #dragTo({x, y}) {
        const drag = this.#drag;
        const far = Math.hypot(x - drag.x, y - drag.y);
        drag.isMoving ||= far > UNSTEADY * devicePixelRatio;
        if (drag.isMoving)
            this.#moveTo(drag.left - (x - drag.x) / this.#scale,
                         drag.top - (y - drag.y) / this.#scale);
    }

    #point(event) {
        const place = this.#placeOf(event);
        if (this.#drag) {
            this.#dragTo(place);
            return;
        }
        this.#putCursor(Math.floor(this.#left + place.x / this.#scale),
                        Math.floor(this.#top + place.y / this.#scale));
    }

    #putCursor(x, y) {
        const {picture} = this.#shown;
        if (!picture)
            return;
        this.#cursor = {x: clamp(x, 0, picture.width - 1), y: clamp(y, 0, picture.height - 1)};
        this.#draw();
    }

    #key(event) {
        const step = STEPS[event.key];
        if (event.ctrlKey || event.altKey || event.metaKey)
            return;
        if (step)
            this.#step(step, event.shiftKey ? FAR : 1);
        else if (event.key === '+' || event.key === '=')
            this.#rescale(1);
        else if (event.key === '-')
            this.#rescale(-1);
        else
            return;
        event.preventDefault();
    }

    #step([x, y], far) {
        this.#putCursor(this.#cursor.x + x * far, this.#cursor.y + y * far);
        const isSeen = this.#cursor.x >= this.#left && this.#cursor.y >= this.#top &&
            this.#cursor.x < this.#left + this.#viewWidth &&
            this.#cursor.y < this.#top + this.#viewHeight;
        if (!isSeen)
            this.#center();
        this.#sayProbe();
    }

    #sayProbe() {
        const found = this.#probe();
        if (!found)
            return;
        const osds = found.osds.flatMap((at, number) =>
            (at ? [`OSD ${number} index ${at.index}`] : []));
        announce([`${found.x}, ${found.y}`, colorCode(found.color), ...osds].join(', ') + '.');
    }
}
