// What the live page changes: parameters, files, faults, settings and the application itself.

import assert from 'node:assert/strict';
import {spawnSync} from 'node:child_process';
import {
    mkdirSync, readFileSync, renameSync, rmdirSync, rmSync, truncateSync, writeFileSync,
} from 'node:fs';
import path from 'node:path';
import {after, test} from 'node:test';

import {closeBrowser, Stage, until} from './stage.js';

const {QM5OSD_PROGRAM} = process.env;

after(closeBrowser);

// Chooses the parameters of a post, or with '' the common ones.
async function choose(stage, group) {
    await stage.click(`#parameter-groups [data-group="${group}"]`);
}

// The value in force of a parameter, as the application tells it.
function inForce(stage, key) {
    const {stdout} = stage.osd('getthdinfo', '-a');
    return new RegExp(`:${key}=(.*)$`, 'm').exec(stdout)?.[1];
}

// Has the page load a parameter file of these bytes, one for each character.
async function loadFile(stage, text) {
    await stage.page.setInputFiles('#file-load', {
        name: 'bad.conf', mimeType: 'text/plain', buffer: Buffer.from(text, 'latin1'),
    });
}

// ---- Parameters --------------------------------------------------------------------------------

test('a refused value stands by its field in the words of the application', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.page.fill('#field-Post0StringColor', '256');
    await choose(stage, '1');
    await stage.page.check('#field-Post1DateOn');
    const told = await stage.update();
    assert.match(told, /^It failed with exit status 1\./);
    await stage.text('#error-Post0StringColor', `invalid value '256' of key Post0StringColor`);
    assert.equal(await stage.page.evaluate(() => document.activeElement.id),
                 'field-Post0StringColor');
    assert.equal(await stage.page.getAttribute('#field-Post0StringColor', 'aria-invalid'), 'true');
    assert.equal(inForce(stage, 'Post1DateOn'), '0');
    await stage.text('#apply-count', '2 changes');
    await stage.shot('refused');
    await stage.page.fill('#field-Post0StringColor', '255');
    await stage.text('#error-Post0StringColor', '');
    assert.equal(await stage.update(), 'Done.');
    assert.equal(inForce(stage, 'Post0StringColor'), '255');
    assert.equal(inForce(stage, 'Post1DateOn'), '1');
    await stage.text('#apply-count', 'No change.');
});

test('a start takes a default that is chosen over what the common file has', async (t) => {
    const stage = await Stage.open(t);
    await stage.text('#apply-note', /A start begins with the common parameter file/);
    await stage.page.check('#field-Post0DateOn');
    await stage.page.uncheck('#field-Post0DateOn');
    await stage.text('#apply-count', '1 change');
    await stage.text('#apply-commands code', / start -l \S+ --Post0DateOn=0$/);
    assert.equal(await stage.update(), 'Done.');
    assert.equal(inForce(stage, 'Post0DateOn'), '0');
    assert.equal(await stage.page.locator('#apply-note').isHidden(), true);
    await stage.page.check('#field-Post0DateOn');
    await stage.page.uncheck('#field-Post0DateOn');
    await stage.text('#apply-count', 'No change.');
});

test('what a shell would touch reaches the application untouched', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    const text = `it's $HOME "&" \\;`;
    await stage.page.fill('#field-Post0String', text);
    await stage.text('#apply-commands code',
                     `${QM5OSD_PROGRAM} update '--Post0String=it'\\''s $HOME "&" \\;'`);
    assert.equal(await stage.update(), 'Done.');
    assert.equal(inForce(stage, 'Post0String'), text);
    await stage.page.fill('#field-Post0String', '');
    assert.equal(await stage.update(), 'Done.');
    await stage.text('#commands li:last-child', /qm5osd update --Post0String=$/);
    assert.equal(inForce(stage, 'Post0String'), '');
});

test('a parameter of files alone is changed through a file', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await choose(stage, '');
    assert.equal(await stage.page.locator('#panel-parameters .tag:visible').count(), 12);
    await stage.page.fill('#field-OsdDateFgColor', '2');
    await stage.text('#apply-commands code', /\/qm5osd update -f \/\S+\/page-[0-9a-f]{8}\.conf$/);
    await stage.text('#apply-commands pre', '[osd]\nOsdDateFgColor=2');
    assert.equal(await stage.update(), 'Done.');
    assert.match(readFileSync('/tmp/osd_tmp_param.txt', 'utf8'), /^OsdDateFgColor=2$/m);
    await stage.shot('common');
});

test('safe spaces are changed by a restart that keeps everything else', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('update', '--Post0TypeOn=1', '--Post3String=kept').status, 0);
    await choose(stage, '');
    await stage.page.fill('#field-OsdTVOutSafeSpaceLeft', '40');
    await stage.page.locator('#apply-note').waitFor();
    await stage.text('#apply-commands [data-key="restart"] code', /qm5osd restart -l \S+ -f \S+ /);
    const file = await stage.page.locator('#apply-commands [data-key="restart"] pre').textContent();
    assert.match(file, /^\[osd\]$[^]*^Post3String=kept$[^]*^OsdTVOutSafeSpaceLeft=40$/m);
    await stage.click('#apply-restart');
    await stage.page.locator('#apply-outcome.good').waitFor();
    assert.equal(inForce(stage, 'Post0TypeOn'), '1');
    assert.equal(inForce(stage, 'Post3String'), 'kept');
    await stage.text('#slots-rows tr:first-child [data-column="shown"]', /^40, /);
    await stage.showsSnapshot(0);
});

test('a copied command does by itself what the page would do', async (t) => {
    const stage = await Stage.open(t, {permissions: ['clipboard-read', 'clipboard-write']});
    await stage.startApplication();
    await stage.page.fill('#field-Post0String', 'it\'s "copied"');
    await stage.text('#apply-commands code', /copied/);
    await stage.click('#apply-commands button');
    await stage.text('#apply-commands button', 'Copied');
    const command = await stage.page.evaluate(() => navigator.clipboard.readText());
    const env = {...process.env, QM5SIM_STATE: stage.folder};
    assert.equal(spawnSync('sh', ['-c', command], {env}).status, 0);
    assert.equal(inForce(stage, 'Post0String'), 'it\'s "copied"');
});

test('changes are saved as a file, which tells what it cannot hold', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('update', '--Post1String=there').status, 0);
    await until(async () => await stage.page.inputValue('#field-Post1String') === 'there', 'it');
    await stage.page.check('#field-Post0DateOn');
    await choose(stage, '1');
    await stage.page.fill('#field-Post1String', '');
    const coming = stage.page.waitForEvent('download');
    await stage.click('#apply-save');
    const download = await coming;
    assert.equal(download.suggestedFilename(), 'changes.conf');
    const file = path.join(stage.folder, 'changes.conf');
    await download.saveAs(file);
    assert.equal(readFileSync(file, 'utf8'), '[osd]\nPost0DateOn=1\n');
    await stage.text('#apply-outcome', /^Saved as changes\.conf, without Post1String: /);
    assert.equal(stage.osd('update', '-f', file).status, 0);
    assert.equal(inForce(stage, 'Post0DateOn'), '1');
});

test('parameters that cannot be read are told until they can', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    const file = '/tmp/osd_tmp_param.txt';
    renameSync(file, `${file}.away`);
    mkdirSync(file);
    await stage.text('#notices', /The parameters in force: \S*osd_tmp_param\.txt: /);
    await stage.text('#announcements', /The parameters in force: /);
    rmdirSync(file);
    renameSync(`${file}.away`, file);
    await until(async () => await stage.page.locator('#notices').isHidden(), 'all is well again');
});

test('no event takes away what was typed', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.page.fill('#field-Post0String', 'half a tho');
    assert.equal(stage.osd('update', '--Post0String=theirs', '--Post0StringOn=1',
                           '--Post0StringColor=7').status, 0);
    await until(async () => await stage.page.inputValue('#field-Post0StringColor') === '7',
                'the other field follows');
    await stage.text('#hint-Post0String', /in force theirs$/);
    assert.equal(await stage.page.inputValue('#field-Post0String'), 'half a tho');
    await stage.click('#apply-discard');
    assert.equal(await stage.page.inputValue('#field-Post0String'), 'theirs');
});

test('a change that no picture shows is followed', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    for (const text of ['not shown', 'nor this', '']) {
        assert.equal(stage.osd('update', `--Post0String=${text}`).status, 0);
        await until(async () => await stage.page.inputValue('#field-Post0String') === text, text);
    }
});

test('what is typed while a command runs is kept for the next one', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.page.fill('#field-Post0String', 'first');
    await stage.page.check('#field-Post0StringOn');
    stage.sim('fault', 'add', 'set_osd', 'next', 'delay', '1500');
    await stage.click('#apply-submit');
    await stage.page.fill('#field-Post0String', 'second');
    await stage.page.locator('#apply-outcome.good').waitFor();
    assert.equal(await stage.page.inputValue('#field-Post0String'), 'second');
    await stage.text('#apply-count', '1 change');
    assert.equal(inForce(stage, 'Post0String'), 'first');
});

// ---- Files -------------------------------------------------------------------------------------

test('parameters are saved, loaded, compared and applied', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('update', '--Post1TypeOn=1', '--Post1String=saved').status, 0);
    await stage.click('#tab-file');
    const coming = stage.page.waitForEvent('download');
    await stage.click('#file-save');
    const file = path.join(stage.folder, 'mine.conf');
    await (await coming).saveAs(file);
    assert.match(readFileSync(file, 'utf8'), /^\[osd\]$[^]*^Post1String=saved$/m);
    await stage.page.setInputFiles('#file-load', file);
    await stage.text('#file-verdict', 'It says nothing else than what is in force.');
    assert.equal(stage.osd('update', '--Post1TypeOn=0', '--Post1String=other').status, 0);
    await stage.text('#file-verdict', '2 differences.');
    assert.deepEqual(await stage.page.locator('#file-rows tr').allInnerTexts(),
                     ['Post1TypeOn\t0\t1', 'Post1String\tother\tsaved']);
    await stage.text('#file-commands [data-key="update"] code', /qm5osd update -f \S+\.conf$/);
    await stage.text('#file-commands [data-key="restart"] code',
                     /qm5osd restart -l \S+ -f \S+\.conf$/);
    await stage.shot('file');
    await stage.click('#file-apply');
    await stage.text('#file-verdict', 'It says nothing else than what is in force.');
    await stage.page.locator('#file-outcome.good').waitFor();
    assert.equal(inForce(stage, 'Post1String'), 'saved');
    await stage.showsSnapshot(1);
});

test('a file that the application refuses is told in its words', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.click('#tab-file');
    await loadFile(stage, '[osd]\nPost0Nothing=1\n');
    await stage.text('#file-verdict', /invalid key 'Post0Nothing'/);
    assert.equal(await stage.page.locator('#file-differences').isVisible(), false);
    await stage.click('#file-apply');
    await stage.text('#file-outcome', /invalid key 'Post0Nothing'/);
});

test('a file with bytes that are no text is shown and carried out as it is', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.click('#tab-file');
    await loadFile(stage, '[osd]\nPost0String=\xff\xfe!\n');
    await stage.text('#file-verdict', '1 difference.');
    await stage.text('#file-text', '[osd]\nPost0String=\ufffd\ufffd!');
    await stage.click('#file-apply');
    await stage.page.locator('#file-outcome.good').waitFor();
    await stage.text('#file-verdict', 'It says nothing else than what is in force.');
    assert.match(readFileSync('/tmp/osd_tmp_param.txt', 'latin1'), /^Post0String=\xff\xfe!$/m);
});

test('a file that is too large is refused before it is sent', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    const asked = [];
    stage.page.on('request', (request) => asked.push(new URL(request.url()).pathname));
    const large = path.join(stage.folder, 'large');
    const load = (selector, size) => {
        writeFileSync(large, '');
        truncateSync(large, size);
        return stage.page.setInputFiles(selector, large);
    };
    await stage.click('#tab-file');
    await load('#file-load', 700 * 1024 + 1);
    await stage.text('#file-outcome', 'large: it has 716801 bytes, of 716800 at most.');
    await stage.click('#tab-palette');
    await load('#palette-load', 64 * 1024 + 1);
    await stage.text('#palette-outcome', 'large: it has 65537 bytes, of 65536 at most.');
    await stage.click('#tab-codec');
    await load('#frame-load', 16 * 1024 * 1024 + 1);
    await stage.text('#frame-outcome', 'large: it has 16777217 bytes, of 16777216 at most.');
    assert.deepEqual(asked, []);
    await load('#frame-load', 16 * 1024 * 1024);
    await stage.text('#frame-outcome', /^frame: /);
    await stage.click('#tab-palette');
    await load('#palette-load', 64 * 1024);
    await stage.text('#palette-outcome', /^palette: line 1: /);
    await stage.click('#tab-file');
    await loadFile(stage, `[osd]\n${';'.repeat(700 * 1024 - 6)}`);
    await stage.text('#file-verdict', 'It says nothing else than what is in force.');
});

// ---- Faults ------------------------------------------------------------------------------------

test('a fault is added, happens, is reported, and is removed', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.click('#tab-faults');
    await stage.page.selectOption('#fault-operation', 'set_osd');
    await stage.page.fill('#fault-value', '0x81E00042');
    await stage.page.selectOption('#fault-post', '0');
    await stage.text('#fault-command', 'qm5sim fault add set_osd next fail 0x81E00042 post 0');
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
    await stage.text('#fault-command', 'qm5sim fault add set_osd next change-after 1 640x480');
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

// ---- The application ---------------------------------------------------------------------------

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
    assert.equal(inForce(stage, 'Post0DateOn'), '1');
    await stage.idle();
    await stage.showsSnapshot(0);
    assert.equal(stage.osd('stop').status, 0);
    await stage.text('#text-application', 'No server runs');
});

test('a font that cannot be opened is told', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await choose(stage, '');
    await stage.page.fill('#field-OsdFontFile', '/no/such/font.ttf');
    await stage.click('#apply-restart');
    await stage.page.locator('#apply-outcome').waitFor();
    stage.osd('update', '--Post0TypeOn=1'); // an open is what needs the font
    await stage.text('#reports', /New_Face error\. font file: \/no\/such\/font\.ttf/);
    await stage.text('#notices', /The font cannot be opened: \/no\/such\/font\.ttf/);
    await stage.shot('error');
    await stage.checkAccessibility('a font that cannot be opened');
    await stage.click('#notices button');
    await until(async () => !/font/.test(await stage.page.locator('#notices').textContent()),
                'the notice is dismissed');
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
    const {stdout} = spawnSync('pidof', [QM5OSD_PROGRAM], {encoding: 'utf8'});
    process.kill(Number(stdout), 'SIGKILL');
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
    await stage.text('#commands li:last-child', / qm5sim clock --change 200$/);
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

// ---- Logs --------------------------------------------------------------------------------------

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
    await stage.text('#commands li:last-child', /  qm5sim post 3 (open|resize) 320x240$/);
    const [, command] = (await last.textContent()).split(/  (.*)/);
    await stage.click('#commands-copy');
    await stage.text('#commands-copy', 'Copied');
    assert.equal(await stage.page.evaluate(() => navigator.clipboard.readText()),
                 `${command}\n`);
});

test('a server that wrote a lot keeps the page short', async (t) => {
    const stage = await Stage.open(t);
    const lines = Array.from({length: 9000}, (_, at) => `line ${at}`).join('\n');
    writeFileSync(path.join(stage.folder, 'server.log'), `${lines}\n`);
    await stage.text('#reports li:last-child', 'line 8999');
    const count = await stage.page.locator('#reports li').count();
    assert.ok(count > 0 && count <= 2000, `${count} lines`);
});
