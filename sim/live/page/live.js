// What the page knows of the simulated codec: it follows the server's events and tells the views.
// Pixels are fetched only where an event says that they have changed.

import {get, getJson} from './api.js';
import {PostPicture} from './post_picture.js';
import {packPalette} from './picture.js';
import {SLOTS} from './slots.js';

const RETRY_MS = [500, 1000, 2000, 5000];
const ASK_AGAIN_MS = 2000;

// Fires: connection, state, parameters, failure (they couldn't be read), palette, picture (detail:
// number of the post), calls and reports (detail: what the server's event carried, and for reports
// the state `before` them: that before this stream began if they are `old`, there before it did, and
// null if none is known).
export class Live extends EventTarget {
    connection = 'connecting'; // or 'open', 'lost'
    refusal = ''; // why the server doesn't let the page follow, if it says so
    state = null;
    parameters = []; // rows of the catalogue with the values in force
    palette = packPalette(Array(256).fill([0, 0, 0, 0]));
    isPaletteKnown = false; // has any been read?
    whyNoPalette = ''; // why none is known, once it has been asked for
    hasDefaultPalette = true;
    paletteError = ''; // why the one in force can't be read
    parametersError = ''; // the same of the parameters
    pictures = [];

    #values = new Map();
    #source = null;
    #retry = 0;
    #failures = 0;
    #lastId = ''; // of the events seen, from which another stream goes on
    #before = null; // the state when this stream began
    #parametersVersion = null;
    #paletteVersion = null;
    #parametersWanted = false;
    #parametersRunning = false;

    constructor() {
        super();
        this.pictures = SLOTS.map((_, number) => new PostPicture(
            number, () => this.isPaletteKnown && this.palette, () => this.connection === 'lost',
            () => this.#tell('picture', number)));
    }

    // The value in force of a parameter; null if none is known.
    valueOf = (key) => this.#values.get(key) ?? null;

    rowOf(key) {
        return this.parameters.find((row) => row.key === key);
    }

    // Follows the server as long as the page is seen: a browser opens six connections to a host,
    // and windows that nobody sees would leave none to the others.
    follow() {
        const turn = () => (document.hidden ? this.#disconnect() : this.#connect());
        document.addEventListener('visibilitychange', turn);
        turn();
    }

    #disconnect() {
        clearTimeout(this.#retry);
        this.#source?.close();
    }

    #connect() {
        this.#disconnect();
        this.#source = new EventSource(`/api/events?last=${encodeURIComponent(this.#lastId)}`);
        this.#source.onopen = () => this.#opened();
        this.#source.onerror = () => this.#lost();
        this.#on('state', (state) => this.#takeState(state));
        this.#on('calls', (event) => this.#tell('calls', event));
        this.#on('reports', (event) => {
            const missed = event.reset ? null : this.#before; // another log, another time
            this.#tell('reports', {...event, before: event.old ? missed : this.state});
        });
    }

    // Asks for the parameters in force; one question at a time.
    async readParameters() {
        this.#parametersWanted = true;
        if (this.#parametersRunning)
            return;
        this.#parametersRunning = true;
        try {
            while (this.#parametersWanted) {
                this.#parametersWanted = false;
                this.parameters = (await getJson('/api/parameters')).parameters;
                this.#values = new Map(this.parameters.map((row) => [row.key, row.value]));
                this.parametersError = '';
                this.#tell('parameters');
            }
        } catch (error) {
            this.#parametersVersion = null;
            this.parametersError = this.#takeFailure(error);
            this.#tell('failure');
        } finally {
            this.#parametersRunning = false;
        }
    }

    #on(name, take) {
        this.#source.addEventListener(name, (event) => {
            this.#lastId = event.lastEventId;
            take(JSON.parse(event.data));
        });
    }

    #tell(name, detail) {
        this.dispatchEvent(new CustomEvent(name, {detail}));
    }

    #setConnection(connection) {
        if (this.connection === connection)
            return;
        this.connection = connection;
        this.#tell('connection');
    }

    #opened() {
        this.#failures = 0;
        this.#before = this.state;
        this.refusal = '';
        this.#parametersVersion = null; // another server counts anew
        this.#paletteVersion = null;
        this.pictures.forEach((picture) => picture.forget());
        this.#setConnection('open');
    }

    // The browser tries again by itself, unless the server has refused the stream.
    #lost() {
        this.#setConnection('lost');
        if (this.#source.readyState !== EventSource.CLOSED)
            return;
        this.#source.close();
        this.#readRefusal();
        const wait = RETRY_MS[Math.min(this.#failures++, RETRY_MS.length - 1)];
        this.#retry = setTimeout(() => this.#connect(), wait);
    }

    // A stream doesn't tell why it was refused; the same request made otherwise does.
    async #readRefusal() {
        try {
            const response = await get('/api/events');
            await response.body.cancel();
        } catch (error) {
            this.refusal = error.status === 0 ? '' : error.message;
            this.#tell('connection');
        }
    }

    #takeState(state) {
        this.state = state;
        this.#readWhatIsNew();
        this.#tell('state');
        state.posts.forEach((post) => this.pictures[post.number].take(post));
    }

    #readWhatIsNew() {
        const {application, palette, parameters} = this.state;
        const version = `${parameters} ${application.running}`;
        if (version !== this.#parametersVersion) {
            this.#parametersVersion = version;
            this.readParameters();
        }
        if (palette !== this.#paletteVersion)
            this.#readPalette(palette);
    }

    // What was refused is asked for again with the next state, and what got lost soon, unless the
    // stream did, too, and begins with a state. The words of a refusal; '' if there was none.
    #takeFailure({status, message}) {
        if (status)
            return message;
        if (this.#source.readyState === EventSource.OPEN)
            setTimeout(() => this.#readWhatIsNew(), ASK_AGAIN_MS);
        return '';
    }

    async #readPalette(version) {
        this.#paletteVersion = version;
        const found = await getJson('/api/palette').catch((error) => ({error}));
        if (version !== this.#paletteVersion) // a newer one has been asked for
            return;
        this.paletteError = '';
        if (found.error) {
            this.#paletteVersion = null;
            this.paletteError = this.#takeFailure(found.error);
            if (!this.isPaletteKnown)
                this.whyNoPalette = `No palette is known: ${found.error.message}`;
        } else {
            this.palette = packPalette(found.colors);
            this.isPaletteKnown = true;
            this.whyNoPalette = '';
            this.hasDefaultPalette = found.default;
        }
        this.#tell('palette');
        this.pictures.forEach((picture) => picture.repaint());
    }
}
