// Carries out what the user asks for, one request each, and tells the commands that would have done
// the same.

import {announce} from './announce.js';
import {change} from './api.js';
import {showText} from './dom.js';

// What came of an application's command, as one sentence.
function verdictOf(answer) {
    if (answer.timeout)
        return 'It was ended: no reply within 30 seconds.';
    if (answer.signal)
        return `A signal ended it: ${answer.signal}.`;
    return answer.status === 0 ? 'Done.' : `It failed with exit status ${answer.status}.`;
}

function isGood(answer) {
    return answer.status === undefined || (answer.status === 0 && !answer.timeout);
}

// Fires: command, with a record {time, command, request, good, words} as its detail, and busy.
// What no command does, as a refused request, has none.
export class Actions extends EventTarget {
    running = 0;
    command = ''; // what the application is doing for this page, which may take seconds

    // Sends a request. The answer, with `good` and `words` added; a request that was refused or got
    // lost gives {good: false, words}. `outcome`, if there is one, shows the words of a failure.
    async run(outcome, method, path, body, type) {
        this.#count(1);
        let answer;
        try {
            answer = await change(method, path, body, type);
            answer.good = isGood(answer);
            answer.words = answer.status === undefined ? 'Done.' : this.#wordsOf(answer);
        } catch (error) {
            answer = {good: false, words: error.message};
        } finally {
            this.#count(-1);
        }
        this.#tell(answer, `${method} ${path}`);
        if (outcome)
            showOutcome(outcome, answer.good ? '' : answer.words);
        return answer;
    }

    // Has the application do something: {function, parameters} with changes of them and, for a
    // restart, keep; or {function, file_base64}.
    async application(outcome, request) {
        announce(`Running ${request.function}.`);
        this.#setCommand(request.function);
        const answer = await this.run(outcome, 'POST', '/api/application', request);
        this.#setCommand('');
        return answer;
    }

    #wordsOf(answer) {
        const said = (answer.error ?? '').trim();
        return said === '' ? verdictOf(answer) : `${verdictOf(answer)}\n${said}`;
    }

    #tell({command, good, words}, request) {
        announce(words);
        const detail = {time: Date.now() / 1000, command, request, good, words};
        this.dispatchEvent(new CustomEvent('command', {detail}));
    }

    #setCommand(name) {
        this.command = name;
        this.dispatchEvent(new CustomEvent('busy'));
    }

    #count(change) {
        this.running += change;
        this.dispatchEvent(new CustomEvent('busy'));
    }
}

// Shows what came of an action beside its form, and tells it; nothing for an empty text. What run()
// has just told isn't said twice.
export function showOutcome(target, text, good = false) {
    showText(target, text);
    target.classList.toggle('good', good);
    if (text !== '')
        announce(text);
}

// A copy button for a text. Where the browser keeps the clipboard from the page, the element that
// shows the text is selected.
export function copyOnClick(button, source, text = () => source.textContent) {
    button.addEventListener('click', async () => {
        try {
            await navigator.clipboard.writeText(text());
            announce('Copied.');
            button.textContent = 'Copied';
        } catch {
            getSelection().selectAllChildren(source);
            button.textContent = 'Selected';
        }
        setTimeout(() => (button.textContent = 'Copy'), 1500);
    });
}
