// Long logs that stay cheap: bounded lists, the text of a recorded call, and its filter.

import {timeOfDay} from './format.js';

export const LIMIT = 2000;

// The last lines of a log.
export class Log {
    #lines = [];
    #limit;

    constructor(limit = LIMIT) {
        this.#limit = limit;
    }

    get lines() {
        return this.#lines;
    }

    clear() {
        this.#lines = [];
    }

    add(lines) {
        const all = lines.length >= this.#limit ? lines : this.#lines.concat(lines);
        this.#lines = all.slice(-this.#limit);
    }
}

// ---- Calls -------------------------------------------------------------------------------------

const OWN_COLUMNS = ['n', 'time', 'thread', 'call', 'result', 'us'];

// Which post a resource ID stands for, as far as the state or a call of the callback has told it.
export class PostFinder {
    #posts = new Map();

    learnState(state) {
        for (const post of state.posts) {
            if (post.open)
                this.#posts.set(post.resource_id, post.number);
        }
    }

    learnCall(call) {
        if (call.call === 'notify' && call.res_id !== undefined)
            this.#posts.set(Number(call.res_id), call.post);
    }

    find(call) {
        if (call.res_id === undefined)
            return null;
        return this.#posts.get(Number(call.res_id)) ?? null;
    }
}

// A recorded time, in UTC to the microsecond, as a time of the day here.
function localTime(time) {
    return timeOfDay(Date.parse(time) / 1000).slice(0, 8) + time.slice(19, 26);
}

function fieldText([name, value]) {
    return `${name}=${value}`;
}

// What a call did: its arguments, its result, and what it gave.
function callDetails(call) {
    const fields = Object.entries(call).filter(([name]) => !OWN_COLUMNS.includes(name));
    const names = Object.keys(call);
    const isArgument = ([name]) => names.indexOf(name) < names.indexOf('result');
    const given = fields.filter((field) => !isArgument(field)).map(fieldText);
    const taken = fields.filter(isArgument).map(fieldText);
    return [...taken, '→', call.result, ...given].join(' ');
}

// One line of a log of calls; `post` is the number of the post it was for, or null.
export function callLine(call, post) {
    const columns = [
        String(call.n).padStart(6),
        localTime(call.time),
        (post === null ? '' : `post ${post}`).padEnd(6),
        call.call.padEnd(17),
    ];
    return `${columns.join('  ')}  ${callDetails(call)}  ${call.us} µs`;
}

export function hasFailed(call) {
    return call.result !== 0;
}

// Does a call pass {operation: '' or a name, post: '' or a digit, failed: only failed ones, text}?
export function passes(filter, call, post, line) {
    return (filter.operation === '' || filter.operation === call.call) &&
        (filter.post === '' || filter.post === String(post)) &&
        (!filter.failed || hasFailed(call)) &&
        (filter.text === '' || line.toLowerCase().includes(filter.text.toLowerCase()));
}

// ---- Reports -----------------------------------------------------------------------------------

export function splitReports(text) {
    const lines = text.split('\n');
    if (lines.at(-1) === '')
        lines.pop();
    return lines;
}

export function isError(line) {
    return line.startsWith('ERR:') || line.startsWith('qm5sim: ');
}

// What a report says about a lasting trouble, in a person's words; null if it says nothing such.
export function troubleOf(line) {
    const font = /New_Face error\. font file: (.*)\(\w+\)$/.exec(line);
    if (font)
        return `The font cannot be opened: ${font[1]}`;
    if (/request size error\(/.test(line))
        return 'The font cannot be made in the size that the picture asks for.';
    const space = /(safe space is invalid\..*)\(\w+\)$/.exec(line);
    if (space)
        return `The safe spaces leave no room for the texts: ${space[1]}`;
    const width = /(video (?:width|height) is .*)\(\w+\)$/.exec(line);
    if (width)
        return `The picture is too small for the texts: ${width[1]}`;
    return null;
}
