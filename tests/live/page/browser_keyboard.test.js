// Whether the live page can be used by keyboard alone.

import assert from 'node:assert/strict';
import {after, test} from 'node:test';

import {pressHere, tabTo} from './keyboard.js';
import {closeBrowser, Stage, until} from './stage.js';

after(closeBrowser);

test('everything is done by keyboard alone', async (t) => {
    const stage = await Stage.open(t);
    const {keyboard} = stage.page;
    await tabTo(stage, '.skip');
    await stage.shot('focus', false);
    await tabTo(stage, '#application-start');
    await pressHere(stage, 'Enter', () => stage.text('#text-application', 'Server runs'));
    await tabTo(stage, '#application-restart');
    await pressHere(stage, 'Enter', () => stage.text('#commands li:last-child', / restart /));
    await tabTo(stage, '#field-Post0DateOn');
    await keyboard.press('Space');
    await tabTo(stage, '#field-Post0String');
    await keyboard.type('typed');
    const updated = () => stage.page.locator('#apply-outcome.good').waitFor();
    await pressHere(stage, 'Enter', updated);
    await stage.showsSnapshot(0);
    await tabTo(stage, '#field-Post0String');
    await keyboard.type('again');
    await tabTo(stage, '#apply-submit');
    await pressHere(stage, 'Enter', updated);
    await pressHere(stage, 'Enter', updated); // which does nothing
    assert.equal(await stage.page.locator('#commands li').count(), 4);
    await tabTo(stage, '#parameter-groups [data-group=""]');
    await keyboard.press('Enter');
    await tabTo(stage, '#field-OsdTVOutSafeSpaceLeft');
    await keyboard.type('4');
    await tabTo(stage, '#apply-restart');
    await pressHere(stage, 'Enter', updated);
    await tabTo(stage, '#field-OsdTVOutSafeSpaceLeft');
    await keyboard.type('5');
    await tabTo(stage, '#apply-discard');
    await pressHere(stage, 'Enter', () => stage.text('#apply-count', 'No change.'));
    await tabTo(stage, '#post-0-size');
    await keyboard.type('640x480');
    await keyboard.press('Enter');
    await stage.text('#post-0 .post-size', '640 × 480');
    await tabTo(stage, '#post-3 .post-form [type="button"]');
    await pressHere(stage, 'Enter', () => stage.text('#post-3 .empty', 'Post 3 has no thread.'));
    await tabTo(stage, '#tab-parameters');
    for (let step = 0; step < 3; step++)
        await keyboard.press('ArrowRight');
    assert.equal(await stage.page.evaluate(() => document.activeElement.id), 'tab-palette');
    assert.equal(await stage.page.locator('#panel-palette').isVisible(), true);
    await tabTo(stage, '.palette td');
    await keyboard.press('ArrowDown');
    await keyboard.press('ArrowRight');
    await stage.text('#palette-readout', /^17: /);
    await keyboard.press('Shift+Tab');
    await keyboard.press('End');
    assert.equal(await stage.page.locator('#panel-codec').isVisible(), true);
    await keyboard.press('ArrowRight');
    assert.equal(await stage.page.locator('#panel-parameters').isVisible(), true);
});

test('pixels are looked at by keyboard alone', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    const {keyboard} = stage.page;
    await tabTo(stage, '#post-1 .post-head button');
    await keyboard.press('Enter');
    await stage.text('#zoom-heading', 'Post 1, Stream 1: 1920 × 1080');
    assert.equal(await stage.page.evaluate(() => document.activeElement.id), 'zoom-canvas');
    await keyboard.press('ArrowRight');
    await stage.text('#announcements', /961, 540, #[0-9a-f]{6}\.$/);
    await tabTo(stage, '#zoom-in');
    await pressHere(stage, 'Enter', () => stage.text('#zoom-scale', '4×'));
    for (const scale of [6, 8, 12, 16, 24, 32])
        await pressHere(stage, 'Enter', () => stage.text('#zoom-scale', `${scale}×`));
    await tabTo(stage, '#zoom-posts [aria-pressed="false"]');
    await keyboard.press('Space');
    await stage.text('#zoom-heading', /^Post 0, /);
    await keyboard.press('Escape');
    assert.equal(await stage.page.evaluate(() =>
        document.activeElement.getAttribute('aria-label')), 'Pixels of post 1');
});

test('faults are made, switched off and removed by keyboard alone', async (t) => {
    const stage = await Stage.open(t);
    const {keyboard} = stage.page;
    await tabTo(stage, '#tab-parameters');
    for (let step = 0; step < 2; step++)
        await keyboard.press('ArrowRight');
    await tabTo(stage, '#fault-operation');
    await keyboard.type('close_osd');
    await tabTo(stage, '#fault-effect');
    await keyboard.type('vanish');
    await tabTo(stage, '#fault-post');
    await keyboard.type('post 2');
    await tabTo(stage, '#fault-form [type="submit"]');
    await pressHere(stage, 'Enter', () =>
        stage.text('#fault-rows tr', /^1close_osd next vanish post 200Remove$/));
    assert.match(stage.sim('fault').stdout, /^1 close_osd next vanish post 2: met 0/);
    await tabTo(stage, '#faults-on');
    await pressHere(stage, 'Space', () => stage.text('#text-faults', '1 fault, off'));
    await tabTo(stage, '#fault-rows button');
    await keyboard.press('Enter');
    await stage.text('#fault-empty', 'No fault.');
});

test('files are saved, loaded and put away by keyboard alone', async (t) => {
    const stage = await Stage.open(t);
    // Early, for the driver of the browser goes on before this is known there.
    const asking = stage.page.waitForEvent('filechooser', {timeout: 180000});
    await stage.startApplication();
    const {keyboard} = stage.page;
    await tabTo(stage, '#tab-parameters');
    await keyboard.press('ArrowRight');
    await tabTo(stage, '#file-save');
    const coming = stage.page.waitForEvent('download');
    await keyboard.press('Enter');
    assert.equal((await coming).suggestedFilename(), 'qm5_app_comm.conf');
    await tabTo(stage, '#file-load');
    await keyboard.press('Enter');
    await (await asking).setFiles({
        name: 'other.conf', mimeType: 'text/plain', buffer: Buffer.from('[osd]\nPost0DateOn=1\n'),
    });
    await stage.text('#file-verdict', '1 difference.');
    await until(() => stage.page.evaluate(() => document.activeElement.id === 'file-name'),
                'the focus is on the file');
    await tabTo(stage, '#file-apply');
    await pressHere(stage, 'Enter', () => stage.page.locator('#file-outcome.good').waitFor());
    await stage.showsSnapshot(0);
    await tabTo(stage, '#file-close');
    await keyboard.press('Enter');
    assert.equal(await stage.page.locator('#file-loaded').isVisible(), false);
    assert.equal(await stage.page.evaluate(() => document.activeElement.id), 'file-load');
});

test('removing the last fault leaves the focus at a useful place', async (t) => {
    const stage = await Stage.open(t);
    stage.sim('fault', 'add', 'open_osd', 'next', 'fail', 'gone1');
    await stage.click('#tab-faults');
    await stage.page.focus('#fault-rows button');
    await stage.page.keyboard.press('Enter');
    await stage.text('#fault-empty', 'No fault.');
    await until(() => stage.page.evaluate(() => document.activeElement.id === 'fault-operation'),
                'the focus');
});
