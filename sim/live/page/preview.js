// The commands that buttons would run, as the server makes them, to be copied before they are run.

import {copyOnClick} from './actions.js';
import {change} from './api.js';
import {element, find, setOff, setText, showText, syncRows} from './dom.js';

const PAUSE_MS = 150; // of the user's typing, before the server is asked

async function ask(request) {
    const answer = await change('POST', '/api/application', {...request, preview: true});
    return {name: request.function, ...answer};
}

export class Preview {
    #list;
    #outcome;
    #withFiles;
    #key = '';
    #timer = 0;

    // `name` is that of the list's element, and of its outcome's. Files are shown on demand.
    constructor(name, withFiles) {
        this.#list = find(`#${name}-commands`);
        this.#outcome = find(`#${name}-commands-outcome`);
        this.#withFiles = withFiles;
    }

    // Shows the commands of requests for different functions. The server is asked only if `key`,
    // on which its answer depends, is another one than before.
    show(requests, key = JSON.stringify(requests)) {
        if (key === this.#key)
            return;
        this.#key = key;
        clearTimeout(this.#timer);
        if (requests.length === 0) {
            this.#showAll([]);
            return;
        }
        // What stands there isn't the command any more.
        this.#list.querySelectorAll('button').forEach((button) => setOff(button, true));
        this.#timer = setTimeout(() => this.#askAll(requests, key), PAUSE_MS);
    }

    async #askAll(requests, key) {
        let answers = [];
        let why = '';
        try {
            answers = await Promise.all(requests.map(ask));
        } catch (error) {
            why = error.message;
        }
        if (key !== this.#key)
            return;
        if (why)
            this.#key = ''; // asked again the next time
        this.#showAll(answers, why);
    }

    #showAll(answers, why = '') {
        showText(this.#outcome, why);
        syncRows(this.#list, answers, ({name}) => name, (answer) => this.#makeRow(answer),
                 (row, {command, file}) => {
                     setText(find('code', row), command);
                     setText(find('pre', row), file ?? '');
                     setOff(find('button', row), false);
                     find('details', row).hidden = file === null || !this.#withFiles;
                 });
    }

    // The file of a restart is a long one.
    #makeRow({name}) {
        const command = element('code');
        const copy = element('button', {
            type: 'button',
            textContent: 'Copy',
            attributes: {'aria-label': `Copy the command for ${name}`},
        });
        copyOnClick(copy, command);
        return element('div', {}, element('div', {className: 'command-box'}, command, copy),
                       element('details', {open: name !== 'restart'},
                               element('summary', {}, 'Its file, written when this page runs it'),
                               element('pre', {tabIndex: 0})));
    }
}
