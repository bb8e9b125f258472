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

// Sizes that a post is brought to, for picking.
export const CHANGED_SIZES = ['640x480', '1920x1080', 'closed'];

// What each effect does, what its value is, whether that is of a post, which may be another than
// the call's, and which operations know it.
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
    {
        name: 'change', value: 'size', onPost: true,
        what: 'a post gets another size before the call', of: CALLS_OF_POSTS,
    },
    {
        name: 'change-after', value: 'size', onPost: true,
        what: 'a post gets another size after its work', of: CALLS_OF_POSTS,
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

// The line of a fault from the form's words: {operation, when, number, effect, changed, value,
// post}, with next, nth, every or percent for `when`, a digit for `changed`, and '' or a digit for
// `post`.
export function faultLine({operation, when, number, effect, changed, value, post}) {
    const times = {next: 'next', every: 'every', nth: `${number}`, percent: `${number}%`};
    const words = [operation, times[when], effect];
    const row = EFFECTS.find(({name}) => name === effect);
    if (row?.onPost)
        words.push(changed);
    if (row?.value)
        words.push(value);
    if (post !== '' && hasPost(operation))
        words.push('post', post);
    return words.map((word) => word.trim()).join(' ');
}
