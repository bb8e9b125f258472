// What the posts and their four slots are for, and what a slot holds with the parameters in force.

export const POSTS = ['TV output', 'Stream 1', 'Stream 2', 'Storage'];

// The sizes that their threads have without a word.
export const POST_SIZES = ['720x576', '1920x1080', '640x360', '1280x720'];

// By number: the text of a slot, the switch that shows it, and of how many cells its row is.
export const SLOTS = [
    {text: 'User string', name: 'string', on: 'StringOn', cells: 22},
    {text: 'Label', name: 'label', on: 'TypeOn', cells: 10},
    {text: 'Date', name: 'date', on: 'DateOn', cells: 12},
    {text: 'Time', name: 'time', on: 'TimeOn', cells: 10},
];

export const TIME_SLOT = 3;

export const COLOR_TYPES = ['4 colours', '16 colours', '256 colours'];

// What a slot shows: 'text', 'rectangle' or 'off'; null as long as that isn't known. The text wins.
// `valueOf` gives the value of a key, or null.
export function modeOf(valueOf, post, slot) {
    const text = valueOf(`Post${post}${SLOTS[slot].on}`);
    const rectangle = valueOf(`Post${post}Rectangle${slot}On`);
    if (text === null || rectangle === null)
        return null;
    if (Number(text) !== 0)
        return 'text';
    return Number(rectangle) !== 0 ? 'rectangle' : 'off';
}

export function modeName(mode, slot) {
    switch (mode) {
    case 'text':
        return SLOTS[slot].text;
    case 'rectangle':
        return `Rectangle ${slot}`;
    case 'off':
        return 'Off';
    default:
        return '—';
    }
}

// The size of a text cell of a post, as its shown texts have it; null if none is shown.
export function cellOf(valueOf, post) {
    for (const osd of post.osds) {
        const {cells} = SLOTS[osd.number];
        if (osd.shown && osd.width > 0 && osd.width % cells === 0 &&
            modeOf(valueOf, post.number, osd.number) === 'text')
            return {width: osd.width / cells, height: osd.height};
    }
    return null;
}

// The margins of the TV output that are in force, or null for an output that has none.
export function safeSpaceOf(valueOf, post) {
    if (post !== 0)
        return null;
    const side = (name) => Number(valueOf(`OsdTVOutSafeSpace${name}`) ?? 0);
    const safe = {up: side('Up'), down: side('Down'), left: side('Left'), right: side('Right')};
    return Object.values(safe).some((margin) => margin !== 0) ? safe : null;
}

// `WIDTHxHEIGHT` as numbers; null if it is something else.
export function parseSize(text) {
    const found = /^\s*(\d{1,5})x(\d{1,5})\s*$/i.exec(text);
    const [width, height] = found ? [Number(found[1]), Number(found[2])] : [0, 0];
    return width > 0 && height > 0 ? {width, height} : null;
}
