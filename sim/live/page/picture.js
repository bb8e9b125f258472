// Composes what a post shows, pixel by pixel as `qm5sim snapshot` does, so that what the page shows
// and a saved picture never differ. Pure computing: no document is needed.
//
// A picture is {width, height, rgba}, four bytes a pixel, alpha always 255. A layer is an OSD of
// the state with its `indices`, a byte a pixel of its whole lines. A palette is 256 * 4 bytes.
// An area is {left, top, right, bottom}; right and bottom are the first ones behind it.

export const OSDS = 4;

export function newPicture(width, height) {
    const rgba = new Uint8ClampedArray(width * height * 4);
    for (let at = 3; at < rgba.length; at += 4)
        rgba[at] = 255;
    return {width, height, rgba};
}

export function packPalette(colors) {
    return Uint8Array.from(colors.flat());
}

// ---- Areas -------------------------------------------------------------------------------------

export function commonArea(one, other) {
    return {
        left: Math.max(one.left, other.left),
        top: Math.max(one.top, other.top),
        right: Math.min(one.right, other.right),
        bottom: Math.min(one.bottom, other.bottom),
    };
}

export function isEmpty(area) {
    return area.left >= area.right || area.top >= area.bottom;
}

export function wholeArea(picture) {
    return {left: 0, top: 0, right: picture.width, bottom: picture.height};
}

// What an OSD takes of the post's picture and beyond, with all pixels of its lines.
export function areaOf(osd) {
    return {left: osd.x, top: osd.y, right: osd.x + osd.line_pixels, bottom: osd.y + osd.height};
}

// ---- Composing ---------------------------------------------------------------------------------

// Whole numbers, rounded down: the codec's way, and that of qm5sim.
function mix(below, above, alpha) {
    return ((above * alpha + below * (255 - alpha)) / 255) | 0;
}

// Lays a colour, four bytes of `colors`, over the pixel at a byte of the picture.
function blendAt(rgba, at, colors, color) {
    const alpha = colors[color + 3];
    if (alpha === 0)
        return;
    rgba[at] = mix(rgba[at], colors[color], alpha);
    rgba[at + 1] = mix(rgba[at + 1], colors[color + 1], alpha);
    rgba[at + 2] = mix(rgba[at + 2], colors[color + 2], alpha);
}

function copyArea(target, source, area) {
    for (let y = area.top; y < area.bottom; y++) {
        const from = (y * source.width + area.left) * 4;
        target.rgba.set(source.rgba.subarray(from, from + (area.right - area.left) * 4), from);
    }
}

function layOver(picture, layer, palette, area) {
    const seen = commonArea(area, areaOf(layer));
    for (let y = seen.top; y < seen.bottom; y++) {
        let from = (y - layer.y) * layer.line_pixels + seen.left - layer.x;
        let at = (y * picture.width + seen.left) * 4;
        for (let x = seen.left; x < seen.right; x++, at += 4)
            blendAt(picture.rgba, at, palette, layer.indices[from++] * 4);
    }
}

// Makes `picture` anew within the area: the background, and over it the layers in the order of
// their numbers. What leads past the picture's edges isn't shown.
export function compose(picture, background, layers, palette, area = wholeArea(picture)) {
    const seen = commonArea(area, wholeArea(picture));
    if (isEmpty(seen))
        return;
    copyArea(picture, background, seen);
    for (const layer of [...layers].sort((one, other) => one.number - other.number))
        layOver(picture, layer, palette, seen);
}

// ---- Looking at one pixel ----------------------------------------------------------------------

function colorAt(picture, x, y) {
    const at = (y * picture.width + x) * 4;
    return [...picture.rgba.subarray(at, at + 3)];
}

function look(layer, palette, x, y) {
    const area = areaOf(layer);
    if (x < area.left || x >= area.right || y < area.top || y >= area.bottom)
        return null;
    const column = x - layer.x;
    const line = y - layer.y;
    const index = layer.indices[line * layer.line_pixels + column];
    return {index, color: [...palette.subarray(index * 4, index * 4 + 4)], column, line};
}

// What stands at a pixel: the colour shown, the background's, and of each layer that covers it the
// palette index with its colour and the place in the OSD's own memory. Null outside the picture.
export function probe(picture, background, layers, palette, x, y) {
    if (x < 0 || y < 0 || x >= picture.width || y >= picture.height)
        return null;
    const osds = Array(OSDS).fill(null);
    for (const layer of layers)
        osds[layer.number] = look(layer, palette, x, y);
    return {x, y, color: colorAt(picture, x, y), below: colorAt(background, x, y), osds};
}

// ---- Guides ------------------------------------------------------------------------------------

const GUIDE_COLORS = Uint8Array.from([
    255, 64, 64, 255, // OSD 0
    0, 255, 0, 255,
    64, 128, 255, 255,
    255, 255, 0, 255,
    255, 0, 255, 255, // the safe spaces
    255, 64, 64, 128, // cells of OSD 0
    0, 255, 0, 128,
    64, 128, 255, 128,
    255, 255, 0, 128,
]);
const SAFE = OSDS;
const GRID = SAFE + 1;
const HATCH_PITCH = 16;
const HATCH_STEP = HATCH_PITCH / OSDS; // from one OSD's diagonals to the next's

function fill(picture, area, color) {
    const seen = commonArea(area, wholeArea(picture));
    for (let y = seen.top; y < seen.bottom; y++) {
        for (let x = seen.left; x < seen.right; x++)
            blendAt(picture.rgba, (y * picture.width + x) * 4, GUIDE_COLORS, color * 4);
    }
}

// The frame is made of the area's own outermost pixels.
function drawFrame(picture, area, color, thick) {
    if (isEmpty(area))
        return;
    const {left, top, right, bottom} = area;
    const innerTop = Math.min(top + thick, bottom);
    const innerBottom = Math.max(bottom - thick, innerTop);
    fill(picture, {left, top, right, bottom: innerTop}, color);
    fill(picture, {left, top: innerBottom, right, bottom}, color);
    const sides = {top: innerTop, bottom: innerBottom};
    const innerLeft = Math.min(left + thick, right);
    fill(picture, {...sides, left, right: innerLeft}, color);
    fill(picture, {...sides, left: Math.max(right - thick, innerLeft), right}, color);
}

// What the safe spaces leave of a picture; may be empty.
export function safeArea(picture, safe) {
    return {
        left: safe.left,
        top: safe.up,
        right: picture.width - safe.right,
        bottom: picture.height - safe.down,
    };
}

// The first column of each cell but the first, and of what is behind the last.
function drawCells(picture, osd, cell, thick) {
    if (osd.height !== cell.height || osd.width % cell.width !== 0)
        return;
    const area = areaOf(osd);
    for (let x = cell.width; x <= osd.width; x += cell.width) {
        const column = {...area, left: area.left + x, right: area.left + x + thick};
        fill(picture, commonArea(area, column), GRID + osd.number);
    }
}

function hatch(picture, area, number, thick) {
    const seen = commonArea(area, wholeArea(picture));
    const first = number * HATCH_STEP * thick;
    for (let y = seen.top; y < seen.bottom; y++) {
        for (let x = seen.left; x < seen.right; x++) {
            const place = (x + y) % (HATCH_PITCH * thick);
            if (place >= first && place < first + thick)
                blendAt(picture.rgba, (y * picture.width + x) * 4, GUIDE_COLORS, number * 4);
        }
    }
}

function hatchOverlaps(picture, osds, thick) {
    for (const one of osds) {
        for (const other of osds) {
            if (one !== other)
                hatch(picture, commonArea(areaOf(one), areaOf(other)), one.number, thick);
        }
    }
}

// Marks where the shown OSDs are, with the looks of `qm5sim snapshot --guides`. `guides` says which
// marks: {frames, overlaps, safe: {up, down, left, right} | null, cell: {width, height} | null}.
// `thick` is the width of the lines in pixels; more than 1 for a picture that is seen smaller.
export function drawGuides(picture, osds, guides, thick = 1) {
    const shown = osds.filter((osd) => osd.shown);
    if (guides.safe)
        drawFrame(picture, safeArea(picture, guides.safe), SAFE, thick);
    if (guides.cell)
        shown.forEach((osd) => drawCells(picture, osd, guides.cell, thick));
    if (guides.overlaps)
        hatchOverlaps(picture, shown, thick);
    if (guides.frames)
        shown.forEach((osd) => drawFrame(picture, areaOf(osd), osd.number, thick));
}
