// Numbers, times and colours as texts.

export function hexadecimal(number) {
    return `0x${number.toString(16).toUpperCase().padStart(8, '0')}`;
}

function twoDigits(number) {
    return number.toString(16).padStart(2, '0');
}

export function colorCode([red, green, blue]) {
    return `#${twoDigits(red)}${twoDigits(green)}${twoDigits(blue)}`;
}

// With its alpha, as style sheets take it.
export function colorStyle([red, green, blue, alpha = 255]) {
    return `rgb(${red} ${green} ${blue} / ${alpha / 255})`;
}

// Seconds since 1970 as a time of the day here, to the millisecond.
export function timeOfDay(seconds) {
    const time = new Date(Math.round(seconds * 1000));
    const part = (value, length = 2) => String(value).padStart(length, '0');
    return `${part(time.getHours())}:${part(time.getMinutes())}:${part(time.getSeconds())}.` +
        part(time.getMilliseconds(), 3);
}

export function counted(number, one, many = `${one}s`) {
    return `${number} ${number === 1 ? one : many}`;
}
