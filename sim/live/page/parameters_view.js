// The form of all parameters: what is in force, what was typed instead, and how it is carried out.
// A field belongs to the user from the first key on until its change has been carried out.

import {announce} from './announce.js';
import {showOutcome} from './actions.js';
import {parameterFile} from './command.js';
import {element, find, keepFocusInView, setOff, setText, showText} from './dom.js';
import {download} from './files.js';
import {colorStyle, counted} from './format.js';
import {
    byteLength, defaultOf, Draft, errorsByKey, isColor, isSwitch, nameOf, needsRestart, rangeOf,
} from './parameters.js';
import {Preview} from './preview.js';
import {COLOR_TYPES, POSTS, SLOTS} from './slots.js';

// What the values of some parameters mean, by value.
function choicesOf(key) {
    if (key.endsWith('ColorType'))
        return COLOR_TYPES.map((name) => name.split(' ')[0]);
    return /Rectangle\dOn$/.test(key) ? ['no', 'yes', 'yes'] : null;
}

// ---- One parameter -----------------------------------------------------------------------------

class Field {
    root;
    #row;
    #view;
    #input;
    #swatch = null;
    #hint;
    #error;

    constructor(row, view) {
        this.#row = row;
        this.#view = view;
        this.root = this.#make();
    }

    get key() {
        return this.#row.key;
    }

    #make() {
        const {key} = this.#row;
        this.#input = this.#makeInput();
        this.#input.id = `field-${key}`;
        this.#input.setAttribute('aria-describedby', `hint-${key} error-${key}`);
        this.#input.setAttribute('form', 'parameter-apply'); // Return carries the changes out
        this.#input.addEventListener('input', () => this.#typed());
        this.#hint = element('span', {className: 'hint', id: `hint-${key}`});
        this.#error = element('span', {className: 'error', id: `error-${key}`});
        const label = element('label', {htmlFor: this.#input.id, title: key}, nameOf(key));
        if (!this.#row.option)
            label.append(' ', element('span', {className: 'tag', title: 'Only a file can set it'},
                                      'file'));
        const box = element('span', {className: 'input-box'}, this.#input);
        if (isColor(this.#row)) {
            this.#swatch = element('span', {className: 'swatch'});
            box.prepend(this.#swatch);
        }
        const parts = isSwitch(this.#row) ? [box, label] : [label, box];
        return element('div', {
            className: isSwitch(this.#row) ? 'field check' : 'field',
            dataset: {kind: this.#row.kind},
        }, ...parts, this.#hint, this.#error);
    }

    #makeInput() {
        if (isSwitch(this.#row))
            return element('input', {type: 'checkbox'});
        const choices = choicesOf(this.key);
        if (choices) {
            return element('select', {}, ...choices.map((name, value) =>
                element('option', {value}, `${value}: ${name}`)));
        }
        return element('input', {
            type: 'text',
            autocomplete: 'off',
            spellcheck: false,
            inputMode: this.#row.kind === 'number' ? 'numeric' : 'text',
        });
    }

    get #value() {
        return isSwitch(this.#row) ? String(Number(this.#input.checked)) : this.#input.value;
    }

    set #value(value) {
        if (isSwitch(this.#row)) {
            this.#input.checked = Number(value) !== 0;
            return;
        }
        // The application takes 01 for 1: the choice of the same number has the same spelling.
        const choice = [...this.#input.options ?? []].find((each) =>
            Number(each.value) === Number(value));
        if (choice)
            choice.value = value;
        if (this.#input.value !== value)
            this.#input.value = value;
    }

    #typed() {
        this.#view.typed(this.key, this.#value);
        this.showError('');
        this.show();
    }

    // Shows the value that was typed, or the one in force, or else the default.
    show() {
        const {draft, live} = this.#view;
        const inForce = live.valueOf(this.key);
        const isTyped = draft.has(this.key);
        if (!isTyped)
            this.#value = inForce ?? this.#row.default;
        this.root.classList.toggle('changed', isTyped);
        const hints = this.#hints(inForce, isTyped);
        if (this.#hint.textContent !== hints.join(', ')) {
            const parts = hints.map((text, at) =>
                element('span', {}, at + 1 < hints.length ? `${text}, ` : text));
            this.#hint.replaceChildren(...parts);
        }
        if (this.#swatch)
            this.#showSwatch();
    }

    #hints(inForce, isTyped) {
        const hints = isSwitch(this.#row) ? [] : [rangeOf(this.#row)];
        if (this.#row.kind === 'string')
            hints.unshift(counted(byteLength(this.#value), 'byte'));
        hints.push(`default ${defaultOf(this.#row)}`);
        if (isTyped && inForce !== null)
            hints.push(`in force ${inForce === '' ? 'empty' : inForce}`);
        return hints;
    }

    #showSwatch() {
        const index = Number(this.#value);
        const {palette, isPaletteKnown} = this.#view.live;
        const isIndex = isPaletteKnown && /^\d+$/.test(this.#value) && index < palette.length / 4;
        this.#swatch.style.backgroundColor =
            isIndex ? colorStyle([...palette.subarray(index * 4, index * 4 + 4)]) : '';
    }

    showError(text) {
        setText(this.#error, text);
        if (text === '')
            this.#input.removeAttribute('aria-invalid');
        else
            this.#input.setAttribute('aria-invalid', true);
    }

    focus() {
        this.#input.focus();
    }
}

// ---- Groups ------------------------------------------------------------------------------------

// Legend, test of the key, what is to be known of the group, and how its fields are laid out.
const COMMON_GROUPS = [
    ['Font', (key) => key === 'OsdFontFile',
        'A running server takes another font where a post or a slot next opens.', ''],
    ['Colours of the texts', (key) => key.includes('Color'), '', 'pairs'],
    ['Safe spaces of the TV output, in pixels', (key) => key.includes('SafeSpace'),
        'Change them with a restart: they change the size of the font.', ''],
];

const START_NOTE = 'No server runs: the fields show the defaults. A start begins with the common ' +
    'parameter file, and what is typed here, even a default, goes before it.';
const RESTART_NOTE = 'Safe spaces and font belong to a restart: an update that changes the size ' +
    'of the font can end the server.';

function rectangleNote(number) {
    return `Shares its slot with the ${SLOTS[number].text.toLowerCase()}, which wins.`;
}

export class ParametersView {
    draft = new Draft();
    live;
    #actions;
    #fields = new Map();
    #preview = new Preview('apply', true);
    #panels = new Map(); // by group: '' for the common one, or the digit of a post
    #group = '0';

    constructor(live, actions) {
        this.live = live;
        this.#actions = actions;
        this.#makeChoices();
        live.addEventListener('parameters', () => this.#takeParameters());
        live.addEventListener('palette', () => this.#showFields());
        live.addEventListener('state', () => this.#showApply());
        actions.addEventListener('busy', () => this.#showApply());
        keepFocusInView(find('#parameter-fields'));
        find('#parameter-apply').addEventListener('submit', (event) => {
            event.preventDefault();
            this.#carryOut(this.live.state.application.running ? 'update' : 'start');
        });
        find('#apply-restart').addEventListener('click', () => this.#carryOut('restart'));
        find('#apply-restart').addEventListener('blur', () => this.#showApply());
        find('#apply-discard').addEventListener('click', () => this.#discard());
        find('#apply-save').addEventListener('click', () => this.#save());
        this.#showApply();
    }

    // What a field reports when the user changes it.
    typed(key, value) {
        const row = this.live.rowOf(key);
        this.draft.type(key, value, row.value);
        showOutcome(find('#apply-outcome'), '');
        this.#showApply();
        this.#showChoices();
    }

    // ---- Making the form -----------------------------------------------------------------------

    #makeChoices() {
        const groups = [...POSTS.keys()].map(String).concat('');
        find('#parameter-groups').append(...groups.map((group) => element('button', {
            type: 'button',
            dataset: {group},
            textContent: group === '' ? 'Common' : `Post ${group}`,
            on: {click: () => this.#choose(group)},
        })));
        find('#parameter-fields').append(element('p', {className: 'empty'}, 'Not known yet.'));
    }

    #choose(group) {
        this.#group = group;
        for (const [name, panel] of this.#panels)
            panel.hidden = name !== group;
        this.#showChoices();
    }

    #showChoices() {
        const rows = this.live.parameters;
        for (const button of find('#parameter-groups').children) {
            const {group} = button.dataset;
            button.setAttribute('aria-pressed', group === this.#group);
            const isChanged = rows.some((row) => String(row.post ?? '') === group &&
                this.draft.has(row.key));
            button.classList.toggle('changed', isChanged);
            setText(button, (group === '' ? 'Common' : `Post ${group}`) + (isChanged ? ' *' : ''));
        }
    }

    #takeParameters() {
        if (this.#fields.size === 0)
            this.#makeFields();
        this.#showFields();
        this.#showApply();
    }

    #makeFields() {
        for (const row of this.live.parameters)
            this.#fields.set(row.key, new Field(row, this));
        for (const group of ['', ...POSTS.keys()].map(String)) {
            const sets = group === '' ? this.#commonSets() : this.#postSets(Number(group));
            this.#panels.set(group, element('div', {hidden: true}, ...sets));
        }
        find('#parameter-fields').replaceChildren(...this.#panels.values());
        this.#choose(this.#group);
    }

    #fieldSet(legend, note, rows, layout = '') {
        const parts = [element('legend', {}, legend)];
        if (note !== '')
            parts.push(element('p', {className: 'hint'}, note));
        const fields = rows.map((row) => this.#fields.get(row.key).root);
        parts.push(element('div', {className: `fields ${layout}`}, ...fields));
        return element('fieldset', {}, ...parts);
    }

    #commonSets() {
        const rows = this.live.parameters.filter((row) => row.group === 'common');
        return COMMON_GROUPS.map(([legend, belongs, note, layout]) =>
            this.#fieldSet(legend, note, rows.filter((row) => belongs(row.key)), layout));
    }

    #postSets(post) {
        const rowsOf = (group) => this.live.parameters.filter(
            (row) => row.post === post && row.group === group);
        const rectangles = SLOTS.map((_, number) => this.#fieldSet(
            `Rectangle ${number}`, rectangleNote(number), rowsOf(`rectangle${number}`)));
        return [this.#fieldSet(`Texts of post ${post}, ${POSTS[post]}`, '', rowsOf('texts')),
            ...rectangles];
    }

    #showFields() {
        for (const field of this.#fields.values())
            field.show();
        this.#showChoices();
    }

    // ---- Carrying out --------------------------------------------------------------------------

    #changes() {
        return this.draft.changes(this.live.parameters);
    }

    #requestOf(name, changes) {
        const request = {function: name, parameters: changes};
        return name === 'restart' ? {...request, keep: true} : request;
    }

    #showApply() {
        const changes = this.#changes();
        const running = this.live.state?.application.running ?? false;
        const has = changes.length > 0;
        setText(find('#apply-count'), has ? counted(changes.length, 'change') : 'No change.');
        const wantsRestart = running && changes.some(([key]) => needsRestart(key));
        showText(find('#apply-note'), this.#note(running, wantsRestart));
        // It isn't taken away while it has the focus.
        const restart = find('#apply-restart');
        restart.hidden = !wantsRestart && document.activeElement !== restart;
        setText(find('#apply-submit'), running ? 'Update' : 'Start with them');
        const cannot = !has || this.#actions.running > 0;
        setOff(find('#apply-submit'), cannot || !this.live.state);
        setOff(restart, cannot || !wantsRestart);
        setOff(find('#apply-discard'), !has);
        setOff(find('#apply-save'), !has);
        const functions = running ? ['update', ...(wantsRestart ? ['restart'] : [])] : ['start'];
        this.#showCommands(has ? functions.map((name) => this.#requestOf(name, changes)) : []);
    }

    #note(running, wantsRestart) {
        if (this.live.state && !running)
            return START_NOTE;
        return wantsRestart ? RESTART_NOTE : '';
    }

    // What a restart keeps depends on what is in force.
    #showCommands(requests) {
        const version = this.live.state?.parameters;
        this.#preview.show(requests, JSON.stringify([requests, version]));
    }

    async #carryOut(name) {
        const changes = this.#changes();
        if (changes.length === 0)
            return;
        this.#fields.forEach((field) => field.showError(''));
        const outcome = find('#apply-outcome');
        const answer = await this.#actions.application(null, this.#requestOf(name, changes));
        if (answer.good) {
            this.draft.carriedOut(changes);
            showOutcome(outcome, 'Done.', true);
        } else {
            showOutcome(outcome, answer.words);
            this.#showErrors(answer.error ?? '');
        }
        await this.live.readParameters();
        this.#showFields();
        this.#showApply();
    }

    #showErrors(text) {
        const errors = [...errorsByKey(text)].filter(([key]) => this.#fields.has(key));
        for (const [key, messages] of errors)
            this.#fields.get(key).showError(messages.join(' '));
        if (errors.length === 0)
            return;
        const [[first]] = errors;
        this.#choose(String(this.live.rowOf(first).post ?? ''));
        this.#fields.get(first).focus();
    }

    #save() {
        const changes = this.#changes();
        const emptied = changes.filter(([, value]) => value === '').map(([key]) => key);
        const text = parameterFile(changes.filter(([, value]) => value !== ''));
        download(new Blob([text], {type: 'text/plain'}), 'changes.conf');
        const without = emptied.length === 0
            ? '' : `, without ${emptied.join(', ')}: a file leaves alone what it gives as empty`;
        showOutcome(find('#apply-outcome'), `Saved as changes.conf${without}.`, true);
    }

    #discard() {
        this.draft.discardAll();
        this.#fields.forEach((field) => field.showError(''));
        showOutcome(find('#apply-outcome'), '');
        this.#showFields();
        this.#showApply();
        announce('Discarded.');
    }
}
