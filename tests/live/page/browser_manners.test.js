// What the live page tells a screen reader, and what it does when the connection breaks.

import assert from 'node:assert/strict';
import path from 'node:path';
import {after, test} from 'node:test';

import {pressHere, tabTo} from './keyboard.js';
import {closeBrowser, Stage, until} from './stage.js';

after(closeBrowser);

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

test('what the page itself has done is announced, and nothing twice', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.text('#announcements', /Done\./);
    await stage.page.evaluate(() => {
        globalThis.told = [];
        const place = document.querySelector('#announcements');
        new MutationObserver(() => globalThis.told.push(place.textContent)).observe(
            place, {childList: true});
    });
    const tells = async (text) => {
        await until(() => stage.page.evaluate((wanted) =>
            globalThis.told.some((each) => each.includes(wanted)), text), `“${text}” is announced`);
        await stage.idle();
    };
    const loadParameters = (text) => stage.page.setInputFiles('#file-load', {
        name: 'a.conf', mimeType: 'text/plain', buffer: Buffer.from(text),
    });
    await stage.click('#tab-file');
    await stage.click('#file-save');
    await tells('Saved as qm5_app_comm.conf.');
    await loadParameters(`[osd]\n${';'.repeat(700 * 1024)}`);
    await tells('a.conf: it has 716806 bytes, of 716800 at most.');
    await loadParameters('[osd]\nPost0TypeOn=1\n');
    await tells('1 difference.');
    await stage.click('#file-apply');
    await stage.page.locator('#file-outcome.good').waitFor();
    await tells('It says nothing else than what is in force.');
    await stage.page.route('**/api/parameters/file', (route) => route.fulfill({
        status: 409, contentType: 'application/json', body: '{"error":""}',
    }));
    await stage.click('#file-save');
    await tells('status 409');
    await stage.text('#file-outcome', 'status 409');
    await stage.click('#tab-palette');
    await stage.page.fill('#palette-alpha', '256');
    await stage.click('#palette-form [type="submit"]');
    await tells('Alpha is a number of 0 to 255.');
    await stage.click('#tab-codec');
    await stage.page.fill('#clock-zone', 'UTC-9');
    await stage.click('#clock-form [type="submit"]');
    await stage.text('#clock-state', /^Zone UTC-9/);
    await stage.page.fill('#clock-change', '256');
    await stage.click('#change-submit');
    await tells('256: no number of 0 to 255');
    const told = (await stage.page.evaluate(() => globalThis.told)).join(' ');
    for (const words of ['Saved as', '1 difference', '256: no number', 'It says nothing else'])
        assert.equal(told.split(words).length, 2, told);
    assert.equal(told.split('Done.').length, 3, told); // the update and the zone
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

test('a failure is told no longer than it lasts', async (t) => {
    const stage = await Stage.open(t);
    const failToStart = async () => {
        stage.sim('fault', 'add', 'open_device', 'next', 'fail', 'gone1');
        await stage.click('#application-start');
        await stage.text('#notices', /Start: It failed with exit status 1\./);
        await stage.idle();
    };
    const isOver = () => until(async () => !/Start:/.test(await stage.page.textContent('#notices')),
                               'the failure is over');
    await failToStart();
    await stage.page.check('#field-Post0DateOn');
    assert.equal(await stage.update(), 'Done.');
    await isOver();
    assert.equal(stage.osd('stop').status, 0);
    await stage.text('#text-application', 'No server runs');
    await failToStart();
    assert.equal(stage.osd('start', '-l', path.join(stage.folder, 'server.log')).status, 0);
    await stage.text('#text-application', 'Server runs');
    await isOver();
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

test('a command that is under way when the page is served no longer says so', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    stage.sim('fault', 'add', 'set_osd', 'next', 'delay', '3000');
    await stage.page.check('#field-Post0DateOn');
    await stage.click('#apply-submit');
    await stage.text('#text-command', 'Running update …');
    await until(() => /happened 1/.test(stage.sim('fault').stdout), 'it has begun');
    await stage.server.end();
    stage.server = null;
    await stage.text('#apply-outcome',
                     'application: qm5sim serve has ended without waiting for it');
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
    await stage.page.fill('#field-Post0String', 'still here');
    await stage.turn(true);
    stage.setPost(2, '352x288');
    const other = await stage.page.context().newPage();
    await other.goto(stage.server.address);
    await other.getByText('352 × 288').waitFor();
    assert.equal(await stage.page.locator('#post-2 .post-size').textContent(), '640 × 360');
    await stage.turn(false);
    await stage.text('#post-2 .post-size', '352 × 288');
    await stage.showsSnapshot(2);
    assert.equal(await stage.page.inputValue('#field-Post0String'), 'still here');
});

test('a page goes on with its logs where it was hidden', async (t) => {
    const stage = await Stage.open(t);
    stage.sim('setting', 'record', '1');
    await stage.startApplication();
    const recorded = () => stage.sim('calls').stdout.split('\n').length - 1;
    const before = recorded();
    await stage.text('#calls-count', `${before} of ${before}`);
    await stage.turn(true);
    assert.equal(stage.osd('update', ...[0, 1, 2, 3].map((post) => `--Post${post}TimeOn=1`)).status,
                 0);
    await until(() => recorded() > before + 250, 'more calls than a new page is sent');
    assert.equal(stage.osd('stop').status, 0);
    const all = recorded();
    await stage.turn(false);
    await stage.text('#calls-count', `${all} of ${all}`);
    const lines = await stage.page.locator('#calls li').allInnerTexts();
    assert.deepEqual(lines.map((line) => parseInt(line, 10)),
                     Array.from({length: all}, (_, at) => at + 1));
});

test('a page for which there is no stream left says so, until there is one', async (t) => {
    const stage = await Stage.open(t);
    const others = new AbortController();
    const {signal} = others;
    const streams = await Promise.all(Array.from({length: 31}, () =>
        fetch(`${stage.server.address}api/events`, {signal})));
    assert.ok(streams.every(({status}) => status === 200));
    const page = await stage.page.context().newPage();
    const errors = [];
    page.on('pageerror', (error) => errors.push(error.message));
    await page.goto(stage.server.address);
    await page.locator('#notices')
        .getByText('The server refuses this page: events: 32 streams are open.').waitFor();
    assert.deepEqual(await page.locator('.status li:visible').allInnerTexts(),
                     ['Connection lost', 'Unknown']);
    assert.equal(await page.textContent('#slots-empty'), 'Not known yet.');
    const pixels = page.locator('#post-0').getByText('Pixels');
    const {x, y, width, height} = await pixels.boundingBox();
    await page.mouse.click(x + width / 2, y + height / 2);
    await page.focus('#tab-faults');
    await page.keyboard.press('Enter');
    await page.screenshot({path: path.join(process.env.PAGE_TEST_PICTURES, 'refused-page.png')});
    assert.equal(await page.locator('#zoom, #panel-faults').locator('visible=true').count(), 0);
    others.abort();
    await page.locator('#text-connection', {hasText: /^Live$/}).waitFor();
    assert.doesNotMatch(await page.textContent('#notices'), /refuses/);
    await pixels.click();
    await page.locator('#zoom').waitFor();
    assert.deepEqual(errors, []);
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
