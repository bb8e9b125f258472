// The parameters of the catalogue as a person meets them: names, ranges, what was typed and not yet
// carried out, and which field an error of the application belongs to.

const COMMON = {
    OsdFontFile: 'Font file',
    OsdDateFgColor: 'Date',
    OsdDateBgColor: 'Date background',
    OsdTimeFgColor: 'Time',
    OsdTimeBgColor: 'Time background',
    OsdTypeFgColor: 'Label',
    OsdTypeBgColor: 'Label background',
    OsdStringBgColor: 'String background',
    OsdTVOutSafeSpaceUp: 'Up',
    OsdTVOutSafeSpaceDown: 'Down',
    OsdTVOutSafeSpaceLeft: 'Left',
    OsdTVOutSafeSpaceRight: 'Right',
};

// Of a post's keys, what is behind PostX, and behind OsdY or RectangleY.
const OF_POST = {
    DateOn: 'Date',
    TimeOn: 'Time',
    TypeOn: 'Label',
    StringOn: 'User string',
    String: 'Text',
    StringColor: 'Text colour',
};
const OF_RECTANGLE = {
    On: 'Shown',
    ColorType: 'Colour type',
    ColorFg: 'Colour',
    ColorBg: 'Background',
    X: 'X',
    Y: 'Y',
    W: 'Width',
    H: 'Height',
};

// What a key is called in its group; the key itself if there is no name for it.
export function nameOf(key) {
    const ofPost = /^Post\d(.*)$/.exec(key)?.[1];
    if (ofPost === undefined)
        return COMMON[key] ?? key;
    const ofRectangle = /^(?:Osd|Rectangle)\d(.*)$/.exec(ofPost)?.[1];
    return (ofRectangle === undefined ? OF_POST[ofPost] : OF_RECTANGLE[ofRectangle]) ?? key;
}

// Is the value an index into the palette?
export function isColor(row) {
    return row.kind === 'number' && /Color(Fg|Bg)?$/.test(row.key);
}

export function isSwitch(row) {
    return row.kind === 'number' && row.limit === 1;
}

// Safe spaces and font: a running server takes them over only where it opens an OSD anew.
export function needsRestart(key) {
    return key === 'OsdFontFile' || key.startsWith('OsdTVOutSafeSpace');
}

export function rangeOf(row) {
    switch (row.kind) {
    case 'number':
        return row.limit === 1 ? '0, 1' : `0 to ${row.limit}`;
    case 'string':
        return `up to ${row.limit} bytes`;
    default:
        return 'a path';
    }
}

export function defaultOf(row) {
    if (row.default !== '')
        return row.default;
    return row.kind === 'path' ? 'none' : 'empty';
}

export function byteLength(text) {
    return new TextEncoder().encode(text).length;
}

// ---- Errors ------------------------------------------------------------------------------------

// The messages of the application's standard error, by the key that they name; those that name none
// stand under ''. A message is what is behind the function word and before the place.
export function errorsByKey(text) {
    const errors = new Map();
    for (const line of text.split('\n')) {
        const found = /^ERR:#qm5osd:\[[^\]]*\]=(.*)\(\w+\)$/.exec(line.trimEnd());
        const message = found ? found[1] : line.trim();
        if (message === '')
            continue;
        const key = /^invalid (?:value '.*' of key (\w+)|key '(\w+)')$/.exec(message);
        const name = key ? key[1] ?? key[2] : '';
        errors.set(name, [...(errors.get(name) ?? []), message]);
    }
    return errors;
}

// ---- What was typed ----------------------------------------------------------------------------

// Values that were typed and aren't carried out yet, by key. Nothing but the user changes them, and
// a command that has carried them out.
export class Draft {
    #typed = new Map();

    type(key, value, inForce) {
        if (value === inForce)
            this.#typed.delete(key);
        else
            this.#typed.set(key, value);
    }

    has(key) {
        return this.#typed.has(key);
    }

    get(key) {
        return this.#typed.get(key);
    }

    discard(key) {
        this.#typed.delete(key);
    }

    discardAll() {
        this.#typed.clear();
    }

    // Forgets what a command has carried out, but for what was typed over while it ran.
    carriedOut(pairs) {
        for (const [key, value] of pairs) {
            if (this.#typed.get(key) === value)
                this.#typed.delete(key);
        }
    }

    // Pairs of key and value in the order of the catalogue.
    changes(rows) {
        return rows.filter((row) => this.#typed.has(row.key))
            .map((row) => [row.key, this.#typed.get(row.key)]);
    }
}
