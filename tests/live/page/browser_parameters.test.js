// What the live page makes of the parameters: values typed, refused, kept and carried out.

import assert from 'node:assert/strict';
import {spawnSync} from 'node:child_process';
import {mkdirSync, readFileSync, renameSync, rmdirSync} from 'node:fs';
import path from 'node:path';
import {after, test} from 'node:test';

import {closeBrowser, Stage, until} from './stage.js';

const {QM5OSD_PROGRAM} = process.env;

after(closeBrowser);

test('a refused value stands by its field in the words of the application', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.page.fill('#field-Post0StringColor', '256');
    await stage.choose('1');
    await stage.page.check('#field-Post1DateOn');
    const told = await stage.update();
    assert.match(told, /^It failed with exit status 1\./);
    await stage.text('#error-Post0StringColor', `invalid value '256' of key Post0StringColor`);
    assert.equal(await stage.page.evaluate(() => document.activeElement.id),
                 'field-Post0StringColor');
    assert.equal(await stage.page.getAttribute('#field-Post0StringColor', 'aria-invalid'), 'true');
    assert.equal(stage.inForce('Post1DateOn'), '0');
    await stage.text('#apply-count', '2 changes');
    await stage.shot('refused');
    await stage.page.fill('#field-Post0StringColor', '255');
    await stage.text('#error-Post0StringColor', '');
    assert.equal(await stage.update(), 'Done.');
    assert.equal(stage.inForce('Post0StringColor'), '255');
    assert.equal(stage.inForce('Post1DateOn'), '1');
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
    assert.equal(stage.inForce('Post0DateOn'), '0');
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
                     stage.shownCommand(QM5OSD_PROGRAM,
                                        `update '--Post0String=it'\\''s $HOME "&" \\;'`));
    assert.equal(await stage.update(), 'Done.');
    assert.equal(stage.inForce('Post0String'), text);
    await stage.page.fill('#field-Post0String', '');
    assert.equal(await stage.update(), 'Done.');
    await stage.text('#commands li:last-child', /qm5osd update --Post0String=$/);
    assert.equal(stage.inForce('Post0String'), '');
});

test('a parameter of files alone is changed through a file', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.choose('');
    assert.equal(await stage.page.locator('#panel-parameters .tag:visible').count(), 12);
    await stage.page.fill('#field-OsdDateFgColor', '2');
    await stage.text('#apply-commands code', /\/qm5osd update -f \/\S+\/page-[0-9a-f]{16}\.conf$/);
    await stage.text('#apply-commands pre', '[osd]\nOsdDateFgColor=2');
    assert.equal(await stage.update(), 'Done.');
    assert.match(readFileSync('/tmp/osd_tmp_param.txt', 'utf8'), /^OsdDateFgColor=2$/m);
    await stage.shot('common');
});

test('safe spaces are changed by a restart that keeps everything else', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('update', '--Post0TypeOn=1', '--Post3String=kept').status, 0);
    await stage.choose('');
    await stage.page.fill('#field-OsdTVOutSafeSpaceLeft', '40');
    await stage.page.locator('#apply-note').waitFor();
    await stage.text('#apply-commands [data-key="restart"] code', /qm5osd restart -l \S+ -f \S+ /);
    const file = await stage.page.locator('#apply-commands [data-key="restart"] pre').textContent();
    assert.match(file, /^\[osd\]$[^]*^Post3String=kept$[^]*^OsdTVOutSafeSpaceLeft=40$/m);
    await stage.click('#apply-restart');
    await stage.page.locator('#apply-outcome.good').waitFor();
    assert.equal(stage.inForce('Post0TypeOn'), '1');
    assert.equal(stage.inForce('Post3String'), 'kept');
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
    const run = async () => {
        const command = await stage.page.evaluate(() => navigator.clipboard.readText());
        const env = {...process.env, QM5SIM_STATE: '/nobody/uses/this'}; // the shell's own
        assert.equal(spawnSync('sh', ['-c', command], {env, cwd: '/'}).status, 0);
    };
    await run();
    assert.equal(stage.inForce('Post0String'), 'it\'s "copied"');
    await stage.click('#tab-faults');
    await stage.click('#fault-copy');
    await stage.text('#fault-copy', 'Copied');
    await run();
    assert.match(stage.sim('fault').stdout, /open_osd next fail gone1/);
});

test('a number that is spelt otherwise is shown as what it is', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('update', '--Post0Osd0ColorType=01', '--Post0Rectangle0On=02').status, 0);
    const chosen = (key) => stage.page.locator(`#field-Post0${key} option:checked`);
    await stage.text('#field-Post0Rectangle0On option:checked', '2: yes');
    assert.match(await chosen('Osd0ColorType').textContent(), /^1: /);
    const type = stage.page.locator('#field-Post0Osd0ColorType');
    await type.selectOption({index: 2});
    await stage.text('#apply-count', '1 change');
    await type.selectOption({index: 1});
    await stage.text('#apply-count', 'No change.');
});

test('changes are saved as a file, which tells what it cannot hold', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('update', '--Post1String=there').status, 0);
    await until(async () => await stage.page.inputValue('#field-Post1String') === 'there', 'it');
    await stage.page.check('#field-Post0DateOn');
    await stage.choose('1');
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
    assert.equal(stage.inForce('Post0DateOn'), '1');
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
    assert.equal(stage.inForce('Post0String'), 'first');
});
