// Whether anybody can use the live page: enlarged, on a narrow screen, in the dark, with a screen
// reader; and what it does when the connection breaks.

import assert from 'node:assert/strict';
import {after, test} from 'node:test';

import {pressHere, tabTo} from './keyboard.js';
import {closeBrowser, Stage, until} from './stage.js';

after(closeBrowser);

const TABS = ['parameters', 'file', 'faults', 'palette', 'codec'];

// A page with something of everything: texts, a rectangle, a fault, recorded calls, a loaded file.
async function openBusyPage(t, options) {
    const stage = await Stage.open(t, options);
    stage.sim('setting', 'record', '1');
    await stage.startApplication();
    stage.sim('fault', 'add', 'clear_osd', '25%', 'delay', '1', 'post', '1');
    assert.equal(stage.osd('update', '--Post0DateOn=1', '--Post0StringOn=1', '--Post0String=hello',
                           '--Post1TypeOn=1', '--Post1Rectangle2On=1', '--Post1Osd2X=500',
                           '--Post1Osd2W=300', '--Post1Osd2H=200').status, 0);
    await stage.click('#tab-file');
    await stage.page.setInputFiles('#file-load', {
        name: 'other.conf', mimeType: 'text/plain',
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

// ---- Announcements -----------------------------------------------------------------------------

test('a time that goes on is not announced, and what matters is', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('update', '--Post0TimeOn=1').status, 0);
    await stage.page.evaluate(() => {
        globalThis.changes = 0;
        const live = document.querySelectorAll('[aria-live], [role="status"], [role="log"]');
        const observer = new MutationObserver((records) => (globalThis.changes += records.length));
        live.forEach((each) => observer.observe(
            each, {childList: true, subtree: true, characterData: true}));
    });
    const sets = () => stage.page.evaluate(() => Number(document.querySelector(
        '#slots-rows [data-column="sets"]')?.textContent));
    await stage.page.locator('#slots-rows tr').first().waitFor();
    await until(async () => /runs|Done/.test(
        await stage.page.locator('#announcements').textContent()), 'the start was announced');
    const first = await sets();
    await stage.page.evaluate(() => (globalThis.changes = 0));
    await until(async () => await sets() >= first + 3, 'the time goes on');
    assert.equal(await stage.page.evaluate(() => globalThis.changes), 0);
    stage.setPost(2, 'closed');
    await stage.text('#announcements', 'Post 2 has no thread.');
    stage.osd('stop');
    await stage.text('#announcements', 'No server runs.');
});

test('faults and errors are announced', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    stage.sim('fault', 'add', 'set_osd', 'every', 'fail', '0x81E00042', 'post', '0');
    await stage.text('#announcements', /1 fault\.$/);
    stage.osd('update', '--Post0TypeOn=1');
    await stage.text('#announcements', /Error report: ERR:.*osd display failed/);
    stage.sim('setting', 'faults', '0');
    await stage.text('#announcements', /1 fault, off\.$/);
    stage.sim('fault', 'clear');
    await stage.text('#announcements', /Faults off\.$/);
    stage.sim('setting', 'faults', '1');
    await stage.text('#announcements', /No fault\.$/);
});

test('a start that fails is told where it was asked for', async (t) => {
    const stage = await Stage.open(t);
    stage.sim('fault', 'add', 'open_device', 'every', 'fail', 'gone1');
    await stage.text('#text-faults', '1 fault');
    await tabTo(stage, '#application-start');
    await pressHere(stage, 'Enter', async () => {
        await stage.text('#text-command', 'Running start …');
        await stage.text('#announcements', /Running start\./);
        await stage.text('#notices', /Start: It failed with exit status 1\./);
    });
    await stage.checkAccessibility('a start that failed');
    await tabTo(stage, '#notices button');
    await stage.page.keyboard.press('Enter');
    assert.doesNotMatch(await stage.page.locator('#notices').textContent(), /Start:/);
    assert.equal(await stage.page.evaluate(() => document.activeElement.id), 'outputs-heading');
});

// ---- Connection --------------------------------------------------------------------------------

test('a server that comes back is followed, and obeys the page again', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.page.fill('#field-Post0String', 'still here');
    await stage.restartServer();
    await stage.text('#text-connection', 'Live');
    await stage.text('#announcements', /Connected\./);
    assert.equal(await stage.page.inputValue('#field-Post0String'), 'still here');
    assert.equal(await stage.update(), 'Done.');
    assert.equal(stage.osd('update', '--Post0StringOn=1').status, 0);
    await stage.showsSnapshot(0);
});

test('what cannot be carried out without a connection says so', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.server.end();
    stage.server = null;
    await stage.text('#notices', /The connection to qm5sim serve is lost/);
    await stage.page.fill('#field-Post0String', 'x');
    assert.equal(await stage.update(), 'The server does not answer.');
    assert.equal(await stage.page.inputValue('#field-Post0String'), 'x');
    await stage.text('#apply-count', '1 change');
});

test('a page that has to show the token of a new server says so', async (t) => {
    const stage = await Stage.open(t, {}, 'nobody-guesses-this-token');
    await stage.startApplication();
    await stage.restartServer();
    await stage.text('#notices', /The server refuses this page: .*it needs the token/);
    assert.equal(await stage.page.locator('#text-connection').textContent(), 'Connection lost');
});

test('a page that nobody sees leaves its connection to others', async (t) => {
    const stage = await Stage.open(t);
    const turn = (isHidden) => stage.page.evaluate((hidden) => {
        Object.defineProperty(document, 'hidden', {configurable: true, value: hidden});
        document.dispatchEvent(new Event('visibilitychange'));
    }, isHidden);
    await stage.page.fill('#field-Post0String', 'still here');
    await turn(true);
    stage.setPost(2, '352x288');
    const other = await stage.page.context().newPage();
    await other.goto(stage.server.address);
    await other.getByText('352 × 288').waitFor();
    assert.equal(await stage.page.locator('#post-2 .post-size').textContent(), '640 × 360');
    await turn(false);
    await stage.text('#post-2 .post-size', '352 × 288');
    await stage.showsSnapshot(2);
    assert.equal(await stage.page.inputValue('#field-Post0String'), 'still here');
});

test('a request that nobody answers is given up with a word about windows', async (t) => {
    const stage = await Stage.open(t);
    await stage.page.route('**/api/posts/3', () => {}); // which keeps it
    await stage.page.evaluate(() => {
        const timeout = AbortSignal.timeout.bind(AbortSignal);
        AbortSignal.timeout = (ms) => timeout(ms / 100);
    });
    await stage.page.fill('#post-3-size', '320x240');
    await stage.click('#post-3 [type="submit"]');
    await stage.text('#post-3 .outcome', 'The server has not answered within 65 seconds. A browser ' +
        'opens six connections to it: close other windows of this page.');
});
