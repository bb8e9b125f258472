// What the page computes apart from pictures: slots, commands, parameters, faults and logs.

import assert from 'node:assert/strict';
import {test} from 'node:test';

import {commandLine, parameterFile, quote} from '../../../sim/live/page/command.js';
import {effectsOf, faultLine, hasPost, OPERATIONS} from '../../../sim/live/page/faults.js';
import {sizeRefusal, toBase64} from '../../../sim/live/page/files.js';
import {colorCode, colorStyle, counted, hexadecimal} from '../../../sim/live/page/format.js';
import {
    callLine, hasFailed, isError, LIMIT, Log, passes, PostFinder, splitReports, troubleOf,
} from '../../../sim/live/page/log.js';
import {
    isSamePalette, paletteFile, parseColor, withColor,
} from '../../../sim/live/page/palette.js';
import {
    byteLength, defaultOf, Draft, errorsByKey, isColor, isSwitch, nameOf, needsRestart, rangeOf,
} from '../../../sim/live/page/parameters.js';
import {cellOf, modeName, modeOf, parseSize, safeSpaceOf} from '../../../sim/live/page/slots.js';

function valuesOf(values) {
    return (key) => values[key] ?? null;
}

// ---- Slots -------------------------------------------------------------------------------------

test('a text wins over the rectangle of its slot', () => {
    const mode = (text, rectangle) => modeOf(
        valuesOf({Post1DateOn: text, Post1Rectangle2On: rectangle}), 1, 2);
    assert.equal(mode('1', '1'), 'text');
    assert.equal(mode('0', '2'), 'rectangle');
    assert.equal(mode('0', '0'), 'off');
    assert.equal(mode(null, null), null);
    assert.deepEqual(['text', 'rectangle', 'off', null].map((each) => modeName(each, 2)),
                     ['Date', 'Rectangle 2', 'Off', '—']);
});

test('a text cell follows from the width that a shown text asked for', () => {
    const values = {};
    for (const slot of [0, 1, 2, 3])
        values[`Post0Rectangle${slot}On`] = '0';
    Object.assign(values, {
        Post0StringOn: '0', Post0TypeOn: '1', Post0DateOn: '0', Post0TimeOn: '0',
    });
    values.Post0Rectangle0On = '1';
    const osds = [
        {number: 0, shown: true, width: 308, height: 28}, // a rectangle that could be a row of 22
        {number: 1, shown: true, width: 140, height: 28},
    ];
    assert.deepEqual(cellOf(valuesOf(values), {number: 0, osds}), {width: 14, height: 28});
    const hidden = osds.map((osd) => ({...osd, shown: false}));
    assert.equal(cellOf(valuesOf(values), {number: 0, osds: hidden}), null);
});

test('only the TV output has safe spaces', () => {
    const values = valuesOf({OsdTVOutSafeSpaceUp: '8', OsdTVOutSafeSpaceRight: '16'});
    assert.deepEqual(safeSpaceOf(values, 0), {up: 8, down: 0, left: 0, right: 16});
    assert.equal(safeSpaceOf(values, 1), null);
    assert.equal(safeSpaceOf(valuesOf({OsdTVOutSafeSpaceUp: '0'}), 0), null);
});

test('a size is two numbers that are not 0', () => {
    assert.deepEqual(parseSize(' 720x576 '), {width: 720, height: 576});
    for (const text of ['', '720', '720x', 'x576', '0x576', '720x576x1', '-1x5', '7e2x5'])
        assert.equal(parseSize(text), null, text);
});

// ---- Commands ----------------------------------------------------------------------------------

test('words are quoted as a POSIX shell needs it', () => {
    assert.equal(quote('--Post0DateOn=1'), '--Post0DateOn=1');
    assert.equal(quote('--Post0String=a b'), `'--Post0String=a b'`);
    assert.equal(quote(`--Post0String=it's $HOME`), `'--Post0String=it'\\''s $HOME'`);
    assert.equal(quote('A=b'), `'A=b'`);
    assert.equal(quote(''), `''`);
    assert.equal(commandLine(['qm5osd', 'update', '--Post0String=ä']),
                 `qm5osd update '--Post0String=ä'`);
});

test('a parameter file has its section', () => {
    assert.equal(parameterFile([['A', ' b ']]), '[osd]\nA= b \n');
});

// ---- Files -------------------------------------------------------------------------------------

test('a file of more bytes than the server takes is refused with both numbers', () => {
    assert.equal(sizeRefusal({name: 'a.conf', size: 10}, 10), '');
    assert.equal(sizeRefusal({name: 'a.conf', size: 11}, 10),
                 'a.conf: it has 11 bytes, of 10 at most.');
});

test('every byte of a file goes through base64', () => {
    const bytes = Uint8Array.from({length: 256}, (_, at) => at);
    assert.equal(toBase64(bytes), Buffer.from(bytes).toString('base64'));
    assert.equal(toBase64(new Uint8Array()), '');
});

// ---- Palettes ----------------------------------------------------------------------------------

test('one colour of a palette is changed in a copy', () => {
    const palette = Uint8Array.from([1, 2, 3, 4, 5, 6, 7, 8]);
    const changed = withColor(palette, 1, [9, 10, 11, 12]);
    assert.equal(paletteFile(changed), '0 1 2 3 4\n1 9 10 11 12\n');
    assert.equal(paletteFile(palette), '0 1 2 3 4\n1 5 6 7 8\n');
    assert.deepEqual([isSamePalette(palette, palette.slice()), isSamePalette(palette, changed)],
                     [true, false]);
});

test('a colour has an alpha of 0 to 255', () => {
    assert.deepEqual(parseColor('#0aff10', ' 128 '), [10, 255, 16, 128]);
    for (const alpha of ['', '256', '-1', '1.5', 'x', '0x1'])
        assert.equal(parseColor('#0aff10', alpha), null, alpha);
});

// ---- Parameters --------------------------------------------------------------------------------

test('keys have names', () => {
    assert.equal(nameOf('OsdTVOutSafeSpaceUp'), 'Up');
    assert.equal(nameOf('Post3StringColor'), 'Text colour');
    assert.equal(nameOf('Post3Rectangle1On'), 'Shown');
    assert.equal(nameOf('Post3Osd1ColorType'), 'Colour type');
    assert.equal(nameOf('Post3Unheard'), 'Post3Unheard');
    assert.equal(nameOf('Unheard'), 'Unheard');
});

test('ranges, defaults and kinds are told', () => {
    const number = {kind: 'number', key: 'Post0StringColor', limit: 255, default: '3'};
    assert.equal(rangeOf(number), '0 to 255');
    assert.equal(rangeOf({...number, limit: 1}), '0, 1');
    assert.equal(rangeOf({kind: 'string', limit: 20}), 'up to 20 bytes');
    assert.equal(rangeOf({kind: 'path'}), 'a path');
    assert.equal(defaultOf(number), '3');
    assert.equal(defaultOf({kind: 'string', default: ''}), 'empty');
    assert.equal(defaultOf({kind: 'path', default: ''}), 'none');
    assert.deepEqual([isColor(number), isColor({...number, key: 'Post0Osd1ColorType'})],
                     [true, false]);
    assert.deepEqual([isSwitch(number), isSwitch({...number, limit: 1})], [false, true]);
    assert.deepEqual(['OsdFontFile', 'OsdTVOutSafeSpaceUp', 'OsdDateFgColor'].map(needsRestart),
                     [true, true, false]);
    assert.equal(byteLength('äb'), 3);
});

test('an error of the application belongs to the key that it names', () => {
    const text = [
        `ERR:#qm5osd:[update]=invalid value '256' of key Post0StringColor(osd_check_param)`,
        `ERR:#qm5osd:[update]=invalid key 'Post0Nothing'(osd_check_param)`,
        'ERR:#qm5osd:[update]=invalid osd parameter(osd_check_section)',
        'shmget error!!!', '',
    ].join('\n');
    assert.deepEqual([...errorsByKey(text)], [
        ['Post0StringColor', [`invalid value '256' of key Post0StringColor`]],
        ['Post0Nothing', [`invalid key 'Post0Nothing'`]],
        ['', ['invalid osd parameter', 'shmget error!!!']],
    ]);
});

test('a value with the words of an error in it names no other key', () => {
    const text = `ERR:#qm5osd:[update]=invalid value '1' of key B(x)' of key A(osd_check_param)`;
    assert.deepEqual([...errorsByKey(text).keys()], ['A']);
});

test('what was typed stays until it is carried out or taken back', () => {
    const draft = new Draft();
    const rows = [{key: 'A'}, {key: 'B'}, {key: 'C'}];
    draft.type('C', '1', '0');
    draft.type('A', '2', '0');
    assert.deepEqual(draft.changes(rows), [['A', '2'], ['C', '1']]);
    draft.type('A', '0', '0');
    assert.deepEqual(draft.changes(rows), [['C', '1']]);
    const sent = draft.changes(rows);
    draft.type('C', '5', '0');
    draft.carriedOut(sent);
    assert.deepEqual(draft.changes(rows), [['C', '5']]);
    draft.carriedOut([['C', '5']]);
    assert.deepEqual(draft.changes(rows), []);
});

// ---- Faults ------------------------------------------------------------------------------------

test('the words of a fault make its line', () => {
    const words = {
        operation: 'open_osd', when: 'next', number: '2', effect: 'fail', value: ' refused ',
        post: '1',
    };
    assert.equal(faultLine(words), 'open_osd next fail refused post 1');
    assert.equal(faultLine({...words, when: 'nth'}), 'open_osd 2 fail refused post 1');
    assert.equal(faultLine({...words, when: 'percent', number: '25', post: ''}),
                 'open_osd 25% fail refused');
    assert.equal(faultLine({...words, effect: 'vanish'}), 'open_osd next vanish post 1');
    assert.equal(faultLine({...words, operation: 'open_device', when: 'every'}),
                 'open_device every fail refused');
    assert.equal(faultLine({...words, effect: 'change-after', changed: '2', value: 'closed'}),
                 'open_osd next change-after 2 closed post 1');
});

test('each operation has its effects', () => {
    const names = (operation) => effectsOf(operation).map(({name}) => name);
    assert.equal(OPERATIONS.length, 13);
    assert.deepEqual(names('library_init'), ['fail', 'delay']);
    assert.deepEqual(names('get_osd_mem'), ['fail', 'delay', 'size', 'vanish', 'vanish-after',
        'change', 'change-after']);
    assert.deepEqual(names('notify'), ['double', 'late']);
    assert.deepEqual(['notify', 'set_osd', 'set_notify'].map(hasPost), [true, true, false]);
});

// ---- Logs --------------------------------------------------------------------------------------

const OPENED = {
    n: 40, time: '2026-11-21T14:03:07.123456Z', thread: 7, call: 'open_osd', res_id: '0x50000001',
    number: 2, result: 0, handle: '0x60000005', us: 3.4,
};
const REFUSED = {
    n: 41, time: OPENED.time, thread: 7, call: 'open_osd', res_id: '0x50000001', number: 2,
    result: -1, errno: '0x81E03246', us: 3.4,
};

test('a call is one line with its arguments, its result and what it gave', () => {
    process.env.TZ = 'UTC';
    assert.equal(callLine(OPENED, 0), '    40  14:03:07.123456  post 0  open_osd           ' +
        'res_id=0x50000001 number=2 → 0 handle=0x60000005  3.4 µs');
    process.env.TZ = 'Asia/Kolkata';
    assert.match(callLine(OPENED, 0), /^ {4}40 {2}19:33:07\.123456 {2}post 0 /, 'the time here');
    process.env.TZ = 'UTC';
    assert.match(callLine(REFUSED, null), / {10}open_osd .*→ -1 errno=0x81E03246/);
});

test('calls pass a filter by operation, post, failure and text', () => {
    const none = {operation: '', post: '', failed: false, text: ''};
    const pass = (filter, call = OPENED, post = 0) =>
        passes({...none, ...filter}, call, post, callLine(call, post));
    assert.equal(pass({}), true);
    assert.deepEqual([pass({operation: 'open_osd'}), pass({operation: 'set_osd'})], [true, false]);
    assert.deepEqual([pass({post: '0'}), pass({post: '1'}), pass({post: '0'}, OPENED, null)],
                     [true, false, false]);
    assert.deepEqual([pass({failed: true}), pass({failed: true}, REFUSED)], [false, true]);
    assert.deepEqual([pass({text: 'HANDLE=0X6'}), pass({text: 'errno'})], [true, false]);
    assert.deepEqual([hasFailed(OPENED), hasFailed(REFUSED)], [false, true]);
});

test('a resource ID is known from the state and from the callback', () => {
    const finder = new PostFinder();
    assert.equal(finder.find(OPENED), null);
    finder.learnState({posts: [{number: 0, open: true, resource_id: 0x50000001},
        {number: 1, open: false, resource_id: 0}]});
    assert.equal(finder.find(OPENED), 0);
    finder.learnCall({call: 'notify', res_id: '0x50000009', post: 3});
    assert.equal(finder.find({call: 'set_osd', res_id: '0x50000009'}), 3);
    assert.equal(finder.find({call: 'library_init'}), null);
});

test('a log keeps its last lines', () => {
    const log = new Log();
    log.add(Array.from({length: LIMIT + 5}, (_, at) => at));
    assert.deepEqual([log.lines.length, log.lines[0], log.lines.at(-1)], [LIMIT, 5, LIMIT + 4]);
    log.add([-1]);
    assert.deepEqual([log.lines.length, log.lines[0], log.lines.at(-1)], [LIMIT, 6, -1]);
    log.clear();
    assert.deepEqual(log.lines, []);
});

test('reports are told apart', () => {
    assert.deepEqual(splitReports('a\n\nb\n'), ['a', '', 'b']);
    assert.deepEqual(splitReports(''), []);
    assert.deepEqual(['ERR:#qm5osd:[server]=x(y)', 'qm5sim: breach: z', '#qm5osd:x'].map(isError),
                     [true, true, false]);
    assert.equal(troubleOf(
        'ERR:#qm5osd:[server]=New_Face error. font file: /no/font (1).ttf(font_init_engine)'),
                 'The font cannot be opened: /no/font (1).ttf');
    assert.match(troubleOf('ERR:#qm5osd:[server]=safe space is invalid.' +
        '(safe space left/right=900/0)(osd_do_callback_open)'), /left\/right=900\/0\)$/);
    assert.equal(troubleOf('ERR:#qm5osd:[server]=post 1 has been closed(osd_refresh)'), null);
});

// ---- Texts -------------------------------------------------------------------------------------

test('numbers and colours have their forms', () => {
    assert.equal(hexadecimal(0x60000005), '0x60000005');
    assert.equal(hexadecimal(10), '0x0000000A');
    assert.equal(colorCode([255, 0, 16]), '#ff0010');
    assert.equal(colorStyle([1, 2, 3, 255]), 'rgb(1 2 3 / 1)');
    assert.deepEqual([counted(1, 'fault'), counted(2, 'fault'), counted(2, 'breach', 'breaches')],
                     ['1 fault', '2 faults', '2 breaches']);
});
