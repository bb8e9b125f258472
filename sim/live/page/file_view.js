// Parameter files: the one that the application saves, and one that is loaded, compared with what
// is in force, and carried out.

import {announce} from './announce.js';
import {showOutcome} from './actions.js';
import {change, post} from './api.js';
import {element, find, setOff, setText} from './dom.js';
import {download, LONGEST_PARAMETERS, onFile, toBase64} from './files.js';
import {counted} from './format.js';
import {Preview} from './preview.js';

function shownValue(value) {
    if (value === null)
        return 'not known';
    return value === '' ? 'empty' : value;
}

export class FileView {
    #live;
    #actions;
    #preview = new Preview('file', false);
    #loaded = null; // the file's bytes in base64
    #loads = 0;
    #comparisons = 0;

    constructor(live, actions) {
        this.#live = live;
        this.#actions = actions;
        const outcome = find('#file-outcome');
        find('#file-save').addEventListener('click', () => this.#save());
        onFile(find('#file-load'), LONGEST_PARAMETERS, (name, bytes) => this.#load(name, bytes),
               (why) => showOutcome(outcome, why));
        find('#file-apply').addEventListener('click', () => this.#carryOut(this.#function));
        find('#file-restart').addEventListener('click', () => this.#carryOut('restart'));
        find('#file-close').addEventListener('click', () => this.#close());
        live.addEventListener('state', () => this.#showButtons());
        live.addEventListener('parameters', () => this.#compare());
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
        setOff(find('#file-save'), !this.#running);
        setOff(find('#file-apply'), isBusy);
        setOff(find('#file-restart'), isBusy || !this.#running);
        setText(find('#file-apply'), this.#running ? 'Update' : 'Start with it');
        this.#showCommands();
    }

    #requestOf(name) {
        return {function: name, parameters: [], file_base64: this.#loaded};
    }

    #showCommands() {
        const functions = this.#running ? ['update', 'restart'] : ['start'];
        const isLoaded = this.#loaded !== null;
        this.#preview.show(isLoaded ? functions.map((name) => this.#requestOf(name)) : [],
                           isLoaded ? `${this.#loads} ${functions}` : '');
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

    async #load(name, bytes) {
        this.#loaded = toBase64(bytes);
        this.#loads++;
        showOutcome(find('#file-outcome'), '');
        setText(find('#file-verdict'), ''); // even the same one is another file's
        setText(find('#file-name'), name);
        setText(find('#file-text'), new TextDecoder().decode(bytes));
        find('#file-loaded').hidden = false;
        this.#showButtons();
        await this.#compare();
        find('#file-name').focus();
    }

    #close() {
        this.#loaded = null;
        this.#showCommands();
        find('#file-loaded').hidden = true;
        find('#file-load').focus();
    }

    // Compares the loaded file with what is in force, unless either is another one by then.
    async #compare() {
        if (this.#loaded === null)
            return;
        const number = ++this.#comparisons;
        let found;
        try {
            found = await change('POST', '/api/parameters/compare', {file_base64: this.#loaded});
        } catch (error) {
            found = {differences: [], error: error.message};
        }
        if (number !== this.#comparisons)
            return;
        this.#showVerdict(found);
        find('#file-differences').hidden = found.differences.length === 0;
        find('#file-rows').replaceChildren(...found.differences.map(({key, value, file}) =>
            element('tr', {}, element('th', {scope: 'row'}, key),
                    element('td', {}, shownValue(value)), element('td', {}, shownValue(file)))));
    }

    #showVerdict({differences, error}) {
        const verdict = find('#file-verdict');
        verdict.classList.toggle('error', Boolean(error));
        let words = `${counted(differences.length, 'difference')}.`;
        if (error)
            words = error.trim();
        else if (differences.length === 0)
            words = 'It says nothing else than what is in force.';
        if (verdict.textContent !== words)
            announce(words);
        setText(verdict, words);
    }

    async #carryOut(name) {
        const outcome = find('#file-outcome');
        const answer = await this.#actions.application(outcome, this.#requestOf(name));
        if (answer.good)
            showOutcome(outcome, 'Done.', true);
        await this.#live.readParameters();
    }
}
