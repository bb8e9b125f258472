// Parameter files: the one that the application saves, and one that is loaded, compared with what
// is in force, and carried out.

import {copyOnClick, onFile, showOutcome} from './actions.js';
import {change, post} from './api.js';
import {commandLine} from './command.js';
import {element, find, setText} from './dom.js';
import {counted} from './format.js';

function shownValue(value) {
    if (value === null)
        return 'not known';
    return value === '' ? 'empty' : value;
}

// Has the browser save a text under a name.
function download(blob, name) {
    const url = URL.createObjectURL(blob);
    element('a', {href: url, download: name}).click();
    setTimeout(() => URL.revokeObjectURL(url), 1000);
}

export class FileView {
    #live;
    #actions;
    #name = '';
    #text = null;

    constructor(live, actions) {
        this.#live = live;
        this.#actions = actions;
        const outcome = find('#file-outcome');
        find('#file-save').addEventListener('click', () => this.#save());
        onFile(find('#file-load'), (file, text) => this.#load(file.name, text),
               (why) => showOutcome(outcome, why));
        find('#file-apply').addEventListener('click', () => this.#carryOut(this.#function));
        find('#file-restart').addEventListener('click', () => this.#carryOut('restart'));
        find('#file-compare').addEventListener('click', () => this.#compare());
        find('#file-close').addEventListener('click', () => this.#close());
        copyOnClick(find('#file-copy'), find('#file-command'));
        live.addEventListener('state', () => this.#showButtons());
        actions.addEventListener('busy', () => this.#showButtons());
        this.#showButtons();
    }

    get #running() {
        return this.#live.state?.application.running ?? false;
    }

    get #function() {
        return this.#running ? 'update' : 'start';
    }

    #showButtons() {
        const isBusy = this.#actions.running > 0 || !this.#live.state;
        find('#file-save').disabled = !this.#running;
        find('#file-apply').disabled = isBusy;
        find('#file-restart').disabled = isBusy || !this.#running;
        setText(find('#file-apply'), this.#running ? 'Update' : 'Start with it');
        setText(find('#file-command'), commandLine(['qm5osd', this.#function, '-f', this.#name]));
    }

    async #save() {
        const outcome = find('#file-outcome');
        try {
            const response = await post('/api/parameters/file');
            download(await response.blob(), 'qm5_app_comm.conf');
            showOutcome(outcome, 'Saved as qm5_app_comm.conf.', true);
        } catch (error) {
            showOutcome(outcome, error.message);
        }
    }

    async #load(name, text) {
        this.#name = name;
        this.#text = text;
        showOutcome(find('#file-outcome'), '');
        setText(find('#file-name'), name);
        setText(find('#file-text'), text);
        find('#file-loaded').hidden = false;
        this.#showButtons();
        await this.#compare();
        find('#file-name').focus();
    }

    #close() {
        this.#text = null;
        find('#file-loaded').hidden = true;
        find('#file-load').focus();
    }

    async #compare() {
        let found;
        try {
            found = await change('POST', '/api/parameters/compare', {file: this.#text});
        } catch (error) {
            found = {differences: [], error: error.message};
        }
        this.#showVerdict(found);
        find('#file-differences').hidden = found.differences.length === 0;
        find('#file-rows').replaceChildren(...found.differences.map(({key, value, file}) =>
            element('tr', {}, element('th', {scope: 'row'}, key),
                    element('td', {}, shownValue(value)), element('td', {}, shownValue(file)))));
    }

    #showVerdict({differences, error}) {
        const verdict = find('#file-verdict');
        verdict.classList.toggle('error', Boolean(error));
        if (error)
            setText(verdict, error.trim());
        else if (differences.length === 0)
            setText(verdict, 'It says nothing else than what is in force.');
        else
            setText(verdict, `${counted(differences.length, 'difference')}.`);
    }

    async #carryOut(name) {
        const outcome = find('#file-outcome');
        const request = {function: name, parameters: [], file: this.#text};
        const answer = await this.#actions.application(outcome, request);
        await this.#live.readParameters();
        await this.#compare();
        if (answer.good)
            showOutcome(outcome, 'Done.', true);
    }
}
