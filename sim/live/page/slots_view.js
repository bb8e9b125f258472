// The slot inspector: a table of the OSDs of all posts, as the codec has them.

import {element, find, setText, showText, syncRows} from './dom.js';
import {hexadecimal, timeOfDay} from './format.js';
import {COLOR_TYPES, modeName, modeOf, TIME_SLOT} from './slots.js';

const FRESH_MS = 1500; // how long a change is marked

const NUMBERS = new Set(['requested', 'bytes', 'pixels', 'memory', 'sets']);
const COLUMNS = [
    'osd', 'holds', 'colors', 'handle', 'requested', 'bytes', 'pixels', 'memory', 'shown', 'sets',
    'last',
];

function makeRow() {
    const cells = COLUMNS.map((name) => element('td', {
        className: NUMBERS.has(name) ? 'number' : '', dataset: {column: name},
    }));
    return element('tr', {}, element('th', {scope: 'row'}), ...cells);
}

// The server knows no moment before its own start.
function lastSet({sets, last_set: moment}) {
    if (moment)
        return timeOfDay(moment);
    return sets > 0 ? 'before this page' : 'never';
}

export class SlotsView {
    #live;
    #sets = new Map(); // what the codec had been given at the last look

    constructor(live) {
        this.#live = live;
        live.addEventListener('state', () => this.#show());
        live.addEventListener('parameters', () => this.#show());
        find('#slots-all').addEventListener('input', () => this.#show());
    }

    #show() {
        if (!this.#live.state)
            return;
        const withClosed = find('#slots-all').checked;
        const rows = this.#live.state.posts.flatMap((post) => {
            const osds = withClosed ? [0, 1, 2, 3].map((number) => (
                post.osds.find((osd) => osd.number === number) ?? {number})) : post.osds;
            return osds.filter((osd) => withClosed || osd.handle)
                .map((osd, at) => ({post, osd, isFirst: at === 0}));
        });
        const none = this.#live.state.state_error ? 'Not known.' : 'No OSD is open.';
        showText(find('#slots-empty'), rows.length > 0 ? '' : none);
        find('#slots-scroll').hidden = rows.length === 0;
        const keyOf = ({post, osd}) => `${post.number}/${osd.number}`;
        syncRows(find('#slots-rows'), rows, keyOf, makeRow,
                 (row, {post, osd, isFirst}) => {
                     row.classList.toggle('first', isFirst);
                     this.#update(row, post, osd);
                 });
    }

    #texts(post, osd) {
        const mode = modeOf(this.#live.valueOf, post.number, osd.number);
        const isOpen = Boolean(osd.handle);
        return {
            osd: String(osd.number),
            holds: modeName(mode, osd.number),
            colors: isOpen ? `${COLOR_TYPES[osd.color_type]}, ${osd.bits_per_pixel} bits` : '—',
            handle: isOpen ? hexadecimal(osd.handle) : 'not open',
            requested: isOpen ? `${osd.width} × ${osd.height}` : '',
            bytes: isOpen ? String(osd.line_bytes) : '',
            pixels: isOpen ? String(osd.line_pixels) : '',
            memory: isOpen ? String(osd.memory_bytes) : '',
            shown: isOpen ? (osd.shown ? `${osd.x}, ${osd.y}` : 'not shown') : '',
            sets: isOpen ? String(osd.sets) : '',
            last: isOpen ? lastSet(osd) : '',
        };
    }

    #update(row, post, osd) {
        setText(row.firstChild, String(post.number));
        const texts = this.#texts(post, osd);
        for (const cell of row.querySelectorAll('td'))
            setText(cell, texts[cell.dataset.column]);
        this.#markFresh(row, post, osd);
    }

    // Marks what was set since the last look; not a time that goes on, which would flicker.
    #markFresh(row, post, osd) {
        const key = `${post.number}/${osd.number}`;
        const now = osd.handle ? `${osd.handle} ${osd.shown} ${osd.sets}` : '';
        const old = this.#sets.get(key);
        this.#sets.set(key, now);
        const goesOn = osd.number === TIME_SLOT && old?.split(' ')[0] === now.split(' ')[0];
        if (old === undefined || old === now || goesOn)
            return;
        row.classList.add('fresh');
        clearTimeout(Number(row.dataset.timer));
        row.dataset.timer = setTimeout(() => row.classList.remove('fresh'), FRESH_MS);
    }
}
