// Tells a screen reader what has changed, a few words at a time: what comes at nearly the same time
// is said together, and of a text of several lines the first.

import {find} from './dom.js';

const TOGETHER_MS = 400;

let waiting = [];
let timer = 0;

export function announce(text) {
    const [words] = text.split('\n');
    if (!waiting.includes(words))
        waiting.push(words);
    clearTimeout(timer);
    timer = setTimeout(() => {
        find('#announcements').textContent = waiting.join(' ');
        waiting = [];
    }, TOGETHER_MS);
}
