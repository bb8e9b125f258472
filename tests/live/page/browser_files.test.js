// Parameter files on the live page: saved, loaded, compared with what is in force, and applied.

import assert from 'node:assert/strict';
import {readFileSync, truncateSync, writeFileSync} from 'node:fs';
import path from 'node:path';
import {after, test} from 'node:test';

import {closeBrowser, Stage} from './stage.js';

after(closeBrowser);

// Has the page load a parameter file of these bytes, one for each character.
async function loadFile(stage, text) {
    await stage.page.setInputFiles('#file-load', {
        name: 'bad.conf', mimeType: 'text/plain', buffer: Buffer.from(text, 'latin1'),
    });
}

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
    assert.equal(stage.inForce('Post1String'), 'saved');
    await stage.showsSnapshot(1);

    assert.equal(stage.osd('update', '--Post1String=other').status, 0);
    await stage.text('#file-verdict', '1 difference.');
    await stage.click('#file-restart');
    await stage.text('#file-verdict', 'It says nothing else than what is in force.');
    await stage.text('#commands li:last-child', / restart /);
    assert.equal(stage.inForce('Post1String'), 'saved');
});

test('a comparison that comes late is dropped', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('update', '--Post0String=a').status, 0);
    await stage.click('#tab-file');
    await loadFile(stage, '[osd]\nPost0String=a\n');
    const same = 'It says nothing else than what is in force.';
    await stage.text('#file-verdict', same);
    const {held, release} = await stage.holdBack('POST', '**/api/parameters/compare');
    assert.equal(stage.osd('update', '--Post0String=b').status, 0);
    await held;
    const asked = stage.page.waitForResponse('**/api/parameters/compare');
    assert.equal(stage.osd('update', '--Post0String=a').status, 0);
    await asked;
    await release();
    assert.equal(await stage.page.textContent('#file-verdict'), same);
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
