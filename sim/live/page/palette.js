// Palettes as bytes, four for each colour, and as files.

export function isSamePalette(one, other) {
    return one.length === other.length && one.every((byte, at) => byte === other[at]);
}

// A copy in which an index has another colour, [red, green, blue, alpha].
export function withColor(palette, index, color) {
    const changed = palette.slice();
    changed.set(color, index * 4);
    return changed;
}

export function paletteFile(palette) {
    const lines = Array.from({length: palette.length / 4}, (_, index) =>
        [index, ...palette.subarray(index * 4, index * 4 + 4)].join(' '));
    return [...lines, ''].join('\n');
}

// A colour of `#rrggbb` and an alpha as it was typed; null if that is no number of 0 to 255.
export function parseColor(code, alpha) {
    const opacity = /^\s*\d{1,3}\s*$/.test(alpha) ? Number(alpha) : NaN;
    if (!(opacity <= 255))
        return null;
    const parts = [1, 3, 5].map((at) => parseInt(code.slice(at, at + 2), 16));
    return [...parts, opacity];
}
