// Faults by name: a form of their words, the list of those in force, and the switch for all.

import {copyOnClick, showOutcome} from './actions.js';
import {commandLine} from './command.js';
import {element, find, setOff, setText, showSwitch, syncRows} from './dom.js';
import {
    CHANGED_SIZES, CODES, EFFECTS, effectsOf, faultLine, hasPost, OPERATIONS,
} from './faults.js';

const VALUE_NAMES = {
    code: 'Code', ms: 'Milliseconds', bytes: 'Bytes', size: 'Its size, or closed',
};
const VALUES = {code: 'gone1', ms: '500', bytes: '-16', size: '640x480'};

function options(names) {
    return names.map((name) => element('option', {value: name}, name));
}

export class FaultsView {
    #live;
    #actions;
    #showSwitch;

    constructor(live, actions) {
        this.#live = live;
        this.#actions = actions;
        find('#fault-operation').append(...options(OPERATIONS));
        find('#fault-operation').value = 'open_osd';
        find('#fault-code').append(...options(CODES));
        find('#fault-size').append(...options(CHANGED_SIZES));
        this.#showEffects();
        this.#listen();
    }

    #listen() {
        const form = find('#fault-form');
        find('#fault-operation').addEventListener('input', () => this.#showEffects());
        find('#fault-effect').addEventListener('input', () => this.#showValue());
        form.addEventListener('input', () => this.#showLine());
        form.addEventListener('submit', (event) => {
            event.preventDefault();
            this.#add();
        });
        find('#fault-clear').addEventListener('click', () => this.#clear());
        this.#showSwitch = showSwitch(find('#faults-on'), () => this.#live.state.faults.on,
                                      (isOn) => this.#switch(isOn));
        copyOnClick(find('#fault-copy'), find('#fault-command'));
        this.#live.addEventListener('state', () => {
            this.#showList();
            this.#showCommand();
        });
    }

    // ---- The form ------------------------------------------------------------------------------

    #showEffects() {
        const operation = find('#fault-operation').value;
        const select = find('#fault-effect');
        const old = select.value;
        const effects = effectsOf(operation);
        select.replaceChildren(...effects.map(({name, what}) =>
            element('option', {value: name}, `${name}: ${what}`)));
        select.value = effects.some(({name}) => name === old) ? old : effects[0].name;
        find('#fault-post').disabled = !hasPost(operation);
        this.#showValue();
    }

    #showValue() {
        const effect = EFFECTS.find(({name}) => name === find('#fault-effect').value);
        find('#fault-value-field').hidden = effect.value === null;
        find('#fault-changed-field').hidden = !effect.onPost;
        if (effect.value !== null && find('#fault-value').dataset.kind !== effect.value) {
            find('#fault-value').dataset.kind = effect.value;
            find('#fault-value').value = VALUES[effect.value];
            find('#fault-value').setAttribute('list', `fault-${effect.value}`);
            setText(find('#fault-value-name'), VALUE_NAMES[effect.value]);
        }
        this.#showLine();
    }

    get #line() {
        const words = {};
        for (const name of ['operation', 'when', 'number', 'effect', 'changed', 'value', 'post'])
            words[name] = find(`#fault-${name}`).value;
        return faultLine(words);
    }

    #showLine() {
        const when = find('#fault-when').value;
        find('#fault-number-field').hidden = when !== 'nth' && when !== 'percent';
        setText(find('#fault-number-name'), when === 'percent' ? 'Per cent' : 'N');
        this.#showCommand();
        showOutcome(find('#fault-outcome'), '');
    }

    #showCommand() {
        const words = commandLine(['fault', 'add', ...this.#line.split(' ')]);
        setText(find('#fault-command'), `${this.#live.state?.tool ?? 'qm5sim'} ${words}`);
    }

    #add() {
        return this.#actions.run(find('#fault-outcome'), 'POST', '/api/faults',
                                 {fault: this.#line});
    }

    // ---- The list ------------------------------------------------------------------------------

    #clear() {
        return this.#actions.run(find('#fault-outcome'), 'DELETE', '/api/faults');
    }

    #remove(id) {
        return this.#actions.run(find('#fault-outcome'), 'DELETE', `/api/faults/${id}`);
    }

    #switch(isOn) {
        return this.#actions.run(find('#fault-outcome'), 'PUT', '/api/settings',
                                 {name: 'faults', value: isOn ? '1' : '0'});
    }

    #showList() {
        const {on, list} = this.#live.state.faults;
        const scroll = find('#fault-scroll');
        const hadFocus = scroll.contains(document.activeElement);
        this.#showSwitch();
        find('#fault-empty').hidden = list.length > 0;
        setOff(find('#fault-clear'), list.length === 0);
        syncRows(find('#fault-rows'), list, ({id}) => id, (fault) => this.#makeRow(fault),
                 (row, {met, happened}) => {
                     setText(row.children[2], String(met));
                     setText(row.children[3], on ? String(happened) : `${happened}, off`);
                 });
        // A row that goes takes its button along, which may have had the focus.
        if (hadFocus && !scroll.contains(document.activeElement))
            (list.length > 0 ? scroll : find('#fault-operation')).focus();
        scroll.hidden = list.length === 0;
    }

    #makeRow({id, line}) {
        const number = () => element('td', {className: 'number'});
        const remove = element('button', {
            type: 'button',
            textContent: 'Remove',
            attributes: {'aria-label': `Remove fault ${id}`},
            on: {click: () => this.#remove(id)},
        });
        return element('tr', {}, element('th', {scope: 'row', className: 'number'}, String(id)),
                       element('td', {className: 'code'}, line), number(), number(),
                       element('td', {}, remove));
    }
}
