// The pictures of the live page in a browser, held against what the tool writes of the same moment.

import assert from 'node:assert/strict';
import {readFileSync, rmSync, writeFileSync} from 'node:fs';
import path from 'node:path';
import {after, test} from 'node:test';

import {closeBrowser, Stage, until} from './stage.js';

const {QM5OSD_PROGRAM} = process.env;

after(closeBrowser);

test('before any application the page says so and shows the posts without OSDs', async (t) => {
    const stage = await Stage.open(t);
    await stage.text('#text-application', 'No server runs');
    await stage.text('#notices', /No application has used this simulated codec yet/);
    await stage.text('#slots-empty', 'No OSD is open.');
    for (const post of [0, 1, 2, 3])
        await stage.showsSnapshot(post);
    await stage.shot('empty');
});

test('a date that the form switches on comes into the picture', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.showsSnapshot(1);
    const before = await stage.page.evaluate(() =>
        document.querySelector('#canvas-1').toDataURL());
    await stage.click('#parameter-groups [data-group="1"]');
    await stage.page.check('#field-Post1DateOn');
    await stage.text('#apply-commands code',
                     stage.shownCommand(QM5OSD_PROGRAM, 'update --Post1DateOn=1'));
    assert.equal(await stage.update(), 'Done.');
    await stage.text('#commands li:last-child', /qm5osd update --Post1DateOn=1$/);
    await stage.showsSnapshot(1);
    const now = await stage.page.evaluate(() => document.querySelector('#canvas-1').toDataURL());
    assert.notEqual(now, before);
    await stage.text('#slots-rows tr', /^1\s*2\s*Date/);
    await stage.shot('date');
});

test('the inspector tells of a slot what the codec has', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    const options = ['Rectangle3On=1', 'Osd3ColorType=1', 'Osd3X=200', 'Osd3Y=40', 'Osd3W=300',
                     'Osd3H=60'].map((option) => `--Post2${option}`);
    assert.equal(stage.osd('update', ...options).status, 0);
    const rows = stage.page.locator('#slots-rows tr');
    await until(async () => await rows.count() === 1, 'the rectangle is there');
    const {handle} = JSON.parse(stage.sim('state', '--json').stdout).posts[2].osds
        .find((osd) => osd.number === 3);
    const cells = await rows.locator('td').allInnerTexts();
    assert.match(cells.pop(), /^\d\d:\d\d:\d\d/);
    assert.deepEqual(cells, ['3', 'Rectangle 3', '16 colours, 4 bits', `0x${handle.toString(16)}`,
                             '300 × 60', '160', '320', '9600', '200, 40', '1']);

    assert.equal(stage.osd('update', '--Post2Osd3X=8').status, 0);
    await stage.text('#slots-rows [data-column="shown"]', '8, 40');
});

const ALL_TEXTS = ['DateOn=1', 'TypeOn=1', 'StringOn=1', 'String=side by side'];

test('texts and rectangles of all posts are composed as the tool does', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    const options = [0, 1, 2, 3].flatMap((post) =>
        ALL_TEXTS.map((option) => `--Post${post}${option}`));
    options.push('--Post2Rectangle3On=1', '--Post2Osd3ColorType=1', '--Post2Osd3ColorFg=1',
                 '--Post2Osd3X=200', '--Post2Osd3Y=0', '--Post2Osd3W=300', '--Post2Osd3H=60',
                 '--Post3Rectangle3On=1', '--Post3Osd3ColorFg=2', '--Post3Osd3X=1180',
                 '--Post3Osd3Y=690', '--Post3Osd3W=300', '--Post3Osd3H=60');
    assert.equal(stage.osd('update', ...options).status, 0);
    for (const post of [0, 1, 2, 3])
        await stage.showsSnapshot(post);
    await stage.shot('texts');
    stage.setPost(2, '352x288'); // shown at its own size, so that guides are thin
    await stage.text('#post-2 .post-size', '352 × 288');
    await until(() => (stage.sim('state').stdout.match(/^2 .* yes /gm) ?? []).length === 4,
                'all OSDs are shown again');
    await stage.showsSnapshot(2);
    for (const guide of ['frames', 'overlaps', 'cells'])
        await stage.page.check(`#guide-${guide}`);
    await stage.showsSnapshot(2, '--guides');
    const cell = await stage.page.locator('#guide-cell').getAttribute('placeholder');
    assert.match(cell, /^\d+x\d+$/);
    await stage.shot('guides');
});

test('safe spaces and cells are marked as the tool does', async (t) => {
    const stage = await Stage.open(t);
    stage.setPost(0, '352x288');
    const file = path.join(stage.folder, 'safe.conf');
    writeFileSync(file, '[osd]\nOsdTVOutSafeSpaceUp=8\nOsdTVOutSafeSpaceDown=10\n' +
        'OsdTVOutSafeSpaceLeft=12\nOsdTVOutSafeSpaceRight=14\n');
    assert.equal(stage.osd('start', '-f', file, '-l', path.join(stage.folder, 'server.log'),
                           '--Post0Rectangle1On=1', '--Post0Osd1X=40', '--Post0Osd1Y=40',
                           '--Post0Osd1W=64', '--Post0Osd1H=48').status, 0);
    await stage.text('#post-0 .post-size', '352 × 288');
    await stage.page.check('#guide-frames');
    await stage.page.check('#guide-safe');
    await stage.showsSnapshot(0, '--guides');
    assert.equal(stage.osd('update', '--Post0DateOn=1', '--Post0TypeOn=1').status, 0);
    await stage.page.check('#guide-cells');
    const cell = await until(async () => {
        const proposal = await stage.page.getAttribute('#guide-cell', 'placeholder');
        return proposal !== 'none' && proposal;
    }, 'a proposal for the cell');
    await stage.page.check('#guide-overlaps');
    await stage.showsSnapshot(0, '--guides');
    await stage.showsSnapshot(0, '--guides', '--safe', '8,10,12,14', '--cell', cell);
    const look = () => stage.page.evaluate(() => document.querySelector('#canvas-0').toDataURL());
    const withCells = await look();
    await stage.page.fill('#guide-cell', '1x1x1');
    assert.equal(await stage.page.locator('#guide-cell').getAttribute('aria-invalid'), 'true');
    const withInvalid = await look();
    assert.notEqual(withInvalid, withCells);
    await stage.page.uncheck('#guide-cells');
    assert.equal(await look(), withInvalid);
});

test('guides are as thick on the page whatever has become of the picture since', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('update', '--Post1StringOn=1').status, 0);
    await stage.showsSnapshot(1);
    const look = () => stage.page.evaluate(() => document.querySelector('#canvas-1').toDataURL());
    const bare = await look();
    await stage.page.check('#guide-frames');
    const framed = await look();
    assert.notEqual(framed, bare);
    await stage.page.uncheck('#guide-frames');
    assert.equal(await look(), bare);

    await stage.click('#post-1 >> text=Pixels');
    await stage.page.check('#guide-frames');
    await stage.click('#zoom-close');
    await until(async () => await look() === framed, 'the frames are as thick behind Pixels');

    await stage.page.setViewportSize({width: 400, height: 800});
    await until(async () => ![bare, framed].includes(await look()), 'narrower, they are thicker');
});

test('a post thread is resized, closed and opened from the page', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.page.fill('#post-2-size', '352x288');
    await stage.click('#post-2 [type="submit"]');
    await stage.text('#post-2 .post-size', '352 × 288');
    await stage.showsSnapshot(2);
    assert.equal(await stage.page.inputValue('#post-2-size'), '');
    await stage.click('#post-2 button:text("Close")');
    await stage.text('#post-2 .empty', 'Post 2 has no thread.');
    await stage.text('#announcements', /Post 2 has no thread\./);
    await stage.shot('closed');
    await stage.page.fill('#post-2-size', 'huge');
    await stage.click('#post-2 [type="submit"]');
    await stage.page.locator('#post-2 .outcome').waitFor();
    assert.match(await stage.page.locator('#post-2 .outcome').textContent(), /huge/);
    await stage.page.fill('#post-2-size', '640x360');
    await stage.click('#post-2 [type="submit"]');
    await stage.text('#post-2 .post-size', '640 × 360');
    await stage.showsSnapshot(2);
});

test('another palette colours the pictures', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('update', '--Post0TypeOn=1').status, 0);
    await stage.click('#tab-palette');
    await stage.text('#palette-state', 'The built-in palette.');
    await stage.page.setInputFiles('#palette-load', {
        name: 'own', mimeType: 'text/plain', buffer: Buffer.from('3 10 200 30 128\n'),
    });
    await stage.text('#palette-state', 'A palette of its own.');
    await stage.showsSnapshot(0);
    await stage.page.locator('#palette-rows td:has(.swatch)').nth(3).hover();
    await stage.text('#palette-readout', /^3: red 10, green 200, blue 30, alpha 128/);
    await stage.page.setInputFiles('#palette-load', {
        name: 'bad', mimeType: 'text/plain', buffer: Buffer.from('3 10 200 30\n'),
    });
    await stage.text('#palette-outcome', /line 1: not INDEX RED GREEN BLUE ALPHA/);
    await stage.click('#palette-default');
    await stage.text('#palette-state', 'The built-in palette.');
    await stage.showsSnapshot(0);
});

// Gives the chosen colour of the palette other values.
async function setColor(stage, color, alpha) {
    await stage.page.fill('#palette-color', color);
    await stage.page.fill('#palette-alpha', alpha);
    await stage.click('#palette-form [type="submit"]');
}

test('a single colour is set, and given back what the loaded palette has', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('update', '--Post0TypeOn=1').status, 0);
    await stage.click('#tab-palette');
    await stage.text('#palette-state', 'The built-in palette.');
    const builtIn = stage.sim('palette').stdout;
    await stage.page.locator('#palette-rows td').nth(3).click();
    await stage.text('#palette-name', 'Colour 3');
    assert.equal(await stage.page.isDisabled('#palette-back'), true);
    await setColor(stage, '#0ac81e', '128');
    await stage.text('#palette-readout', /^3: red 10, green 200, blue 30, alpha 128/);
    await stage.text('#palette-state', 'A palette of its own.');
    assert.equal(stage.sim('palette').stdout, builtIn.replace(/^ *3 .*$/m, '  3  10 200  30 128'));
    await stage.showsSnapshot(0);
    await stage.click('#palette-back');
    await stage.text('#palette-state', 'The built-in palette.');
    assert.equal(stage.sim('palette').stdout, builtIn);
    await stage.page.setInputFiles('#palette-load', {
        name: 'own', mimeType: 'text/plain', buffer: Buffer.from('3 1 2 3 4\n5 6 7 8 9\n'),
    });
    await stage.text('#palette-readout', /^3: red 1, green 2, blue 3, alpha 4/);
    const own = stage.sim('palette').stdout;
    await setColor(stage, '#0ac81e', '256');
    await stage.text('#palette-outcome', 'Alpha is a number of 0 to 255.');
    await setColor(stage, '#0ac81e', '255');
    await stage.text('#palette-readout', /^3: red 10, /);
    await stage.click('#palette-back');
    await stage.text('#palette-readout', /^3: red 1, /);
    assert.equal(stage.sim('palette').stdout, own);
    const coming = stage.page.waitForEvent('download');
    await stage.click('#palette-save');
    const file = path.join(stage.folder, 'palette.txt');
    await (await coming).saveAs(file);
    assert.equal(stage.sim('palette', '--load', file).status, 0);
    assert.equal(stage.sim('palette').stdout, own);
});

test('without a palette there are no colours, and the pictures say so', async (t) => {
    const stage = await Stage.open(t);
    const file = path.join(stage.folder, 'palette');
    writeFileSync(file, '5 nonsense\n');
    await stage.page.reload();
    const why = /This picture is not up to date: No palette is known: .*line 1: not INDEX RED/;
    await stage.text('#post-0 .error', why);
    await stage.text('#announcements', new RegExp(`Post 0: ${why.source}`));
    assert.notEqual(stage.sim('snapshot', '0', path.join(stage.folder, 'a.png')).status, 0);
    assert.equal(await stage.page.locator('#canvas-0').evaluate((canvas) => canvas.getContext('2d')
        .getImageData(0, 0, canvas.width, canvas.height).data.some(Boolean)), false);
    const painted = (where) => stage.page.locator(`${where} .swatch[style*="background"]`).count();
    await stage.page.locator('#field-Post0Osd0ColorFg').waitFor({state: 'attached'});
    assert.equal(await painted('#parameter-fields'), 0);
    await stage.page.locator('#post-0').getByText('Pixels').click();
    await stage.text('#zoom-failure', why);
    const told = stage.page.locator('#zoom-probe .number');
    await until(async () => (await told.allTextContents()).every((text) => text === '—'), 'none');
    assert.equal(await painted('#zoom-probe'), 0);
    rmSync(file);
    await until(() => stage.page.locator('#zoom-failure').isHidden(), 'it is known');
    await stage.text('#zoom-probe table:first-child tr:first-child .number', /^\d+, \d+$/);
    assert.notEqual(await painted('#zoom-probe'), 0);
    assert.notEqual(await painted('#parameter-fields'), 0);
    await stage.page.keyboard.press('Escape');
    await stage.showsSnapshot(0);
});

test('no colour is set on a palette that is not known', async (t) => {
    const stage = await Stage.open(t);
    const file = path.join(stage.folder, 'palette');
    const spoilt = '3 1 2 3 4\n5 nonsense\n';
    writeFileSync(file, spoilt);
    await stage.page.reload();
    await stage.text('#palette-state', /line 2: not INDEX RED GREEN BLUE ALPHA/);
    await stage.click('#tab-palette');
    await stage.page.locator('#palette-rows td').nth(3).click();
    await stage.text('#palette-readout', '3: not known yet');
    for (const button of ['set', 'back', 'save'])
        assert.equal(await stage.page.isDisabled(`#palette-${button}`), true, button);
    await stage.page.fill('#palette-color', '#0ac81e');
    await stage.page.fill('#palette-alpha', '128');
    await stage.page.press('#palette-alpha', 'Enter');
    await stage.page.fill('#post-3-size', '320x240');
    await stage.click('#post-3 [type="submit"]');
    await stage.text('#commands', /^\S+ {2}\S+ \S+qm5sim post 3 (open|resize) 320x240$/);
    assert.equal(readFileSync(file, 'utf8'), spoilt);
    await stage.click('#palette-default');
    await stage.text('#palette-state', 'The built-in palette.');
    assert.equal(await stage.page.isDisabled('#palette-set'), false);
});

test('palette and parameters that got lost on their way are asked for again', async (t) => {
    const stage = await Stage.open(t);
    const spoil = (route) => route.abort('connectionreset');
    const addresses = ['**/api/palette', '**/api/parameters'];
    for (const address of addresses)
        await stage.page.route(address, spoil);
    await stage.page.reload();
    await stage.text('#palette-state', 'Not known yet.');
    await stage.text('#parameter-fields', 'Not known yet.');
    for (const address of addresses)
        await stage.page.unroute(address, spoil);
    await stage.text('#palette-state', 'The built-in palette.');
    await stage.page.locator('#field-Post0DateOn').waitFor();
});

test('a palette that comes late is dropped', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.click('#tab-palette');
    await stage.page.locator('#palette-rows td').nth(3).click();
    const load = (line) => {
        const file = path.join(stage.folder, 'own');
        writeFileSync(file, `${line}\n`);
        assert.equal(stage.sim('palette', '--load', file).status, 0);
    };
    const {held, release} = await stage.holdBack('GET', '**/api/palette');
    load('3 10 200 30 255');
    await held;
    load('3 200 10 30 255');
    await stage.text('#palette-readout', /^3: red 200, /);
    await release();
    assert.match(await stage.page.textContent('#palette-readout'), /^3: red 200, /);
});

test('colours that are set one soon after the other are all kept', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.click('#tab-palette');
    const {release} = await stage.holdBack('GET', '**/api/palette');
    const cells = stage.page.locator('#palette-rows td');
    await cells.nth(3).click();
    await setColor(stage, '#0ac81e', '128');
    await cells.nth(5).click();
    await setColor(stage, '#010203', '4');
    await stage.text('#palette-readout', /^5: red 1, green 2, blue 3, alpha 4 /);
    await release();
    assert.match(stage.sim('palette').stdout, /^ *3 +10 +200 +30 +128$[^]*^ *5 +1 +2 +3 +4$/m);
    await stage.click('#palette-back');
    await until(() => /^ *5 /m.test(stage.sim('palette').stdout) &&
        !/^ *5 +1 +2 +3 +4$/m.test(stage.sim('palette').stdout), 'it has its own again');
    assert.match(stage.sim('palette').stdout, /^ *3 +10 +200 +30 +128$/m);
});

test('a colour that is being typed stays while the page is hidden', async (t) => {
    const stage = await Stage.open(t);
    await stage.click('#tab-palette');
    await stage.page.fill('#palette-color', '#123456');
    await stage.page.fill('#palette-alpha', '77');
    await stage.turn(true);
    const read = stage.page.waitForResponse('**/api/palette');
    await stage.turn(false);
    await (await read).finished();
    stage.setPost(2, '352x288');
    await stage.text('#post-2 .post-size', '352 × 288');
    assert.equal(await stage.page.inputValue('#palette-color'), '#123456');
    assert.equal(await stage.page.inputValue('#palette-alpha'), '77');
});

test('a picture of the user comes below the OSDs', async (t) => {
    const stage = await Stage.open(t);
    stage.setPost(2, '64x36');
    await stage.startApplication();
    const frame = path.join(stage.folder, 'frame.png');
    assert.equal(stage.sim('snapshot', '2', '--guides', '--safe', '4,4,4,4', frame).status, 0);
    await stage.click('#tab-codec');
    await stage.page.selectOption('#frame-post', '2');
    await stage.text('#frame-state', 'The test pattern stands below.');
    await stage.page.setInputFiles('#frame-load', frame);
    await stage.text('#frame-outcome', 'Done.');
    await stage.text('#frame-state', 'A loaded picture of 64 × 36 stands below.');
    await stage.showsSnapshot(2, '--over', frame);
    stage.setPost(2, '72x36');
    await stage.text('#frame-state', /^A loaded picture of 64 × 36 is kept, but doesn’t fit: /);
    stage.setPost(2, '64x36');
    await stage.text('#frame-state', 'A loaded picture of 64 × 36 stands below.');
    await stage.page.selectOption('#frame-post', '1');
    await stage.page.setInputFiles('#frame-load', frame);
    await stage.text('#frame-outcome', /64x36/);
    await stage.page.selectOption('#frame-post', '2');
    await stage.click('#frame-default');
    await stage.showsSnapshot(2);
});

test('pixels tell position, colour and the index of each OSD', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('update', '--Post0Rectangle0On=1', '--Post0Osd0ColorFg=4',
                           '--Post0Osd0X=100', '--Post0Osd0Y=50', '--Post0Osd0W=64',
                           '--Post0Osd0H=20').status, 0);
    await stage.showsSnapshot(0);
    await stage.page.locator('#post-0').getByText('Pixels').click();
    const probe = stage.page.locator('#zoom-probe');
    await until(async () => /132, 60/.test(await probe.textContent()), 'the cursor is on the OSD');
    const told = await probe.locator('tr', {hasText: 'Rectangle 0'}).textContent();
    assert.match(told, /0 Rectangle 0\s*4\s*224, 32, 32, 255\s*32, 10/);
    assert.match(await probe.locator('tr', {hasText: 'Colour'}).first().textContent(), /#e02020/);
    for (const key of ['Shift+ArrowUp', 'ArrowUp', 'Shift+ArrowLeft', 'ArrowRight'])
        await stage.page.keyboard.press(key);
    await until(async () => /123, 49/.test(await probe.textContent()), 'the cursor has moved');
    assert.match(await probe.locator('tr', {hasText: 'Rectangle 0'}).textContent(), /—/);
    await stage.text('#announcements', /123, 49, #969628\./);
    for (let step = 0; step < 4; step++)
        await stage.page.keyboard.press('+');
    await stage.text('#zoom-scale', '12×');
    await stage.shot('pixels');
    await stage.page.keyboard.press('Escape');
    assert.equal(await stage.page.locator('#posts').isVisible(), true);
    assert.equal(await stage.page.evaluate(() => document.activeElement.textContent), 'Pixels');
});

test('pixels follow the pointer and the wheel', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.page.locator('#post-2').getByText('Pixels').click();
    const canvas = stage.page.locator('#zoom-canvas');
    await stage.text('#zoom-scale', '3×');
    const {x, y} = await canvas.boundingBox();
    await stage.page.mouse.move(x + 10, y + 10);
    const cell = stage.page.locator('#zoom-probe td').nth(1);
    const position = async () => (await cell.textContent()).split(', ').map(Number);
    const before = await until(async () => {
        const found = await position();
        return found[0] < 320 && found;
    }, 'the cursor follows');
    const isLeftToBrowser = await canvas.evaluate((target) => target.dispatchEvent(
        new WheelEvent('wheel', {ctrlKey: true, deltaY: -100, bubbles: true, cancelable: true})));
    assert.ok(isLeftToBrowser, 'with Ctrl the wheel is the browser’s');
    await stage.page.mouse.wheel(0, -100);
    await stage.text('#zoom-scale', '4×');
    const wheeled = await position();
    assert.ok(Math.abs(wheeled[0] - before[0]) <= 1, 'the pixel at the pointer stays');
    await stage.page.mouse.down();
    await stage.page.mouse.move(x + 50, y + 10);
    await stage.page.mouse.up();
    await stage.page.mouse.move(x + 10, y + 10);
    await until(async () => (await position())[0] === wheeled[0] - 10, 'the picture was dragged');
});

test('pixels follow a post that gets smaller, and say when there is none', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.page.locator('#post-1').getByText('Pixels').click();
    const position = '#zoom-probe table:first-child tr:first-child .number';
    const press = (key, times) => stage.page.evaluate(([name, count]) => {
        for (let at = 0; at < count; at++)
            document.activeElement.dispatchEvent(new KeyboardEvent('keydown', {
                key: name, shiftKey: true, bubbles: true,
            }));
    }, [key, times]);
    await press('ArrowRight', 100);
    await press('ArrowDown', 60);
    const seen = () => stage.page.evaluate(() => {
        const {data} = document.querySelector('#zoom-canvas').getContext('2d')
            .getImageData(0, 0, 200, 200);
        return data.filter((_, at) => at % 4 === 3 && data[at] === 255).length;
    });
    await stage.text(position, '1919, 1079');
    assert.equal(await seen(), 200 * 200);
    stage.setPost(1, '640x360');
    await stage.text('#zoom-heading', /: 640 × 360$/);
    await stage.text(position, '639, 359');
    await until(async () => await seen() === 200 * 200, 'the picture is in view');
    stage.setPost(1, 'closed');
    await stage.text('#zoom-empty', 'Post 1 has no thread.');
    await stage.shot('pixels-closed');
    assert.equal(stage.sim('post', '1', 'open', '640x360').status, 0);
    await until(() => stage.page.locator('#zoom-empty').isHidden(), 'it is there again');
});

test('a tap puts the cursor where the finger was', async (t) => {
    const stage = await Stage.open(t, {hasTouch: true, viewport: {width: 360, height: 740}});
    await stage.startApplication();
    await stage.page.locator('#post-2').getByText('Pixels').tap();
    const cell = stage.page.locator('#zoom-probe td').nth(1);
    const position = async () => (await cell.textContent()).split(', ').map(Number);
    const first = await until(async () => (await cell.textContent() !== '—') && position(), 'one');
    await stage.page.locator('#zoom-canvas').scrollIntoViewIfNeeded();
    const {x, y, width, height} = await stage.page.locator('#zoom-canvas').boundingBox();
    const [tapX, tapY] = [Math.round(x + width / 2) + 30, Math.round(y + height / 2) - 60];
    await stage.page.touchscreen.tap(tapX, tapY);
    await until(async () => (await position())[0] !== first[0], 'the cursor has moved');
    const found = await position();
    // Three pixels of the screen are one of the picture, whose cursor was in the middle.
    assert.ok(Math.abs(found[0] - first[0] - 10) <= 1, `${first} to ${found}`);
    assert.ok(Math.abs(found[1] - first[1] + 20) <= 1, `${first} to ${found}`);
});

test('a picture that cannot be made is told', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    await stage.page.locator('#post-3').getByText('Pixels').click();
    stage.setPost(3, '9000x9000');
    const why = /This picture is not up to date: .*9000x9000 pixels is too large/;
    await stage.text('#zoom-failure', why);
    assert.equal(await stage.page.locator('#zoom-failure').isVisible(), true);
    await stage.text('#announcements', new RegExp(`Post 3: ${why.source}`));
    await stage.checkAccessibility('pixels that are not up to date');
    await stage.page.keyboard.press('Escape');
    await stage.text('#post-3 .error', why);
    await stage.page.check('#guide-frames'); // which paints it again
    stage.setPost(2, 'closed');
    await stage.text('#announcements', 'Post 2 has no thread.');
    stage.setPost(3, '640x480');
    await until(() => stage.page.locator('#post-3 .error').isHidden(), 'it is there');
    await stage.page.uncheck('#guide-frames');
    await stage.showsSnapshot(3);
});

test('a state that makes no sense is told in place of its pictures', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('stop').status, 0);
    await stage.text('#text-application', 'No server runs');
    const file = path.join(stage.folder, 'state');
    const good = readFileSync(file);
    writeFileSync(file, 'nonsense');
    await stage.text('#notices', /The state of the codec cannot be shown: .*\/state: /);
    await stage.text('#announcements', /The state of the codec cannot be shown: /);
    await stage.text('#post-2 .empty', 'What is shown cannot be told.');
    await stage.text('#post-2 .post-size', 'not known');
    await stage.text('#slots-empty', 'Not known.');
    assert.equal(await stage.page.locator('canvas:visible').count(), 0);
    await stage.checkAccessibility('a state that makes no sense');
    writeFileSync(file, good);
    await stage.text('#notices', /^No server runs\./);
    await stage.text('#post-2 .post-size', '640 × 360');
});

test('what was set before the page is told as that', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('update', '--Post0TypeOn=1').status, 0);
    const last = '#slots-rows tr:first-child [data-column="last"]';
    await stage.text(last, /^\d\d:\d\d:\d\d\.\d\d\d$/);
    await stage.restartServer();
    await stage.text(last, 'before this page');
    assert.equal(stage.osd('update', '--Post0TypeOn=0').status, 0);
    assert.equal(stage.osd('update', '--Post0TypeOn=1').status, 0);
    await stage.text(last, /^\d\d:\d\d:\d\d\.\d\d\d$/);
});

test('OSDs stay in the picture while they are fetched anew', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('update', '--Post0TypeOn=1').status, 0);
    await stage.showsSnapshot(0);
    await stage.page.evaluate(() => {
        globalThis.painted = [];
        const put = CanvasRenderingContext2D.prototype.putImageData;
        CanvasRenderingContext2D.prototype.putImageData = function (...words) {
            put.apply(this, words);
            if (this.canvas.id === 'canvas-0')
                globalThis.painted.push(this.canvas.toDataURL() === globalThis.before);
        };
        globalThis.before = document.querySelector('#canvas-0').toDataURL();
    });
    await stage.turn(true);
    const {held, release} = await stage.holdBack('GET', '**/api/posts/0/osds/*');
    const others = ['palette', 'parameters'].map((name) =>
        stage.page.waitForResponse(`**/api/${name}`).then((response) => response.finished()));
    await stage.turn(false);
    await Promise.all([held, ...others]);
    const painted = () => stage.page.evaluate(() => globalThis.painted);
    await until(async () => (await painted()).length > 0, 'it is painted with the palette');
    await release();
    await stage.showsSnapshot(0);
    assert.ok((await painted()).every(Boolean), 'all paints show the same');
});

test('only what has changed is fetched, and nothing without a change', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    assert.equal(stage.osd('update', '--Post0TimeOn=1', '--Post0TypeOn=1').status, 0);
    const sets = () => stage.page.evaluate(() => Number(document.querySelector(
        '#slots-rows tr:last-child [data-column="sets"]')?.textContent));
    await until(async () => await sets() >= 2, 'the time goes on');
    await stage.showsSnapshot(2);
    const asked = [];
    stage.page.on('request', (request) => asked.push(new URL(request.url()).pathname));
    const first = await sets();
    await until(async () => await sets() >= first + 3, 'the time goes on');
    assert.ok(asked.length >= 3, 'the time was fetched');
    assert.deepEqual([...new Set(asked)], ['/api/posts/0/osds/3']);
    assert.equal(stage.osd('update', '--Post0TimeOn=0').status, 0);
    await stage.showsSnapshot(0);
});

test('pixels that got lost on their way are told and fetched again', async (t) => {
    const stage = await Stage.open(t);
    await stage.startApplication();
    let lost = 0;
    await stage.page.route('**/api/posts/0/osds/*', (route) =>
        (lost++ === 0 ? route.abort('connectionreset') : route.continue()));
    assert.equal(stage.osd('update', '--Post0TypeOn=1').status, 0);
    await stage.text('#post-0 .error',
                     'This picture is not up to date: The server does not answer.');
    await stage.showsSnapshot(0);
    await until(() => stage.page.locator('#post-0 .error').isHidden(), 'it is there');
    lost = 0;
    await stage.page.reload();
    await until(() => lost > 1, 'the first of a new page was lost, too');
    await stage.showsSnapshot(0);
});

test('what is set is painted within a quarter of a second', async (t) => {
    const stage = await Stage.open(t);
    stage.sim('setting', 'record', '1');
    await stage.startApplication();
    await stage.page.evaluate(() => {
        globalThis.paints = [];
        const put = CanvasRenderingContext2D.prototype.putImageData;
        CanvasRenderingContext2D.prototype.putImageData = function (...words) {
            put.apply(this, words);
            if (this.canvas.id === 'canvas-1')
                globalThis.paints.push(Date.now());
        };
    });
    assert.equal(stage.osd('update', '--Post1TimeOn=1').status, 0);
    // A busy machine keeps a picture waiting now and then, but not each time for a minute.
    await until(async () => {
        const paints = await stage.page.evaluate(() => globalThis.paints);
        const late = stage.sim('calls').stdout.trim().split('\n').map((line) => JSON.parse(line))
            .filter(({call}) => call === 'set_osd').map(({time}) => Date.parse(time))
            .filter((set) => set <= paints.at(-1)).slice(-8)
            .map((set) => paints.find((paint) => paint >= set) - set)
            .sort((one, other) => one - other);
        return late.length === 8 && late[4] < 250;
    }, 'the middle one of eight pictures comes in a quarter of a second');
});
