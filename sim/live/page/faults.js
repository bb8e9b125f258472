// The words of a fault: which operation, when, what happens, and on which post.

const CALLS = [
    'library_init', 'open_device', 'notify_callback', 'set_notify', 'thread_get_status', 'open_osd',
    'close_osd', 'clear_osd', 'get_osd_mem', 'set_osd', 'close_device', 'library_exit',
];
const CALLS_OF_POSTS = [
    'thread_get_status', 'open_osd', 'close_osd', 'clear_osd', 'get_osd_mem', 'set_osd',
];

export const OPERATIONS = [...CALLS, 'notify'];

export const CODES = ['gone1', 'gone2', 'gone3', 'refused'];

// What each effect does, what its value is, and which operations know it.
export const EFFECTS = [
    {name: 'fail', value: 'code', what: 'the call fails', of: CALLS},
    {name: 'delay', value: 'ms', what: 'the call takes longer', of: CALLS},
    {name: 'size', value: 'bytes', what: 'a size that is off', of: ['get_osd_mem']},
    {name: 'line', value: 'bytes', what: 'a line length that is off', of: ['open_osd']},
    {name: 'vanish', value: null, what: 'the thread goes before the call', of: CALLS_OF_POSTS},
    {
        name: 'vanish-after', value: null, what: 'the thread goes after its work',
        of: CALLS_OF_POSTS,
    },
    {name: 'double', value: null, what: 'the callback is called twice', of: ['notify']},
    {name: 'late', value: 'ms', what: 'the callback is called later', of: ['notify']},
];

export function effectsOf(operation) {
    return EFFECTS.filter((effect) => effect.of.includes(operation));
}

// Can a fault of this operation be limited to one post?
export function hasPost(operation) {
    return operation === 'notify' || CALLS_OF_POSTS.includes(operation);
}

// The line of a fault from the form's words: {operation, when, number, effect, value, post}, with
// next, nth, every or percent for `when`, and '' or a digit for `post`.
export function faultLine({operation, when, number, effect, value, post}) {
    const times = {next: 'next', every: 'every', nth: `${number}`, percent: `${number}%`};
    const words = [operation, times[when], effect];
    if (EFFECTS.find((row) => row.name === effect)?.value)
        words.push(value);
    if (post !== '' && hasPost(operation))
        words.push('post', post);
    return words.map((word) => word.trim()).join(' ');
}
