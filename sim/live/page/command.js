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
// the one in force, so it says nothing.
export function parameterFile(pairs) {
    return ['[osd]', ...pairs.map(([key, value]) => `${key}=${value}`), ''].join('\n');
}

// How changes, pairs of key and value, are carried out: those that are options as options, the rest
// through a file. `isOption` tells which.
export function planChanges(pairs, isOption) {
    const options = pairs.filter(([key]) => isOption(key));
    const others = pairs.filter(([key]) => !isOption(key));
    return {parameters: options, file: others.length > 0 ? parameterFile(others) : undefined};
}

// The command of a plan, with the name under which its file would be saved.
export function planCommand(name, plan, fileName = 'changes.conf') {
    const words = ['qm5osd', name];
    if (plan.file !== undefined)
        words.push('-f', fileName);
    for (const [key, value] of plan.parameters)
        words.push(`--${key}=${value}`);
    return commandLine(words);
}

// What a `restart` needs for keeping the parameters in force, with some of them changed: it begins
// with the common parameter file alone, so all go through a file; but for a value that is to be
// emptied, which only an option can do.
export function planRestart(parameters, pairs) {
    const changed = new Map(pairs);
    const valueOf = (row) => changed.get(row.key) ?? row.value ?? '';
    const filled = parameters.filter((row) => valueOf(row) !== '');
    const emptied = pairs.filter(([, value]) => value === '');
    return {
        parameters: emptied,
        file: parameterFile(filled.map((row) => [row.key, valueOf(row)])),
    };
}
