// Whether anybody can use the live page: by keyboard, enlarged, on a narrow screen, in the dark,
// with a screen reader; and what it does when the connection breaks.

import assert from 'node:assert/strict';
import {after, test} from 'node:test';

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

// ---- Keyboard ----------------------------------------------------------------------------------

// Presses Tab until an element has the focus, and sees on the way that each that has it shows it
// and isn't covered. The focus leaves the page's elements at most once, from the last to the first.
async function tabTo(stage, selector) {
    let turns = 0;
    for (let pressed = 0; pressed < 200; pressed++) {
        await stage.page.keyboard.press('Tab');
        const found = await stage.page.evaluate((wanted) => {
            const active = document.activeElement;
            const shown = active.matches('.button input') ? active.parentElement : active;
            const {outlineStyle, outlineWidth} = getComputedStyle(shown);
            const {left, right, top, bottom} = shown.getBoundingClientRect();
            const hit = document.elementFromPoint(
                (Math.max(left, 0) + Math.min(right, innerWidth)) / 2,
                (Math.max(top, 0) + Math.min(bottom, innerHeight)) / 2);
            return {
                isHit: shown.contains(hit),
                hit: hit?.outerHTML.slice(0, 200),
                isThere: active.matches(wanted),
                isShown: outlineStyle !== 'none' && parseFloat(outlineWidth) >= 2,
                name: active.outerHTML.slice(0, 200),
                isNone: active === document.body,
            };
        }, selector);
        turns += found.isNone;
        assert.ok(turns <= 1, 'the focus is on nothing');
        assert.ok(found.isShown || found.isNone, `the focus is not seen: ${found.name}`);
        assert.ok(found.isHit, `${found.name} is covered by ${found.hit}`);
        if (found.isThere)
            return;
    }
    assert.fail(`${selector} is not reached`);
}

// Presses a key on what has the focus, and sees that this has it still when all is done.
async function pressHere(stage, key, done) {
    const here = await stage.page.evaluateHandle(() => document.activeElement);
    assert.equal(await here.evaluate((active) => active !== document.body), true);
    await stage.page.keyboard.press(key);
    await done();
    await stage.idle();
    assert.equal(await here.evaluate((active) => active === document.activeElement), true,
                 `the focus went to ${await stage.page.evaluate(() =>
                     document.activeElement.outerHTML.slice(0, 200))}`);
}

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
    await stage.startApplication();
    const {keyboard} = stage.page;
    await tabTo(stage, '#tab-parameters');
    await keyboard.press('ArrowRight');
    await tabTo(stage, '#file-save');
    const coming = stage.page.waitForEvent('download');
    await keyboard.press('Enter');
    assert.equal((await coming).suggestedFilename(), 'qm5_app_comm.conf');
    await tabTo(stage, '#file-load');
    const asking = stage.page.waitForEvent('filechooser');
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
