// The 256 colours of the pictures as a grid with one stop for the keyboard.

import {onFile, showOutcome} from './actions.js';
import {element, find, setText} from './dom.js';
import {colorCode, colorStyle} from './format.js';

const COLUMNS = 16;

const MOVES = {
    ArrowLeft: -1, ArrowRight: 1, ArrowUp: -COLUMNS, ArrowDown: COLUMNS,
};

export class PaletteView {
    #live;
    #actions;
    #cells = [];
    #at = 0;

    constructor(live, actions) {
        this.#live = live;
        this.#actions = actions;
        this.#makeGrid();
        const outcome = find('#palette-outcome');
        onFile(find('#palette-load'), (_, text) =>
            this.#actions.run(outcome, 'PUT', '/api/palette', text, 'text/plain'),
            (why) => showOutcome(outcome, why));
        find('#palette-default').addEventListener('click', () =>
            this.#actions.run(outcome, 'DELETE', '/api/palette'));
        live.addEventListener('palette', () => this.#show());
        this.#show();
    }

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
                              (event) => this.#moveTo(this.#cells.indexOf(event.target)));
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

    #color(index) {
        return [...this.#live.palette.subarray(index * 4, index * 4 + 4)];
    }

    #show() {
        const {hasDefaultPalette, paletteError} = this.#live;
        setText(find('#palette-state'), paletteError ||
            (hasDefaultPalette ? 'The built-in palette.' : 'A palette of its own.'));
        find('#palette-default').disabled = hasDefaultPalette && paletteError === '';
        this.#cells.forEach((cell, index) => {
            const color = this.#color(index);
            cell.firstChild.style.backgroundColor = colorStyle(color);
            cell.setAttribute('aria-label', this.#words(index));
        });
        this.#read(this.#at);
    }

    #words(index) {
        const [red, green, blue, alpha] = this.#color(index);
        return `${index}: red ${red}, green ${green}, blue ${blue}, alpha ${alpha}`;
    }

    #read(index) {
        const code = colorCode(this.#color(index));
        setText(find('#palette-readout'), `${this.#words(index)} · ${code}`);
    }

    #moveTo(index) {
        this.#cells[this.#at].tabIndex = -1;
        this.#at = index;
        this.#cells[index].tabIndex = 0;
        this.#read(index);
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
