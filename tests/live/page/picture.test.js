// How the page composes a picture, by hand-made pixels.

import assert from 'node:assert/strict';
import {test} from 'node:test';

import {
    areaOf, compose, drawGuides, newPicture, packPalette, probe, safeArea,
} from '../../../sim/live/page/picture.js';

const PALETTE = packPalette([
    [0, 0, 0, 0], [0, 0, 0, 160], [255, 255, 255, 255], [200, 100, 50, 128],
    ...Array(252).fill([9, 9, 9, 255]),
]);

function filled(width, height, color) {
    const picture = newPicture(width, height);
    for (let at = 0; at < picture.rgba.length; at += 4)
        picture.rgba.set(color, at);
    return picture;
}

function layer(number, x, y, linePixels, rows) {
    return {
        number, x, y, shown: true, width: linePixels, height: rows.length, line_pixels: linePixels,
        indices: Uint8Array.from(rows.flat()),
    };
}

function pixel(picture, x, y) {
    const at = (y * picture.width + x) * 4;
    return [...picture.rgba.subarray(at, at + 4)];
}

function composed(background, layers) {
    const picture = newPicture(background.width, background.height);
    compose(picture, background, layers, PALETTE);
    return picture;
}

test('each colour is mixed in whole numbers, rounded down', () => {
    const picture = composed(filled(4, 1, [101, 102, 103]), [layer(0, 0, 0, 4, [[0, 1, 2, 3]])]);
    assert.deepEqual(pixel(picture, 0, 0), [101, 102, 103, 255]);
    // 101 * 95 / 255 = 37.6, 102 * 95 / 255 = 38.0, 103 * 95 / 255 = 38.3
    assert.deepEqual(pixel(picture, 1, 0), [37, 38, 38, 255]);
    assert.deepEqual(pixel(picture, 2, 0), [255, 255, 255, 255]);
    // (200 * 128 + 101 * 127) / 255 = 150.6 and so on
    assert.deepEqual(pixel(picture, 3, 0), [150, 100, 76, 255]);
});

test('a later OSD lies over an earlier one, in whatever order they come', () => {
    const low = layer(0, 0, 0, 2, [[2, 2]]);
    const high = layer(3, 1, 0, 1, [[3]]);
    for (const layers of [[low, high], [high, low]]) {
        const picture = composed(filled(2, 1, [0, 0, 0]), layers);
        assert.deepEqual(pixel(picture, 0, 0), [255, 255, 255, 255]);
        assert.deepEqual(pixel(picture, 1, 0), [227, 177, 152, 255]);
    }
});

test('what leads past the edges is not shown, and does not come in on the other side', () => {
    const rows = [[2, 2, 2], [2, 2, 2]];
    const picture = composed(filled(4, 3, [1, 1, 1]), [layer(0, 3, 2, 3, rows)]);
    const lit = [];
    for (let y = 0; y < 3; y++) {
        for (let x = 0; x < 4; x++) {
            if (pixel(picture, x, y)[0] === 255)
                lit.push([x, y]);
        }
    }
    assert.deepEqual(lit, [[3, 2]]);
});

test('an OSD outside the picture changes nothing', () => {
    const background = filled(4, 3, [1, 2, 3]);
    const picture = composed(background, [layer(0, 65535, 65535, 2, [[2, 2]])]);
    assert.deepEqual(picture.rgba, background.rgba);
});

test('only the area asked for is made anew', () => {
    const background = filled(4, 1, [10, 10, 10]);
    const picture = newPicture(4, 1);
    const area = {left: 1, top: 0, right: 3, bottom: 1};
    compose(picture, background, [layer(0, 0, 0, 4, [[2, 2, 0, 2]])], PALETTE, area);
    const reds = [0, 1, 2, 3].map((x) => pixel(picture, x, 0)[0]);
    assert.deepEqual(reds, [0, 255, 10, 0]);
});

test('an area beyond the picture is cut to it', () => {
    const background = filled(2, 1, [10, 10, 10]);
    const picture = newPicture(2, 1);
    compose(picture, background, [], PALETTE, {left: 1, top: 0, right: 99, bottom: 99});
    assert.deepEqual([pixel(picture, 0, 0)[0], pixel(picture, 1, 0)[0]], [0, 10]);
    compose(picture, background, [], PALETTE, {left: 50, top: 0, right: 99, bottom: 99});
    assert.deepEqual([pixel(picture, 0, 0)[0], pixel(picture, 1, 0)[0]], [0, 10]);
});

test('a pixel tells its colour, the one below, and the index of each OSD there', () => {
    const background = filled(4, 2, [10, 20, 30]);
    const layers = [layer(0, 1, 0, 2, [[1, 2], [0, 0]]), layer(2, 2, 0, 1, [[3]])];
    const picture = composed(background, layers);
    const found = probe(picture, background, layers, PALETTE, 2, 0);
    assert.deepEqual(found, {
        x: 2, y: 0, color: [227, 177, 152], below: [10, 20, 30],
        osds: [
            {index: 2, color: [255, 255, 255, 255], column: 1, line: 0}, null,
            {index: 3, color: [200, 100, 50, 128], column: 0, line: 0}, null,
        ],
    });
    assert.equal(probe(picture, background, layers, PALETTE, 2, 1).osds[0].index, 0);
    assert.equal(probe(picture, background, layers, PALETTE, 4, 0), null);
    assert.equal(probe(picture, background, layers, PALETTE, 0, -1), null);
});

// ---- Guides ------------------------------------------------------------------------------------

const NO_GUIDES = {frames: false, overlaps: false, safe: null, cell: null};

// The marks as characters: the OSD's digit, S for the safe spaces, g for a cell's edge.
function marks(picture) {
    const names = new Map([
        ['255,64,64', '0'], ['0,255,0', '1'], ['64,128,255', '2'], ['255,255,0', '3'],
        ['255,0,255', 'S'], ['0,0,0', '.'],
    ]);
    return Array.from({length: picture.height}, (_, y) => Array.from({length: picture.width},
        (_, x) => names.get(pixel(picture, x, y).slice(0, 3).join()) ?? 'g').join(''));
}

test('frames are the outermost pixels of the memory, cut at the edges', () => {
    const picture = newPicture(6, 4);
    const osds = [layer(1, 1, 1, 3, [[0, 0, 0], [0, 0, 0], [0, 0, 0]]),
        {...layer(2, 0, 0, 6, [[0, 0, 0, 0, 0, 0]]), shown: false},
        layer(3, 5, 3, 4, [[0, 0, 0, 0]])];
    drawGuides(picture, osds, {...NO_GUIDES, frames: true});
    assert.deepEqual(marks(picture), ['......', '.111..', '.1.1..', '.111.3']);
});

test('overlaps are hatched with the diagonals of both', () => {
    const picture = newPicture(20, 1);
    const row = Array(20).fill(0);
    drawGuides(picture, [layer(0, 0, 0, 20, [row]), layer(2, 4, 0, 20, [row])],
               {...NO_GUIDES, overlaps: true});
    assert.deepEqual(marks(picture), ['........2.......0...']);
});

test('the safe spaces are framed, and none that leave nothing', () => {
    const picture = newPicture(6, 4);
    drawGuides(picture, [], {...NO_GUIDES, safe: {up: 1, down: 0, left: 1, right: 2}});
    assert.deepEqual(marks(picture), ['......', '.SSS..', '.S.S..', '.SSS..']);
    const other = newPicture(6, 4);
    drawGuides(other, [], {...NO_GUIDES, safe: {up: 0, down: 0, left: 4, right: 2}});
    assert.deepEqual(marks(other), ['......', '......', '......', '......']);
    assert.deepEqual(safeArea(other, {up: 0, down: 0, left: 4, right: 2}),
                     {left: 4, top: 0, right: 4, bottom: 4});
});

test('cells divide only an OSD that is a row of them', () => {
    const picture = newPicture(8, 2);
    const two = [[0, 0, 0, 0, 0, 0, 0], [0, 0, 0, 0, 0, 0, 0]];
    const row = {...layer(1, 0, 0, 7, two), width: 6};
    drawGuides(picture, [row], {...NO_GUIDES, cell: {width: 2, height: 2}});
    assert.deepEqual(marks(picture), ['..g.g.g.', '..g.g.g.']);
    assert.deepEqual(pixel(picture, 2, 0), [0, 128, 0, 255]);
    const other = newPicture(8, 2);
    drawGuides(other, [row], {...NO_GUIDES, cell: {width: 4, height: 2}});
    assert.deepEqual(marks(other), ['........', '........']);
});

test('thick frames grow inwards and never beyond the area', () => {
    const picture = newPicture(7, 3);
    drawGuides(picture, [layer(0, 1, 0, 5, Array(3).fill([0, 0, 0, 0, 0]))],
               {...NO_GUIDES, frames: true}, 2);
    assert.deepEqual(marks(picture), ['.00000.', '.00000.', '.00000.']);
});

test('the area of an OSD has all pixels of its lines', () => {
    assert.deepEqual(areaOf({...layer(0, 3, 4, 8, [[], []]), width: 5}),
                     {left: 3, top: 4, right: 11, bottom: 6});
});
