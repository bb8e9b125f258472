// What the tests of the live page look at: a real qm5sim serve, a real application and a browser.
// Each test has a state folder, a server and a page of its own, and leaves nothing behind.

import assert from 'node:assert/strict';
import {spawn, spawnSync} from 'node:child_process';
import {EventEmitter, once} from 'node:events';
import {mkdirSync, mkdtempSync, readFileSync, rmSync} from 'node:fs';
import {createRequire} from 'node:module';
import {tmpdir} from 'node:os';
import path from 'node:path';
import {createInterface} from 'node:readline';

const {
    QM5SIM_PROGRAM, QM5OSD_PROGRAM, PAGE_TEST_BROWSER, PAGE_TEST_PACKAGES, PAGE_TEST_PICTURES,
} = process.env;
const require = createRequire(path.join(PAGE_TEST_PACKAGES, 'package.json'));
const {chromium} = require('playwright-core');
const AXE = readFileSync(require.resolve('axe-core/axe.min.js'), 'utf8');

const PATIENCE_MS = 60000; // for what takes a moment; a busy machine may need it all

const BROWSER = {
    executablePath: PAGE_TEST_BROWSER,
    args: [
        '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
        '--disable-background-networking', '--disable-component-update', '--disable-sync',
    ],
};

let browser = null;

export async function closeBrowser() {
    await browser?.close();
}

// Waits until a condition holds; what it gives then.
export async function until(condition, what) {
    const end = Date.now() + PATIENCE_MS;
    for (;;) {
        const begin = Date.now();
        const found = await condition();
        if (found)
            return found;
        const now = Date.now();
        assert.ok(now < end, `timed out: ${what ?? condition}`);
        // A look that takes long is half of what the machine does, at most.
        await new Promise((resolve) => setTimeout(resolve, Math.max(now - begin, 50)));
    }
}

function runWith(program, folder, words) {
    const env = {...process.env, QM5SIM_STATE: folder};
    const stdio = ['ignore', 'pipe', 'pipe'];
    const {status, stdout, stderr} =
        spawnSync(program, words, {env, stdio, encoding: 'utf8', timeout: PATIENCE_MS});
    return {status, stdout, stderr};
}

// ---- The server --------------------------------------------------------------------------------

class Server {
    #child;
    #ended;

    constructor(child, address) {
        this.#child = child;
        this.#ended = once(child, 'exit');
        this.address = address;
    }

    // Null if it couldn't be started, which its own words tell.
    static async start(folder, port, options) {
        const words = ['serve', '--port', String(port), '--qm5osd', QM5OSD_PROGRAM, ...options];
        const child = spawn(QM5SIM_PROGRAM, words, {
            env: {...process.env, QM5SIM_STATE: folder}, stdio: ['ignore', 'pipe', 'inherit'],
        });
        const lines = createInterface(child.stdout);
        const first = await Promise.race([once(lines, 'line'), once(lines, 'close')]);
        if (first.length === 0)
            return null;
        assert.match(first[0], /^http:\/\/127\.0\.0\.1:\d+\/$/);
        return new Server(child, first[0]);
    }

    get port() {
        return Number(new URL(this.address).port);
    }

    async end() {
        this.#child.kill('SIGTERM');
        const [status] = await this.#ended;
        assert.equal(status, 0, 'the server ended well');
    }
}

// ---- The stage ---------------------------------------------------------------------------------

// What a browser tells of connections and requests that the tests themselves make fail.
const EXPECTED = /^Failed to load resource:|net::ERR_/;

export class Stage {
    #folder = mkdtempSync(path.join(tmpdir(), 'page-'));
    #serverOptions = [];
    #complaints = [];
    #context = null;

    // A page of a new server, in a browser window of `options`; taken away after the test `t`. With
    // a token, everybody has to know it.
    static async open(t, options = {}, token = '') {
        const stage = new Stage();
        t.after(() => stage.#close());
        stage.#serverOptions = token === '' ? [] : ['--token', token];
        stage.server = await Server.start(stage.#folder, 0, stage.#serverOptions);
        assert.ok(stage.server, 'the server started');
        browser ??= await chromium.launch(BROWSER);
        stage.#context = await browser.newContext({
            viewport: {width: 1440, height: 900}, colorScheme: 'light', ...options,
        });
        stage.page = await stage.#context.newPage();
        stage.page.setDefaultTimeout(PATIENCE_MS);
        stage.page.on('console', (message) => stage.#hear(message));
        stage.page.on('pageerror', (error) => stage.#complaints.push(error.stack));
        await stage.page.goto(`${stage.server.address}?token=${token}`);
        await stage.text('#text-connection', 'Live');
        await stage.page.locator('#control:not([inert])').waitFor();
        return stage;
    }

    #hear(message) {
        if (message.type() === 'error' && !EXPECTED.test(message.text()))
            this.#complaints.push(message.text());
    }

    async #close() {
        await this.#context?.close();
        this.osd('stop');
        await this.server?.end();
        this.sim('clock', '--remove');
        rmSync(this.#folder, {recursive: true});
        assert.deepEqual(this.#complaints, [], 'the browser complains of nothing');
    }

    get folder() {
        return this.#folder;
    }

    sim(...words) {
        return runWith(QM5SIM_PROGRAM, this.#folder, words);
    }

    osd(...words) {
        return runWith(QM5OSD_PROGRAM, this.#folder, words);
    }

    // Gives a post another size, or takes its thread away with `closed`.
    setPost(post, size) {
        const words = size === 'closed' ? ['close'] : ['resize', size];
        const {status, stderr} = this.sim('post', String(post), ...words);
        assert.equal(status, 0, stderr);
    }

    // A command as the page shows it, with these words behind the program's name.
    shownCommand(program, words) {
        return `QM5SIM_STATE=${this.#folder} ${program} ${words}`;
    }

    async restartServer() {
        const {port} = this.server;
        await this.server.end();
        this.server = null;
        await this.text('#text-connection', 'Connection lost');
        // Somebody's connection may have the port for a while.
        this.server = await until(() => Server.start(this.#folder, port, this.#serverOptions),
                                  `a server at port ${port}`);
    }

    // ---- The page ------------------------------------------------------------------------------

    // Waits until an element has this text, or one that matches. A hidden one has none, but for one
    // behind another tab.
    async text(selector, expected) {
        const target = this.page.locator(selector);
        const fits = (text) => (expected instanceof RegExp ? expected.test(text)
                                                           : text === expected);
        let last = '';
        await until(async () => {
            last = await target.evaluate((element) =>
                (element.hidden ? '' : element.textContent.trim()));
            return fits(last);
        }, `${selector} is to say ${expected}`).catch((error) => {
            throw new Error(`${error.message}, but says: ${last}`);
        });
    }

    // Puts the page behind another window, or in front again.
    async turn(isHidden) {
        await this.page.evaluate((hidden) => {
            Object.defineProperty(document, 'hidden', {configurable: true, value: hidden});
            document.dispatchEvent(new Event('visibilitychange'));
        }, isHidden);
    }

    // Holds back the first answer to requests of a method and an address, which others pass: {held,
    // a promise that the server has given it, release, which lets the page have it}.
    async holdBack(method, address) {
        const moments = new EventEmitter();
        const held = once(moments, 'held');
        const released = once(moments, 'released');
        let first = null;
        await this.page.route(address, async (route) => {
            if (first !== null || route.request().method() !== method) {
                await route.continue();
                return;
            }
            first = route.request();
            const response = await route.fetch();
            moments.emit('held');
            await released;
            await route.fulfill({response});
        });
        const release = async () => {
            moments.emit('released');
            await (await first.response()).finished();
            await this.page.evaluate(() => new Promise((resolve) => setTimeout(resolve, 100)));
        };
        return {held, release};
    }

    async click(selector) {
        await this.page.locator(selector).click();
    }

    // Starts the application with the button, and waits for the pictures of all posts.
    async startApplication() {
        await this.click('#application-start');
        await this.text('#text-application', 'Server runs');
        await this.idle();
        await until(() => this.page.evaluate(() =>
            [...document.querySelectorAll('.screen canvas')].every((each) => each.width !== 300)),
                    'pictures of all posts');
    }

    // Chooses the parameters of a post, or with '' the common ones.
    async choose(group) {
        await this.click(`#parameter-groups [data-group="${group}"]`);
    }

    // The value in force of a parameter, as the application tells it.
    inForce(key) {
        const {stdout} = this.osd('getthdinfo', '-a');
        return new RegExp(`:${key}=(.*)$`, 'm').exec(stdout)?.[1];
    }

    // Waits until no command of the page is being carried out.
    async idle() {
        await until(() => this.page.evaluate(() =>
            document.querySelector('#item-command').hidden &&
            ['start', 'stop'].some((name) => document.querySelector(
                `#application-${name}:not([aria-disabled="true"])`))), 'no command is running');
    }

    // Carries the typed changes out and waits for what came of it.
    async update() {
        await this.click('#apply-submit');
        await this.page.locator('#apply-outcome').waitFor();
        await this.idle();
        return (await this.page.locator('#apply-outcome').textContent()).trim();
    }

    // How many pixels of a post's picture on the page differ from what the tool writes.
    async differences(post, ...options) {
        const file = path.join(this.#folder, 'snapshot.png');
        const done = this.sim('snapshot', String(post), ...options, file);
        assert.equal(done.status, 0, done.stderr);
        const png = readFileSync(file).toString('base64');
        return this.page.evaluate(compareWithPng, {selector: `#canvas-${post}`, png});
    }

    async showsSnapshot(post, ...options) {
        await until(async () => await this.differences(post, ...options) === 0,
                    `post ${post} shows what the tool writes`);
    }

    async shot(name, fullPage = true) {
        mkdirSync(PAGE_TEST_PICTURES, {recursive: true});
        const file = path.join(PAGE_TEST_PICTURES, `${name}.png`);
        await this.page.screenshot({path: file, fullPage});
    }

    // Holds the page as it is now against the rules of accessibility.
    async checkAccessibility(what) {
        await this.page.evaluate(AXE);
        const found = await this.page.evaluate(() => globalThis.axe.run(document, {
            resultTypes: ['violations'],
        }));
        const told = found.violations.map(({id, nodes}) =>
            `${id}: ${nodes.map((node) => `${node.html} ${node.failureSummary}`).join('\n')}`);
        assert.deepEqual(told, [], what);
        assert.ok(found.passes.length > 20, 'the rules were held against something');
    }

    // How much wider than the window, or than the panel that it is in, anything is.
    async overhang() {
        return this.page.evaluate(() => Math.max(
            ...[document.documentElement, ...document.querySelectorAll('.panel, .panel pre')]
                .map((each) => each.scrollWidth - each.clientWidth)));
    }
}

// Runs in the page: decodes a PNG and compares a canvas with it, pixel by pixel.
async function compareWithPng({selector, png}) {
    const bytes = Uint8Array.from(atob(png), (character) => character.charCodeAt(0));
    const exact = {colorSpaceConversion: 'none', premultiplyAlpha: 'none'};
    const bitmap = await createImageBitmap(new Blob([bytes], {type: 'image/png'}), exact);
    const canvas = document.querySelector(selector);
    const {width, height} = bitmap;
    if (canvas.width !== width || canvas.height !== height)
        return width * height;
    const scratch = new OffscreenCanvas(width, height).getContext('2d');
    scratch.drawImage(bitmap, 0, 0);
    const expected = scratch.getImageData(0, 0, width, height).data;
    const shown = canvas.getContext('2d').getImageData(0, 0, width, height).data;
    let differing = 0;
    for (let at = 0; at < shown.length; at += 4) {
        if ([0, 1, 2, 3].some((part) => shown[at + part] !== expected[at + part]))
            differing++;
    }
    return differing;
}
