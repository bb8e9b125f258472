// How the simulated codec behaves: the time zone block, its settings, and the pictures below the
// OSDs.

import {showOutcome} from './actions.js';
import {find, setOff, setText, showSwitch} from './dom.js';
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
    #switches;

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
        this.#switches = ['record', 'strict'].map((name) => showSwitch(
            find(`#setting-${name}`), () => this.#live.state.settings[name] !== 0,
            (isOn) => this.#set(name, isOn ? '1' : '0')));
        onSubmit('#settings-form', async () => {
            const value = find('#setting-alignment').value.trim();
            const answer = await this.#set('alignment', value);
            if (answer.good && find('#setting-alignment').value.trim() === value)
                find('#setting-alignment').value = '';
        });
    }

    #listenToFrames() {
        const outcome = find('#frame-outcome');
        onFile(find('#frame-load'), LONGEST_FRAME,
               (_, bytes) => this.#changeFrame('PUT', bytes, 'image/png'),
               (why) => showOutcome(outcome, why));
        find('#frame-default').addEventListener('click', () => this.#changeFrame('DELETE'));
        find('#frame-post').addEventListener('input', () => {
            showOutcome(outcome, '');
            if (this.#live.state)
                this.#showFrame();
        });
    }

    async #changeFrame(method, bytes, type) {
        const outcome = find('#frame-outcome');
        const path = `/api/posts/${find('#frame-post').value}/frame`;
        const answer = await this.#actions.run(outcome, method, path, bytes, type);
        if (answer.good)
            showOutcome(outcome, answer.words, true);
    }

    #showFrame() {
        const {frame, open, width, height} = this.#live.state.posts[find('#frame-post').value];
        const size = frame && `${frame.width} × ${frame.height}`;
        if (!frame)
            setText(find('#frame-state'), 'The test pattern stands below.');
        else if (open && frame.width === width && frame.height === height)
            setText(find('#frame-state'), `A loaded picture of ${size} stands below.`);
        else
            setText(find('#frame-state'), `A loaded picture of ${size} is kept, but doesn’t fit: ` +
                'the test pattern stands below until the post has that size again.');
    }

    #show() {
        const {clock, settings} = this.#live.state;
        setText(find('#clock-state'), clock
            ? `Zone ${clock.zone === '' ? 'empty' : clock.zone}, change byte ${clock.change}.`
            : 'There is no block: the zone of the environment holds.');
        setOff(find('#clock-remove'), !clock);
        setOff(find('#change-submit'), !clock);
        find('#clock-change').placeholder = clock ? String(clock.change) : 'none';
        this.#showFrame();
        this.#switches.forEach((show) => show());
        find('#setting-alignment').placeholder = settings.alignment.join(' ');
    }
}
