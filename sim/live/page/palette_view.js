// The 256 colours of the pictures as a grid with one stop for the keyboard, and a form that changes
// the chosen one.

import {showOutcome} from './actions.js';
import {element, find, setOff, setText} from './dom.js';
import {download, LONGEST_PALETTE, onFile} from './files.js';
import {colorCode, colorStyle} from './format.js';
import {isSamePalette, paletteFile, parseColor, withColor} from './palette.js';

const COLUMNS = 16;

const MOVES = {
    ArrowLeft: -1, ArrowRight: 1, ArrowUp: -COLUMNS, ArrowDown: COLUMNS,
};

export class PaletteView {
    #live;
    #actions;
    #cells = [];
    #at = 0; // the chosen index
    #loaded; // the palette without what was set here, and whether it is the built-in one
    #isBuiltIn = true;
    #own = []; // the palette that the last change here has made, and those still to come
    #turn = Promise.resolve(); // of the changes, which are carried out one after the other
    #filled = ''; // what the form was filled with

    constructor(live, actions) {
        this.#live = live;
        this.#actions = actions;
        this.#makeGrid();
        const outcome = find('#palette-outcome');
        onFile(find('#palette-load'), LONGEST_PALETTE, (_, bytes) => this.#put(bytes),
               (why) => showOutcome(outcome, why));
        find('#palette-default').addEventListener('click', () => this.#remove());
        find('#palette-save').addEventListener('click', () => this.#save());
        find('#palette-form').addEventListener('submit', (event) => {
            event.preventDefault();
            this.#set();
        });
        find('#palette-back').addEventListener(
            'click', () => this.#change(this.#color(this.#at, this.#loaded)));
        live.addEventListener('palette', () => this.#take());
        this.#take();
        this.#choose(0);
    }

    // ---- Changing ------------------------------------------------------------------------------

    #put(body) {
        return this.#actions.run(find('#palette-outcome'), 'PUT', '/api/palette', body,
                                 'text/plain');
    }

    #remove() {
        return this.#actions.run(find('#palette-outcome'), 'DELETE', '/api/palette');
    }

    #save() {
        const text = paletteFile(this.#live.palette);
        download(new Blob([text], {type: 'text/plain'}), 'palette.txt');
        showOutcome(find('#palette-outcome'), 'Saved as palette.txt.', true);
    }

    #set() {
        const color = parseColor(find('#palette-color').value, find('#palette-alpha').value);
        find('#palette-alpha').setAttribute('aria-invalid', color === null);
        if (color)
            this.#change(color);
        else
            showOutcome(find('#palette-outcome'), 'Alpha is a number of 0 to 255.');
    }

    // Gives the chosen index a colour, on top of the changes that are still to come.
    #change(color) {
        const palette = withColor(this.#own.at(-1) ?? this.#live.palette, this.#at, color);
        this.#own.push(palette);
        const isLoaded = this.#isBuiltIn && isSamePalette(palette, this.#loaded);
        this.#turn = this.#turn.then(async () => {
            const {good} = await (isLoaded ? this.#remove() : this.#put(paletteFile(palette)));
            if (!good)
                this.#own = this.#own.filter((each) => each !== palette);
        });
    }

    // Another palette than those that changes here have made is a loaded one.
    #take() {
        const {palette, hasDefaultPalette} = this.#live;
        const at = this.#own.findIndex((each) => isSamePalette(palette, each));
        this.#own = at === -1 ? [] : this.#own.slice(at);
        if (at === -1) {
            this.#loaded = palette;
            this.#isBuiltIn = hasDefaultPalette;
        }
        this.#show();
        this.#fill();
    }

    // ---- The grid ------------------------------------------------------------------------------

    #makeGrid() {
        const head = (text) => element('th', {scope: 'col'}, text);
        const names = Array.from({length: COLUMNS}, (_, column) => head(String(column)));
        find('#palette-head').append(element('tr', {}, element('td'), ...names));
        for (let first = 0; first < 256; first += COLUMNS) {
            const cells = Array.from({length: COLUMNS},
                                     (_, column) => this.#makeCell(first + column));
            find('#palette-rows').append(
                element('tr', {}, element('th', {scope: 'row'}, String(first)), ...cells));
        }
        const grid = find('#palette-rows');
        grid.addEventListener('focusin',
                              (event) => this.#choose(this.#cells.indexOf(event.target)));
        grid.addEventListener('pointerover', (event) => {
            const index = this.#cells.indexOf(event.target.closest('td'));
            if (index >= 0)
                this.#read(index);
        });
        grid.addEventListener('pointerleave', () => this.#read(this.#at));
        grid.addEventListener('keydown', (event) => this.#key(event));
    }

    #makeCell(index) {
        const cell = element('td', {tabIndex: index === 0 ? 0 : -1, attributes: {role: 'gridcell'}},
                             element('span', {className: 'swatch'}));
        this.#cells[index] = cell;
        return cell;
    }

    #color(index, palette = this.#live.palette) {
        return [...palette.subarray(index * 4, index * 4 + 4)];
    }

    #show() {
        const {hasDefaultPalette, isPaletteKnown, paletteError} = this.#live;
        setText(find('#palette-state'), paletteError || this.#state);
        setOff(find('#palette-default'), hasDefaultPalette && paletteError === '');
        setOff(find('#palette-set'), !isPaletteKnown);
        setOff(find('#palette-save'), !isPaletteKnown);
        this.#cells.forEach((cell, index) => {
            const color = this.#color(index);
            cell.firstChild.style.backgroundColor = colorStyle(color);
            cell.setAttribute('aria-label', this.#words(index));
        });
        this.#read(this.#at);
    }

    get #state() {
        if (!this.#live.isPaletteKnown)
            return 'Not known yet.';
        return this.#live.hasDefaultPalette ? 'The built-in palette.' : 'A palette of its own.';
    }

    #words(index) {
        if (!this.#live.isPaletteKnown)
            return `${index}: not known yet`;
        const [red, green, blue, alpha] = this.#color(index);
        return `${index}: red ${red}, green ${green}, blue ${blue}, alpha ${alpha}`;
    }

    #read(index) {
        const code = this.#live.isPaletteKnown ? ` · ${colorCode(this.#color(index))}` : '';
        setText(find('#palette-readout'), this.#words(index) + code);
    }

    #choose(index) {
        for (const [at, isChosen] of [[this.#at, false], [index, true]]) {
            this.#cells[at].tabIndex = isChosen ? 0 : -1;
            this.#cells[at].setAttribute('aria-selected', isChosen);
        }
        this.#at = index;
        this.#read(index);
        this.#fill();
    }

    // Has the form show the chosen colour, but leaves alone what was typed while it stays the same.
    #fill() {
        const color = this.#color(this.#at);
        const loaded = this.#color(this.#at, this.#loaded);
        setOff(find('#palette-back'), color.every((part, at) => part === loaded[at]));
        const filled = [this.#at, ...color].join();
        if (filled === this.#filled)
            return;
        this.#filled = filled;
        setText(find('#palette-name'), `Colour ${this.#at}`);
        find('#palette-color').value = colorCode(color);
        find('#palette-alpha').value = String(color[3]);
        find('#palette-alpha').removeAttribute('aria-invalid');
    }

    #key(event) {
        const move = MOVES[event.key];
        const next = this.#at + (move ?? 0);
        if (move === undefined)
            return;
        event.preventDefault();
        if (next >= 0 && next < 256)
            this.#cells[next].focus();
    }
}
