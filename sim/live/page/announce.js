// Tells a screen reader what has changed, a few words at a time: what comes at nearly the same time
// is said together.

import {find} from './dom.js';

const TOGETHER_MS = 400;

let waiting = [];
let timer = 0;

export function announce(text) {
    if (!waiting.includes(text))
        waiting.push(text);
    clearTimeout(timer);
    timer = setTimeout(() => {
        find('#announcements').textContent = waiting.join(' ');
        waiting = [];
    }, TOGETHER_MS);
}
