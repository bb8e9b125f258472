// The logs: commands of this page, reports of the server, calls of the codec library. Each shows
// its last lines, and stays where the user has scrolled to unless that is its end.

import {copyOnClick} from './actions.js';
import {element, find, oncePerFrame, setText} from './dom.js';
import {OPERATIONS} from './faults.js';
import {timeOfDay} from './format.js';
import {
    callLine, hasFailed, isError, LIMIT, Log, passes, PostFinder, splitReports,
} from './log.js';

// A list of lines on the page: {text, isBad, dataset}.
class Lines {
    #list;
    #scroll;
    #empty;

    constructor(name) {
        this.#list = find(`#${name}`);
        this.#scroll = find(`#${name}-scroll`);
        this.#empty = find(`#${name}-empty`);
        this.#showEmpty();
    }

    get count() {
        return this.#list.childElementCount;
    }

    clear() {
        this.#list.replaceChildren();
        this.#showEmpty();
    }

    add(lines) {
        const {scrollTop, scrollHeight, clientHeight} = this.#scroll;
        const isAtEnd = scrollTop + clientHeight >= scrollHeight - 8;
        this.#list.append(...lines.slice(-LIMIT).map(({text, isBad, dataset}) =>
            element('li', {className: isBad ? 'bad' : '', dataset}, text)));
        while (this.count > LIMIT)
            this.#list.firstChild.remove();
        this.#showEmpty();
        if (isAtEnd)
            this.#scroll.scrollTop = this.#scroll.scrollHeight;
    }

    setEmptyText(text) {
        setText(this.#empty, text);
    }

    #showEmpty() {
        this.#scroll.hidden = this.count === 0;
        this.#empty.hidden = this.count > 0;
    }
}

// ---- Commands and reports ----------------------------------------------------------------------

export function followCommands(actions) {
    const lines = new Lines('commands');
    const copy = find('#commands-copy');
    const commands = () => [...document.querySelectorAll('#commands [data-command]')];
    copyOnClick(copy, find('#commands'),
                () => commands().map(({dataset}) => `${dataset.command}\n`).join(''));
    actions.addEventListener('command', ({detail: {time, command, request, good, words}}) => {
        const text = `${timeOfDay(time).slice(0, 8)}  ${command ?? request}`;
        const first = {text, isBad: !good, dataset: command ? {command} : {}};
        const more = words.split('\n').map((line) => ({text: `  ${line}`, isBad: true}));
        lines.add(good ? [first] : [first, ...more]);
        copy.hidden = commands().length === 0;
    });
}

export function followReports(live) {
    const lines = new Lines('reports');
    live.addEventListener('reports', ({detail: {reset, text}}) => {
        if (reset)
            lines.clear();
        lines.add(splitReports(text).map((line) => ({text: line, isBad: isError(line)})));
    });
    live.addEventListener('state', () =>
        setText(find('#reports-file'), live.state.log ?? 'no log yet'));
}

// ---- Calls -------------------------------------------------------------------------------------

export class CallsView {
    #live;
    #log = new Log();
    #shown = new Lines('calls');
    #finder = new PostFinder();
    #waiting = []; // lines that came since the last frame
    #held = 0; // calls that came while the log stands still
    #isPaused = false;
    #last = 0; // number of the newest call
    #flush = oncePerFrame(() => this.#flushNow());

    constructor(live) {
        this.#live = live;
        find('#calls-operation').append(...OPERATIONS.map((name) =>
            element('option', {value: name}, name)));
        find('#calls-filter').addEventListener('input', () => this.#showAll());
        find('#calls-filter').addEventListener('submit', (event) => event.preventDefault());
        find('#calls-pause').addEventListener('click', () => this.#pause());
        live.addEventListener('state', () => {
            this.#finder.learnState(live.state);
            this.#explainNone();
        });
        live.addEventListener('calls', (event) => this.#take(event.detail));
        this.#explainNone();
    }

    get #filter() {
        return {
            operation: find('#calls-operation').value,
            post: find('#calls-post').value,
            text: find('#calls-text').value.trim(),
            failed: find('#calls-failed').checked,
        };
    }

    #take({reset, calls}) {
        if (reset)
            this.#forget();
        const come = calls.filter((call) => call.n > this.#last).map((call) => this.#lineOf(call));
        this.#log.add(come);
        this.#last = calls.at(-1)?.n ?? this.#last;
        if (this.#isPaused)
            this.#held += come.length;
        else
            this.#waiting.push(...come);
        this.#flush();
    }

    #forget() {
        this.#log.clear();
        this.#last = 0;
        this.#waiting = [];
        if (!this.#isPaused)
            this.#shown.clear();
    }

    #lineOf(call) {
        this.#finder.learnCall(call);
        const post = this.#finder.find(call);
        return {call, post, text: callLine(call, post), isBad: hasFailed(call)};
    }

    #passing(lines) {
        const filter = this.#filter;
        return lines.filter(({call, post, text}) => passes(filter, call, post, text));
    }

    #flushNow() {
        this.#shown.add(this.#passing(this.#waiting));
        this.#waiting = [];
        this.#showCount();
    }

    // The whole log, for another filter.
    #showAll() {
        this.#waiting = [];
        this.#shown.clear();
        this.#shown.add(this.#passing(this.#log.lines));
        this.#showCount();
    }

    #showCount() {
        const all = this.#log.lines.length;
        const held = this.#isPaused ? `, ${this.#held} since the pause` : '';
        setText(find('#calls-count'), all > 0 ? `${this.#shown.count} of ${all}${held}` : '');
        this.#explainNone();
    }

    #explainNone() {
        if (this.#log.lines.length > 0)
            this.#shown.setEmptyText('No call passes the filter.');
        else if (this.#live.state?.settings.record === 0)
            this.#shown.setEmptyText('Nothing is recorded. “Record calls” among the codec’s ' +
                'settings has the next start record them.');
        else
            this.#shown.setEmptyText('No call has been recorded yet.');
    }

    #pause() {
        this.#isPaused = !this.#isPaused;
        this.#held = 0;
        const button = find('#calls-pause');
        button.setAttribute('aria-pressed', this.#isPaused);
        if (this.#isPaused)
            this.#showCount();
        else
            this.#showAll();
    }
}
