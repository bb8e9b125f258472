// Requests to the server that the page came from.

// A request that the server refused, or that didn't reach it.
export class RequestError extends Error {
    constructor(message, status) {
        super(message);
        this.status = status; // 0: no answer
    }
}

// A command of the application has 30 seconds, and may have to wait for another.
const PATIENCE_S = 65;
const LATE = `The server has not answered within ${PATIENCE_S} seconds. A browser opens six ` +
    'connections to it: close other windows of this page.';

let token = document.querySelector('meta[name="qm5sim-token"]').content;

async function send(method, path, body, type) {
    const headers = {};
    if (method !== 'GET')
        headers['X-Qm5sim-Token'] = token;
    if (type)
        headers['Content-Type'] = type;
    try {
        const signal = AbortSignal.timeout(PATIENCE_S * 1000);
        return await fetch(path, {method, headers, body, signal});
    } catch (error) {
        const isLate = error.name === 'TimeoutError';
        throw new RequestError(isLate ? LATE : 'The server does not answer.', 0);
    }
}

// Never without words.
async function errorOf(response) {
    let words = await response.text();
    try {
        words = JSON.parse(words).error ?? words;
    } catch { // it isn't the server of the page that answers
    }
    return new RequestError(words.trim() || `status ${response.status}`, response.status);
}

// A server that was started anew has another token: the one that its page holds.
async function renewToken() {
    const response = await send('GET', '/');
    const page = new DOMParser().parseFromString(await response.text(), 'text/html');
    const found = page.querySelector('meta[name="qm5sim-token"]')?.content;
    const isNew = Boolean(found) && found !== token;
    token = found || token;
    return isNew;
}

// The response to a request; a refusal is a RequestError with the server's words.
async function request(method, path, body, type) {
    let response = await send(method, path, body, type);
    if (response.status === 403 && method !== 'GET' && await renewToken())
        response = await send(method, path, body, type);
    if (!response.ok)
        throw await errorOf(response);
    return response;
}

export function get(path) {
    return request('GET', path);
}

export function post(path) {
    return request('POST', path);
}

export async function getJson(path) {
    return (await get(path)).json();
}

// Sends a body, which may be none, a text or a file of another type, or else goes as JSON.
export async function change(method, path, body, type) {
    const isJson = body !== undefined && type === undefined;
    const response = await request(method, path, isJson ? JSON.stringify(body) : body,
                                   isJson ? 'application/json' : type);
    return response.json();
}
