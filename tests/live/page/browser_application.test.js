// What the live page shows of the application and its codec, and how it changes both: faults,
// settings, starts and ends, and the logs of it all.

import assert from 'node:assert/strict';
import {spawnSync} from 'node:child_process';
import {readFileSync, rmSync, writeFileSync} from 'node:fs';
import path from 'node:path';
import {after, test} from 'node:test';

import {closeBrowser, Stage, until} from './stage.js';

const {QM5OSD_PROGRAM, QM5SIM_PROGRAM} = process.env;

after(closeBrowser);

// ---- Faults -------------------------------------------------------------------------------------

test('a fault is added, happens, is reported, and is removed', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.click('#tab-faults');
    await stage.page.selectOption('#fault-operation', 'set_osd');
    await stage.page.fill('#fault-value', '0x81E00042');
    await stage.page.selectOption('#fault-post', '0');
    await stage.text('#fault-command', stage.shownCommand(
        QM5SIM_PROGRAM, 'fault add set_osd next fail 0x81E00042 post 0'));
    await stage.click('#fault-form [type="submit"]');
    await stage.text('#fault-rows tr', /^1set_osd next fail 0x81E00042 post 000Remove$/);
    await stage.text('#text-faults', '1 fault');
    stage.osd('update', '--Post0TypeOn=1');
    await stage.text('#reports', /qm5_cl_post_set_osd\(\) failed\. errno=0x81E00042/);
    await until(async () => /post 0[1-9]\d*1Remove$/.test(
        await stage.page.locator('#fault-rows tr').textContent()), 'it has happened once');
    await stage.shot('fault');
    await stage.page.uncheck('#faults-on');
    await stage.text('#text-faults', '1 fault, off');
    assert.match(stage.sim('setting').stdout, /faults:? 0/);
    await stage.click('#fault-rows button');
    await stage.text('#fault-empty', 'No fault.');
    assert.equal(stage.sim('fault').stdout, '');
});

test('a fault that makes no sense is refused with the reason', async (t) => {
    const stage = await Stage.open(t);
    await stage.click('#tab-faults');
    await stage.page.selectOption('#fault-when', 'percent');
    await stage.page.fill('#fault-number', '101');
    await stage.click('#fault-form [type="submit"]');
    await stage.text('#fault-outcome', /bad WHEN/);
    await stage.page.selectOption('#fault-operation', 'notify');
    assert.deepEqual(await stage.page.locator('#fault-effect option').evaluateAll(
        (options) => options.map(({value}) => value)), ['double', 'late']);
    assert.equal(await stage.page.locator('#fault-value-field').isVisible(), false);
    await stage.page.selectOption('#fault-when', 'next');
    await stage.page.selectOption('#fault-operation', 'set_osd');
    await stage.page.selectOption('#fault-effect', 'change-after');
    await stage.page.selectOption('#fault-changed', '1');
    await stage.text('#fault-command', /qm5sim fault add set_osd next change-after 1 640x480$/);
    await stage.page.fill('#fault-value', 'wide');
    await stage.click('#fault-form [type="submit"]');
    await stage.text('#fault-outcome', /set_osd next change-after 1 wide: /);
    await stage.page.fill('#fault-value', 'closed');
    await stage.click('#fault-form [type="submit"]');
    await stage.text('#fault-rows tr', /^1set_osd next change-after 1 closed00Remove$/);
    await stage.page.selectOption('#fault-operation', 'library_init');
    assert.equal(await stage.page.locator('#fault-changed').isVisible(), false);
    assert.equal(await stage.page.locator('#fault-post').isDisabled(), true);
});

// ---- The application ----------------------------------------------------------------------------

test('the application stops and starts while the page is open', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.page.check('#field-Post0TypeOn');
    await stage.update();
    await stage.click('#application-stop');
    await stage.text('#text-application', 'No server runs');
    await stage.text('#notices', /No server runs\. The pictures change only/);
    await stage.shot('stopped');
    await stage.idle();
    await stage.page.check('#field-Post0DateOn');
    await stage.text('#apply-submit', 'Start with them');
    await stage.click('#apply-submit');
    await stage.text('#text-application', 'Server runs');
    await stage.page.locator('#apply-outcome.good').waitFor();
    assert.equal(stage.inForce('Post0DateOn'), '1');
    await stage.idle();
    await stage.showsSnapshot(0);
    assert.equal(stage.osd('stop').status, 0);
    await stage.text('#text-application', 'No server runs');
});

function signalServer(signal) {
    const {stdout} = spawnSync('pidof', [QM5OSD_PROGRAM], {encoding: 'utf8'});
    process.kill(Number(stdout), signal);
}

// A parameter file that sets the font.
function fontFile(stage, font) {
    const file = path.join(stage.folder, 'font.conf');
    writeFileSync(file, `[osd]\nOsdFontFile=${font}\n`);
    return file;
}

// Has the application open an OSD with this font, which the page sees.
async function useFont(stage, font) {
    assert.equal(stage.osd('update', '-f', fontFile(stage, font)).status, 0);
    assert.equal(stage.osd('update', '--Post0TypeOn=0').status, 0);
    assert.equal(stage.osd('update', '--Post0TypeOn=1').status, 0);
    await stage.text('#slots-rows', /Label/);
}

// Waits until the server's log tells once more that this font can't be opened.
async function isTold(stage, font) {
    const times = () =>
        readFileSync(path.join(stage.folder, 'server.log'), 'utf8').split(font).length;
    const before = times();
    await until(() => times() > before, `${font} is told`);
}

// Waits until the page knows of one more fault, and sees that by then the font is no trouble.
async function seesNoTrouble(stage, faults) {
    stage.sim('fault', 'add', 'library_init', 'next', 'delay', '1');
    await stage.text('#text-faults', faults);
    await stage.text('#reports', /New_Face error/);
    assert.doesNotMatch(await stage.page.textContent('#notices'), /font/);
}

test('a font that cannot be opened is told until it can', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    const font = await stage.page.inputValue('#field-OsdFontFile');
    await stage.choose('');
    await stage.page.fill('#field-OsdFontFile', '/no/such/font.ttf');
    await stage.click('#apply-restart');
    await stage.page.locator('#apply-outcome').waitFor();
    stage.osd('update', '--Post0TypeOn=1'); // an open is what needs the font
    await stage.text('#reports', /New_Face error\. font file: \/no\/such\/font\.ttf/);
    const trouble = /The font cannot be opened: \/no\/such\/font\.ttf/;
    await stage.text('#notices', trouble);
    await stage.shot('error');
    await stage.checkAccessibility('a font that cannot be opened');
    await stage.page.reload();
    await stage.text('#notices', trouble);
    await useFont(stage, font);
    await until(async () => !/font/.test(await stage.page.textContent('#notices')), 'it is over');
    await stage.turn(true);
    await stage.turn(false);
    await seesNoTrouble(stage, '1 fault');
    await stage.page.reload();
    await seesNoTrouble(stage, '2 faults');
});

// Has the trouble with a font told once more and be over while nobody sees the page.
async function mendFontUnseen(stage, font) {
    await stage.turn(true);
    await isTold(stage, '/no/such/font.ttf');
    assert.equal(stage.osd('update', '-f', fontFile(stage, font)).status, 0);
    await stage.turn(false);
    await stage.text('#slots-rows', /Date/);
}

test('a trouble that came while nobody saw the page is told until it is over', async (t) => {
    const stage = await Stage.open(t);
    const log = path.join(stage.folder, 'server.log');
    assert.equal(stage.osd('start', '-l', log, '--Post0TypeOn=1').status, 0);
    await stage.text('#slots-rows', /Label/);
    const font = await stage.page.inputValue('#field-OsdFontFile');
    await stage.turn(true);
    stage.osd('update', '-f', fontFile(stage, '/no/such/font.ttf'), '--Post0DateOn=1');
    signalServer('SIGSTOP'); // so that it tells nothing anew
    await stage.turn(false);
    await stage.text('#notices', /The font cannot be opened/).finally(
        () => signalServer('SIGCONT'));
    await mendFontUnseen(stage, font);
    await seesNoTrouble(stage, '1 fault');
    await stage.page.reload();
    await seesNoTrouble(stage, '2 faults');
    // An OSD that opened before it ends none that goes on.
    await stage.turn(true);
    assert.equal(stage.osd('update', '--Post1TypeOn=1').status, 0);
    stage.osd('update', '-f', fontFile(stage, '/no/such/font.ttf'), '--Post0TimeOn=1');
    await stage.turn(false);
    await stage.text('#notices', /The font cannot be opened/);
});

test('a trouble that was dismissed stays so until it is over', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    const font = await stage.page.inputValue('#field-OsdFontFile');
    const spoil = (option) =>
        stage.osd('update', '-f', fontFile(stage, '/no/such/font.ttf'), option);
    spoil('--Post0TypeOn=1');
    await stage.text('#notices', /The font cannot be opened/);
    await stage.click('#notices button');
    spoil('--Post0DateOn=1'); // which tells it once more
    const told = stage.page.locator('#reports li', {hasText: 'New_Face'});
    await until(async () => await told.count() > 3, 'it has been told again');
    await seesNoTrouble(stage, '1 fault');
    await stage.turn(true);
    await stage.turn(false);
    await seesNoTrouble(stage, '2 faults');
    await stage.page.reload();
    await seesNoTrouble(stage, '3 faults');
    await mendFontUnseen(stage, font);
    await seesNoTrouble(stage, '4 faults');
    spoil('--Post1TypeOn=1');
    await stage.text('#notices', /The font cannot be opened/);
    signalServer('SIGSTOP'); // so that it tells nothing anew
    await stage.page.reload();
    await stage.text('#slots-rows', /Label/);
    await stage.text('#notices', /The font cannot be opened/).finally(
        () => signalServer('SIGCONT'));
});

test('a browser that keeps nothing for the page shows it all the same', async (t) => {
    const stage = await Stage.open(t);
    await stage.page.addInitScript(() => Object.defineProperty(globalThis, 'sessionStorage', {
        get: () => {
            throw new DOMException('denied', 'SecurityError');
        },
    }));
    await stage.page.reload();
    await stage.text('#text-connection', 'Live');
    writeFileSync(path.join(stage.folder, 'server.log'),
                  'ERR:FT_New_Face error. font file: /no/such/font.ttf(0)\n');
    await stage.text('#notices', /The font cannot be opened: \/no\/such\/font\.ttf/);
    await stage.click('#notices li:has-text("font") button');
    assert.doesNotMatch(await stage.page.textContent('#notices'), /font/);
});

test('pictures and safe spaces without room for the texts are told', async (t) => {
    const stage = await Stage.open(t);
    stage.setPost(1, '16x16');
    const file = path.join(stage.folder, 'safe.conf');
    writeFileSync(file, '[osd]\nOsdTVOutSafeSpaceLeft=400\nOsdTVOutSafeSpaceRight=400\n');
    assert.equal(stage.osd('start', '-f', file, '-l', path.join(stage.folder, 'server.log'),
                           '--Post0TypeOn=1', '--Post1TypeOn=1').status, 1);
    await stage.text('#notices', /The safe spaces leave no room .*left\/right=400\/400\)/);
    await stage.text('#notices', /The picture is too small .*video width is .*W\/H=16\/16\)/);
});

test('a server that was killed is told, and another one started', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('update', '--Post0TypeOn=1').status, 0);
    await stage.text('#slots-rows', /Label/);
    signalServer('SIGKILL');
    await stage.text('#text-application', 'No server runs');
    await stage.text('#text-device', 'Codec closed');
    await stage.startApplication();
    await stage.text('#slots-empty', 'No OSD is open.');
    await stage.showsSnapshot(0);
});

test('files of the state folder that make no sense are told', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    const spoil = (name) => writeFileSync(path.join(stage.folder, name), 'nonsense\n');
    spoil('faults');
    await stage.text('#notices', /faults:1: not ID OPERATION WHEN EFFECT/);
    spoil('palette');
    await stage.text('#notices', /palette: line 1: not INDEX RED GREEN BLUE ALPHA/);
    await stage.click('#tab-palette');
    await stage.click('#palette-default');
    await stage.text('#palette-state', 'The built-in palette.');
    await stage.click('#tab-faults');
    rmSync(path.join(stage.folder, 'faults'));
    await until(async () => await stage.page.locator('#notices').isHidden(), 'all is well again');
});

test('two pages at once see what either does', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    const other = await stage.page.context().newPage();
    await other.goto(stage.server.address);
    await other.click('#parameter-groups [data-group="1"]');
    await Promise.all([stage.page.check('#field-Post0DateOn'), other.check('#field-Post1DateOn')]);
    await Promise.all([stage.click('#apply-submit'), other.click('#apply-submit')]);
    await stage.text('#apply-outcome', 'Done.');
    await until(async () => await other.textContent('#apply-outcome') === 'Done.', 'the other');
    await until(() => stage.page.isChecked('#field-Post1DateOn'), 'the first sees the second');
    await until(() => other.isChecked('#field-Post0DateOn'), 'the second sees the first');
    await stage.showsSnapshot(0);
    await stage.showsSnapshot(1);
});

test('the time zone block is set and removed', async (t) => {
    const stage = await Stage.open(t);
    await stage.click('#tab-codec');
    await stage.text('#clock-state', /There is no block/);
    await stage.page.fill('#clock-zone', 'UTC-9');
    await stage.click('#clock-form [type="submit"]');
    await stage.text('#clock-state', 'Zone UTC-9, change byte 1.');
    assert.match(stage.sim('clock').stdout, /^zone: UTC-9$/m);
    stage.sim('clock', 'UTC+3');
    await stage.text('#clock-state', 'Zone UTC+3, change byte 2.');
    await stage.page.fill('#clock-change', '256');
    await stage.click('#change-submit');
    await stage.text('#change-outcome', '256: no number of 0 to 255');
    await stage.page.fill('#clock-change', '200');
    await stage.click('#change-submit');
    await stage.text('#clock-state', 'Zone UTC+3, change byte 200.');
    await stage.text('#commands li:last-child', /qm5sim clock --change 200$/);
    await stage.click('#clock-remove');
    await stage.text('#clock-state', /There is no block/);
    assert.equal(await stage.page.isDisabled('#change-submit'), true);
});

test('settings are shown and changed', async (t) => {
    const stage = await Stage.open(t);
    await stage.click('#tab-codec');
    await stage.page.check('#setting-strict');
    await stage.page.fill('#setting-alignment', '16 32 64');
    await stage.click('#settings-form [type="submit"]');
    await until(() => /alignment:? 16 32 64/.test(stage.sim('setting').stdout), 'the alignment');
    assert.match(stage.sim('setting').stdout, /strict:? 1/);
    await until(async () => await stage.page.getAttribute('#setting-alignment', 'placeholder') ===
        '16 32 64', 'the field says so');
    await stage.page.fill('#setting-alignment', '3');
    await stage.click('#settings-form [type="submit"]');
    await stage.page.locator('#settings-outcome').waitFor();
    assert.equal(await stage.page.inputValue('#setting-alignment'), '3');
    stage.sim('setting', 'strict', '0');
    await until(async () => !await stage.page.isChecked('#setting-strict'), 'strict is off again');
});

// Has the page take the events of its stream only when it is let: {release}.
async function holdEvents(stage) {
    await stage.turn(true);
    await stage.page.evaluate(() => {
        const listen = EventSource.prototype.addEventListener;
        const waiting = [];
        globalThis.hold = true;
        globalThis.release = () => {
            globalThis.hold = false;
            waiting.splice(0).forEach((take) => take());
        };
        EventSource.prototype.addEventListener = function (name, take) {
            listen.call(this, name, (event) => {
                if (globalThis.hold)
                    waiting.push(() => take(event));
                else
                    take(event);
            });
        };
    });
    await stage.turn(false);
    return {release: () => stage.page.evaluate(() => globalThis.release())};
}

test('a switch stands as it was chosen until the codec says so', async (t) => {
    const stage = await Stage.open(t);
    const {release} = await holdEvents(stage);
    for (const [tab, box] of [['codec', '#setting-strict'], ['faults', '#faults-on']]) {
        await stage.click(`#tab-${tab}`);
        const before = await stage.page.isChecked(box);
        const commands = await stage.page.locator('#commands li').count();
        await stage.page.setChecked(box, !before);
        await until(async () => await stage.page.locator('#commands li').count() > commands, box);
        assert.equal(await stage.page.isChecked(box), !before, box);
    }
    await release();
    await stage.text('#text-faults', 'Faults off');
    assert.match(stage.sim('setting').stdout, /strict:? 1/);
    assert.equal(await stage.page.isChecked('#faults-on'), false);
    await stage.page.route('**/api/settings', (route) => route.abort('connectionreset'));
    await stage.click('#faults-on');
    await stage.text('#fault-outcome', 'The server does not answer.');
    assert.equal(await stage.page.isChecked('#faults-on'), false);
});

// ---- Logs ---------------------------------------------------------------------------------------

test('recorded calls are shown, filtered and paused', async (t) => {
    const stage = await Stage.open(t);
    await stage.text('#calls-empty', /Nothing is recorded/);
    await stage.click('#tab-codec');
    await stage.page.check('#setting-record');
    await stage.text('#calls-empty', 'No call has been recorded yet.');
    await stage.startApplication();
    await stage.text('#calls', /library_init.*→ 0/);
    stage.sim('fault', 'add', 'open_osd', 'next', 'fail', 'refused', 'post', '2');
    stage.osd('update', '--Post1TypeOn=1', '--Post2TypeOn=1');
    await stage.text('#calls', /post 2 {2}open_osd .*→ -1 errno=0x81E03246/);
    await stage.shot('calls');
    const lines = () => stage.page.locator('#calls li').allInnerTexts();
    await stage.page.check('#calls-failed');
    const failed = await lines();
    assert.ok(failed.length >= 1);
    assert.ok(failed.every((line) => / → -1 /.test(line)), failed.join('\n'));
    await stage.page.uncheck('#calls-failed');
    await until(async () => (await lines()).length > failed.length, 'all are shown again');
    await stage.page.selectOption('#calls-operation', 'set_osd');
    await stage.page.selectOption('#calls-post', '1');
    const found = await lines();
    assert.ok(found.length >= 1);
    assert.ok(found.every((line) => /post 1 {2}set_osd /.test(line)), found.join('\n'));
    await stage.click('#calls-pause');
    stage.osd('update', '--Post1DateOn=1');
    await stage.text('#calls-count', /, [1-9]\d* since the pause$/);
    assert.deepEqual(await lines(), found);
    await stage.click('#calls-pause');
    await until(async () => (await lines()).length > found.length, 'the log goes on');
    await stage.page.fill('#calls-text', 'no such words');
    await stage.text('#calls-empty', 'No call passes the filter.');
});

test('commands of the page are kept for copying', async (t) => {
    const stage = await Stage.open(t, {permissions: ['clipboard-read', 'clipboard-write']});
    await stage.page.fill('#post-3-size', 'huge');
    await stage.click('#post-3 [type="submit"]');
    await stage.text('#commands', /  PUT \/api\/posts\/3  huge: neither /); // no command
    assert.equal(await stage.page.locator('#commands-copy').isHidden(), true);
    await stage.page.fill('#post-3-size', '320x240');
    await stage.click('#post-3 [type="submit"]');
    const last = stage.page.locator('#commands li:last-child');
    await stage.text('#commands li:last-child', /qm5sim post 3 (open|resize) 320x240$/);
    const [, command] = (await last.textContent()).split(/  (.*)/);
    await stage.click('#commands-copy');
    await stage.text('#commands-copy', 'Copied');
    const copied = () => stage.page.evaluate(() => navigator.clipboard.readText());
    assert.equal(await copied(), `${command}\n`);
    await stage.page.evaluate(() => {
        for (let at = 0; at < 210; at++)
            document.querySelector('#setting-strict').click();
    });
    const shown = stage.page.locator('#commands li');
    await until(async () => await shown.count() === 213, 'all are shown');
    await stage.text('#commands-copy', 'Copy');
    await stage.click('#commands-copy');
    await stage.text('#commands-copy', 'Copied');
    const lines = (await shown.allTextContents()).slice(2);
    assert.equal(await copied(), lines.map((line) => `${line.split(/  (.*)/)[1]}\n`).join(''));
});

test('a server that wrote a lot keeps the page short', async (t) => {
    const stage = await Stage.open(t);
    const lines = Array.from({length: 9000}, (_, at) => `line ${at}`).join('\n');
    writeFileSync(path.join(stage.folder, 'server.log'), `${lines}\n`);
    await stage.text('#reports li:last-child', 'line 8999');
    const count = await stage.page.locator('#reports li').count();
    assert.ok(count > 0 && count <= 2000, `${count} lines`);
});
