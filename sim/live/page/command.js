// Commands as a POSIX shell takes them, and parameter files: what the page shows for copying.

// A word as it stands if the shell takes it so, or in quotes. A first word with a `=` would be an
// assignment; in an option it means nothing.
export function quote(word) {
    const isPlain = /^(-[A-Za-z0-9_@%+=:,./-]*|[A-Za-z0-9_@%+:,./-]+)$/.test(word);
    return isPlain ? word : `'${word.replaceAll("'", `'\\''`)}'`;
}

export function commandLine(words) {
    return words.map(quote).join(' ');
}

// The text of a parameter file with these pairs of key and value. An empty value in a file leaves
// the one in force.
export function parameterFile(pairs) {
    return ['[osd]', ...pairs.map(([key, value]) => `${key}=${value}`), ''].join('\n');
}
