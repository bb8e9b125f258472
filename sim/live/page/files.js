// Files that the user chooses for the page, and such as the page gives to the user.

import {element} from './dom.js';

// A body of a request holds so many bytes; the server cuts off who sends more.
export const LONGEST_PALETTE = 64 * 1024;
export const LONGEST_FRAME = 16 * 1024 * 1024;
export const LONGEST_PARAMETERS = 700 * 1024; // which base64 makes a third longer

// Why a file of this size can't be sent; '' if it can.
export function sizeRefusal({name, size}, longest) {
    return size <= longest ? '' : `${name}: it has ${size} bytes, of ${longest} at most.`;
}

// Hands over the bytes of a chosen file, once; lets the same file be chosen again. `refuse` is told
// why one can't be taken.
export function onFile(input, longest, take, refuse) {
    input.addEventListener('change', async () => {
        const [file] = input.files;
        input.value = '';
        if (!file)
            return;
        const why = sizeRefusal(file, longest);
        const bytes = why === '' ? await file.arrayBuffer().catch(() => null) : null;
        if (bytes)
            take(file.name, new Uint8Array(bytes));
        else
            refuse(why || `${file.name}: it cannot be read.`);
    });
}

// Has the browser save a Blob under a name.
export function download(blob, name) {
    const url = URL.createObjectURL(blob);
    element('a', {href: url, download: name}).click();
    setTimeout(() => URL.revokeObjectURL(url), 1000);
}

export function toBase64(bytes) {
    return btoa(Array.from(bytes, (byte) => String.fromCharCode(byte)).join(''));
}
