// Whether anybody can use the live page: enlarged, on a narrow screen, in the dark, and by the rules
// of accessibility.

import assert from 'node:assert/strict';
import {after, test} from 'node:test';

import {tabTo} from './keyboard.js';
import {closeBrowser, Stage} from './stage.js';

after(closeBrowser);

const TABS = ['parameters', 'file', 'faults', 'palette', 'codec'];

// A page with something of everything, some of it long: texts, a rectangle, a fault, recorded calls,
// a time zone, a loaded file.
async function openBusyPage(t, options) {
    const stage = await Stage.open(t, options);
    stage.sim('setting', 'record', '1');
    await stage.startApplication();
    stage.sim('fault', 'add', 'clear_osd', '25%', 'delay', '1', 'post', '1');
    assert.equal(stage.osd('update', '--Post0DateOn=1', '--Post0StringOn=1', '--Post0String=hello',
                           '--Post1TypeOn=1', '--Post1Rectangle2On=1', '--Post1Osd2X=500',
                           '--Post1Osd2W=300', '--Post1Osd2H=200').status, 0);
    stage.sim('clock', `CET-1CEST,M3.5.0,M10.5.0/3${'a'.repeat(36)}`);
    await stage.text('#clock-state', /M10\.5\.0\/3a{36}, change byte 1\.$/);
    await stage.click('#tab-file');
    await stage.page.setInputFiles('#file-load', {
        name: `${'a-name-without-blanks-'.repeat(4)}.conf`, mimeType: 'text/plain',
        buffer: Buffer.from('[osd]\nPost0DateOn=0\nPost0String=a longer one\n'),
    });
    await stage.text('#file-verdict', '2 differences.');
    await stage.click('#tab-parameters');
    await stage.page.fill('#field-Post0StringColor', '7');
    await stage.page.check('#guide-frames');
    return stage;
}

async function forEachTab(stage, run) {
    for (const tab of TABS) {
        await stage.click(`#tab-${tab}`);
        await run(tab);
    }
    await stage.click('#tab-parameters');
}

// ---- Rules of accessibility --------------------------------------------------------------------

for (const colorScheme of ['light', 'dark']) {
    test(`the empty page breaks no rule of accessibility, ${colorScheme}`, async (t) => {
        const stage = await Stage.open(t, {colorScheme});
        await stage.text('#notices', /No application has used this simulated codec yet/);
        await forEachTab(stage, (tab) => stage.checkAccessibility(`empty, ${tab}`));
    });

    test(`the busy page breaks no rule of accessibility, ${colorScheme}`, async (t) => {
        const stage = await openBusyPage(t, {colorScheme});
        await forEachTab(stage, async (tab) => {
            await stage.checkAccessibility(`busy, ${tab}`);
            await stage.shot(`${tab}-${colorScheme}`);
        });
        await stage.page.locator('#post-0').getByText('Pixels').click();
        await stage.checkAccessibility('pixels');
        await stage.shot(`pixels-${colorScheme}`);
        await stage.page.keyboard.press('Escape');
        stage.setPost(3, 'closed');
        await stage.text('#post-3 .empty', 'Post 3 has no thread.');
        await stage.page.fill('#field-Post0StringColor', 'blue');
        assert.match(await stage.update(), /^It failed/);
        await stage.text('#error-Post0StringColor', /invalid value 'blue'/);
        await stage.checkAccessibility('a refused value');
        await stage.shot(`refused-${colorScheme}`);
        await stage.server.end();
        stage.server = null;
        await stage.text('#text-connection', 'Connection lost');
        await stage.checkAccessibility('connection lost');
        await stage.shot(`lost-${colorScheme}`);
    });
}

test('dark and light are what the user prefers', async (t) => {
    const stage = await Stage.open(t);
    const ground = () => stage.page.evaluate(() => getComputedStyle(document.body).backgroundColor);
    const brightness = (color) => color.match(/\d+/g).slice(0, 3).reduce((sum, each) =>
        sum + Number(each), 0);
    assert.ok(brightness(await ground()) > 3 * 200);
    await stage.page.emulateMedia({colorScheme: 'dark'});
    assert.ok(brightness(await ground()) < 3 * 60);
});

test('nothing moves for who wants it so', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('update', '--Post0TypeOn=1').status, 0);
    await stage.page.locator('#slots-rows tr').first().waitFor();
    const moves = () => stage.page.evaluate(() => [...new Set([...document.querySelectorAll('*')]
        .flatMap((each) => [getComputedStyle(each).transitionDuration,
            getComputedStyle(each).animationName]))].sort());
    assert.deepEqual(await moves(), ['0.6s', '0s', 'none'], 'marks fade away for others');
    await stage.page.emulateMedia({reducedMotion: 'reduce'});
    assert.deepEqual(await moves(), ['0s', 'none']);
});

// ---- Sizes -------------------------------------------------------------------------------------

for (const [name, options] of [
    ['360 pixels wide', {viewport: {width: 360, height: 740}}],
    ['at 200 per cent', {viewport: {width: 720, height: 450}, deviceScaleFactor: 2}],
]) {
    test(`nothing sticks out ${name}`, async (t) => {
        const stage = await openBusyPage(t, options);
        await forEachTab(stage, async (tab) => {
            assert.equal(await stage.overhang(), 0, tab);
            await stage.shot(`${tab}-${options.viewport.width}`);
        });
        await stage.page.locator('#post-0').getByText('Pixels').click();
        assert.equal(await stage.overhang(), 0, 'pixels');
        await stage.shot(`pixels-${options.viewport.width}`);
        await stage.checkAccessibility(name);
    });

    test(`nothing covers what has the focus ${name}`, async (t) => {
        const stage = await openBusyPage(t, options);
        await stage.page.focus('#tab-parameters');
        await tabTo(stage, '#apply-submit');
        await tabTo(stage, '#calls-pause');
    });
}

test('letters of twice the size still fit', async (t) => {
    const stage = await openBusyPage(t);
    await stage.page.evaluate(() => (document.documentElement.style.fontSize = '200%'));
    await forEachTab(stage, async (tab) => {
        assert.equal(await stage.overhang(), 0, tab);
        await stage.shot(`${tab}-large`, false);
    });
});
