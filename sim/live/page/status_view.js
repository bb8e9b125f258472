// The bar at the top: connection, application, codec; and the notices below it, which tell what is
// wrong for longer than a moment.

import {announce} from './announce.js';
import {element, find, setOff, setText, syncRows} from './dom.js';
import {counted} from './format.js';
import {isError, splitReports, troubleOf} from './log.js';

const CONNECTIONS = {
    connecting: ['Connecting', ''],
    open: ['Live', 'good'],
    lost: ['Connection lost', 'bad'],
};

const LOST = 'The connection to qm5sim serve is lost. What stands below is what was known last; ' +
    'this page tries again by itself.';
const ELSEWHERE = 'A server runs, but not on this simulated codec: nobody has it open.';
const NO_SENSE = 'The state of the codec cannot be shown:';
const NO_STATE = 'No application has used this simulated codec yet. The outputs are as the first ' +
    'will find them.';
const ACTIONS = {start: 'Start', stop: 'Stop', restart: 'Restart'};
const TROUBLES = 'qm5sim-troubles'; // kept as long as the page's tab, as are those dismissed
const DISMISSED = 'qm5sim-dismissed';
const NOT_RUNNING = 'No server runs. The pictures change only while the application runs.';

// A browser may keep nothing for the page; then it is forgotten when the page is loaded anew.
function storedMap(name) {
    try {
        return new Map(JSON.parse(sessionStorage.getItem(name) ?? '[]'));
    } catch {
        return new Map();
    }
}

function storeMap(name, map) {
    try {
        sessionStorage.setItem(name, JSON.stringify([...map]));
    } catch {
        return;
    }
}

function newestHandle(state) {
    const osds = state?.posts.flatMap((post) => post.osds) ?? [];
    return Math.max(0, ...osds.map((osd) => osd.handle));
}

function setLamp(name, text, kind) {
    const lamp = find(`#lamp-${name}`);
    lamp.className = `lamp ${kind}`;
    setText(find(`#text-${name}`), text);
    const item = find(`#item-${name}`);
    if (item)
        item.hidden = text === '';
}

export class StatusView {
    #live;
    #actions;
    #troubles = storedMap(TROUBLES); // text of each that was reported, to the newest handle then
    #dismissed = storedMap(DISMISSED); // likewise
    #told = {report: ''};
    #failure = null; // of the last button pressed above: its name and text
    #wasRunning = null;

    constructor(live, actions) {
        this.#live = live;
        this.#actions = actions;
        live.addEventListener('connection', () => this.#showConnection());
        live.addEventListener('state', () => this.#showState());
        live.addEventListener('palette', () => this.#showNotices());
        live.addEventListener('parameters', () => this.#showNotices());
        live.addEventListener('failure', () => this.#showNotices());
        live.addEventListener('reports', (event) => this.#takeReports(event.detail));
        actions.addEventListener('busy', () => this.#showButtons());
        actions.addEventListener('command', ({detail: {good, request}}) => {
            if (good && request === 'POST /api/application')
                this.#setFailure(null);
        });
        for (const name of Object.keys(ACTIONS))
            find(`#application-${name}`).addEventListener('click', () => this.#carryOut(name));
        this.#showConnection();
        this.#showButtons();
    }

    async #carryOut(name) {
        this.#setFailure(null);
        const answer = await this.#actions.application(null, {function: name, parameters: []});
        if (!answer.good)
            this.#setFailure({name, text: `${ACTIONS[name]}: ${answer.words}`});
    }

    #setFailure(failure) {
        this.#failure = failure;
        this.#showNotices();
    }

    // A failure is over when what was asked for has come about by other means.
    #dropOldFailure(running) {
        const hasTurned = this.#wasRunning !== null && running !== this.#wasRunning;
        this.#wasRunning = running;
        if (hasTurned && this.#failure && running === (this.#failure.name !== 'stop'))
            this.#failure = null;
    }

    #showConnection() {
        const {connection} = this.#live;
        setLamp('connection', ...CONNECTIONS[connection]);
        document.body.classList.toggle('lost', connection === 'lost');
        this.#tell('connection', connection === 'lost' ? 'Connection lost.' : 'Connected.',
                   connection === 'connecting');
        this.#showNotices();
    }

    #showState() {
        const {state} = this.#live;
        const running = state.application.running;
        setLamp('application', running ? 'Server runs' : 'No server runs', running ? 'good' : '');
        setLamp('device', state.device_open ? 'Codec open' : 'Codec closed',
                state.device_open ? 'good' : '');
        this.#showFaults();
        const breaches = counted(state.breaches, 'breach', 'breaches');
        setLamp('breaches', state.breaches > 0 ? breaches : '', 'bad');
        this.#tell('breaches', `${breaches} of the contract.`);
        this.#tell('application', running ? 'The server runs.' : 'No server runs.');
        for (const post of state.state_error ? [] : state.posts) {
            const size = post.open ? `has ${post.width} by ${post.height}` : 'has no thread';
            this.#tell(`post${post.number}`, `Post ${post.number} ${size}.`);
        }
        this.#dropOldFailure(running);
        this.#dropOldTroubles();
        this.#showButtons();
        this.#showNotices();
    }

    #showFaults() {
        const {on, list} = this.#live.state.faults;
        const count = counted(list.length, 'fault');
        if (list.length === 0)
            setLamp('faults', on ? '' : 'Faults off', '');
        else
            setLamp('faults', on ? count : `${count}, off`, on ? 'warn' : '');
        this.#tell('faults', `${find('#text-faults').textContent || 'No fault'}.`);
    }

    // Announces a fact when it has changed, but not what is found at the beginning.
    #tell(name, text, quietly = false) {
        const old = this.#told[name];
        if (quietly)
            return;
        this.#told[name] = text;
        if (old !== undefined && old !== text)
            announce(text);
    }

    #showButtons() {
        const {command} = this.#actions;
        setText(find('#text-command'), command ? `Running ${command} …` : '');
        find('#item-command').hidden = !command;
        const running = this.#live.state?.application.running;
        const cannot = this.#live.state === null || this.#actions.running > 0;
        setOff(find('#application-start'), cannot || running);
        setOff(find('#application-stop'), cannot || !running);
        setOff(find('#application-restart'), cannot || !running);
    }

    // ---- Notices -------------------------------------------------------------------------------

    // Old lines bring no trouble where an OSD has come since the state before them, as it may be newer
    // than they are; what lasts is mostly told again. A trouble that a log which is read anew doesn't
    // tell belongs to another log.
    #takeReports({reset, old, before, text}) {
        const lines = splitReports(text);
        const troubles = lines.map(troubleOf).filter(Boolean);
        if (reset)
            this.#forgetTroubles((_, trouble) => !old || !troubles.includes(trouble));
        const error = lines.findLast(isError);
        if (error)
            this.#tell('report', `Error report: ${error}`, reset);
        for (const trouble of troubles) {
            if (!this.#dismissed.has(trouble) && !(old && this.#troubles.has(trouble)))
                this.#troubles.set(trouble, newestHandle(before));
        }
        this.#dropOldTroubles();
        this.#showNotices();
    }

    // It stays dismissed though the server tells it with each attempt, and the page is loaded anew.
    #dismiss(trouble) {
        this.#dismissed.set(trouble, newestHandle(this.#live.state));
        this.#troubles.delete(trouble);
        this.#keepTroubles();
    }

    #keepTroubles() {
        storeMap(TROUBLES, this.#troubles);
        storeMap(DISMISSED, this.#dismissed);
    }

    #forgetTroubles(isOver) {
        for (const troubles of [this.#troubles, this.#dismissed]) {
            for (const [text, handle] of troubles) {
                if (isOver(handle, text))
                    troubles.delete(text);
            }
        }
        this.#keepTroubles();
    }

    // An OSD that was opened since says that the trouble is over.
    #dropOldTroubles() {
        const newest = newestHandle(this.#live.state);
        this.#forgetTroubles((handle) => newest > handle);
    }

    #notices() {
        const {connection, refusal, state} = this.#live;
        const notices = [];
        if (connection === 'lost')
            notices.push({kind: 'bad', text: LOST, isTold: true});
        if (this.#failure) {
            const dismiss = () => (this.#failure = null);
            notices.push({kind: 'bad', text: this.#failure.text, isTold: true, dismiss});
        }
        if (refusal)
            notices.push({kind: 'bad', text: `The server refuses this page: ${refusal}.`});
        if (!state)
            return notices;
        const running = state.application.running;
        if (state.state_error)
            notices.push({kind: 'bad', text: `${NO_SENSE} ${state.state_error}`});
        else if (running && !state.device_open)
            notices.push({kind: 'warn', text: ELSEWHERE});
        else if (!state.folder)
            notices.push({kind: 'info', text: NO_STATE});
        else if (!running)
            notices.push({kind: 'info', text: NOT_RUNNING});
        if (state.faults.error)
            notices.push({kind: 'bad', text: `Faults and settings: ${state.faults.error}`});
        if (this.#live.paletteError)
            notices.push({kind: 'bad', text: `The palette: ${this.#live.paletteError}`});
        if (this.#live.parametersError) {
            const text = `The parameters in force: ${this.#live.parametersError}`;
            notices.push({kind: 'bad', text});
        }
        for (const text of this.#troubles.keys())
            notices.push({kind: 'bad', text, dismiss: () => this.#dismiss(text)});
        return notices;
    }

    #showNotices() {
        const list = find('#notices');
        const notices = this.#notices();
        list.hidden = notices.length === 0;
        syncRows(list, notices, (notice) => notice.text, (notice) => this.#makeNotice(notice),
                 () => {});
    }

    #makeNotice({kind, text, isTold, dismiss}) {
        const row = element('li', {className: `notice ${kind}`}, element('span', {}, text));
        if (kind === 'bad' && !isTold)
            announce(text);
        if (dismiss) {
            row.append(element('button', {
                type: 'button',
                textContent: 'Dismiss',
                on: {click: () => {
                    dismiss();
                    this.#showNotices();
                    (find('#notices button') ?? find('#outputs-heading')).focus();
                }},
            }));
        }
        return row;
    }
}
