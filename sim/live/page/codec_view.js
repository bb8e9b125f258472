// How the simulated codec behaves: the time zone block, its settings, and the pictures below the
// OSDs.

import {showOutcome} from './actions.js';
import {find, setText} from './dom.js';
import {LONGEST_FRAME, onFile} from './files.js';

function onSubmit(form, run) {
    find(form).addEventListener('submit', (event) => {
        event.preventDefault();
        run();
    });
}

export class CodecView {
    #live;
    #actions;

    constructor(live, actions) {
        this.#live = live;
        this.#actions = actions;
        this.#listenToClock();
        this.#listenToSettings();
        this.#listenToFrames();
        live.addEventListener('state', () => this.#show());
    }

    #listenToClock() {
        const outcome = find('#clock-outcome');
        onSubmit('#clock-form', async () => {
            const zone = find('#clock-zone').value;
            const answer = await this.#actions.run(outcome, 'PUT', '/api/clock', {zone});
            if (answer.good && find('#clock-zone').value === zone)
                find('#clock-zone').value = '';
        });
        onSubmit('#change-form', async () => {
            const change = find('#clock-change').value.trim();
            const answer = await this.#actions.run(find('#change-outcome'), 'PUT', '/api/clock',
                                                   {change});
            if (answer.good && find('#clock-change').value.trim() === change)
                find('#clock-change').value = '';
        });
        find('#clock-remove').addEventListener('click', () =>
            this.#actions.run(outcome, 'DELETE', '/api/clock'));
    }

    #set(name, value) {
        return this.#actions.run(find('#settings-outcome'), 'PUT', '/api/settings', {name, value});
    }

    #listenToSettings() {
        for (const name of ['record', 'strict']) {
            find(`#setting-${name}`).addEventListener('change', async ({target}) => {
                await this.#set(name, target.checked ? '1' : '0');
                target.checked = this.#live.state.settings[name] !== 0;
            });
        }
        onSubmit('#settings-form', async () => {
            const value = find('#setting-alignment').value.trim();
            const answer = await this.#set('alignment', value);
            if (answer.good && find('#setting-alignment').value.trim() === value)
                find('#setting-alignment').value = '';
        });
    }

    #listenToFrames() {
        const outcome = find('#frame-outcome');
        const path = () => `/api/posts/${find('#frame-post').value}/frame`;
        onFile(find('#frame-load'), LONGEST_FRAME,
               (_, bytes) => this.#actions.run(outcome, 'PUT', path(), bytes, 'image/png'),
               (why) => showOutcome(outcome, why));
        find('#frame-default').addEventListener('click', () =>
            this.#actions.run(outcome, 'DELETE', path()));
    }

    #show() {
        const {clock, settings} = this.#live.state;
        setText(find('#clock-state'), clock
            ? `Zone ${clock.zone === '' ? 'empty' : clock.zone}, change byte ${clock.change}.`
            : 'There is no block: the zone of the environment holds.');
        find('#clock-remove').disabled = !clock;
        find('#change-submit').disabled = !clock;
        find('#clock-change').placeholder = clock ? String(clock.change) : 'none';
        find('#setting-record').checked = settings.record !== 0;
        find('#setting-strict').checked = settings.strict !== 0;
        find('#setting-alignment').placeholder = settings.alignment.join(' ');
    }
}
