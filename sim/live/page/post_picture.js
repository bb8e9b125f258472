// The picture of one post, kept up to date by fetching only what has changed.

import {get} from './api.js';
import {areaOf, compose, newPicture} from './picture.js';

const RETRY_MS = 2000;

async function fetchBackground(number) {
    const blob = await (await get(`/api/posts/${number}/background`)).blob();
    const exact = {colorSpaceConversion: 'none', premultiplyAlpha: 'none'};
    const bitmap = await createImageBitmap(blob, exact);
    const canvas = new OffscreenCanvas(bitmap.width, bitmap.height);
    const context = canvas.getContext('2d', {willReadFrequently: true});
    context.drawImage(bitmap, 0, 0);
    const {data, width, height} = context.getImageData(0, 0, bitmap.width, bitmap.height);
    return {width, height, rgba: data};
}

// The pixels of an OSD, as long as it is the very one of the state; otherwise null, and another
// state is on its way.
async function fetchIndices(number, osd) {
    const response = await get(`/api/posts/${number}/osds/${osd.number}`);
    const indices = new Uint8Array(await response.arrayBuffer());
    const isSame = Number(response.headers.get('X-Handle')) === osd.handle &&
        indices.length === osd.line_pixels * osd.height;
    return isSame ? {indices, sets: Number(response.headers.get('X-Sets'))} : null;
}

function fits(picture, post) {
    return picture?.width === post.width && picture.height === post.height;
}

function unionArea(one, other) {
    return {
        left: Math.min(one.left, other.left),
        top: Math.min(one.top, other.top),
        right: Math.max(one.right, other.right),
        bottom: Math.max(one.bottom, other.bottom),
    };
}

export class PostPicture {
    picture = null; // as it is shown; null while the post is closed or its pixels or colours lack
    background = null;
    layers = []; // the shown OSDs with their indices, ready to be composed
    failure = ''; // why `picture` isn't that of the last state

    #number;
    #palette;
    #isLost;
    #repainted;
    #post = null;
    #retry = 0;
    #isBusy = false;
    #backgroundKey = '';

    // `palette` gives the one in force, if any is known, `isLost` tells whether the server is out of
    // reach, and `repainted` is called when `picture` or `failure` may have changed.
    constructor(number, palette, isLost, repainted) {
        this.#number = number;
        this.#palette = palette;
        this.#isLost = isLost;
        this.#repainted = repainted;
    }

    // Takes a post of the state. While its pixels are being fetched a newer one just waits.
    async take(post) {
        this.#post = post;
        if (this.#isBusy)
            return;
        this.#isBusy = true;
        while (this.#post) {
            const next = this.#post;
            this.#post = null;
            await this.#tryUpdate(next);
        }
        this.#isBusy = false;
    }

    async #tryUpdate(post) {
        clearTimeout(this.#retry);
        try {
            await this.#update(post);
            this.#setFailure('');
        } catch (error) {
            if (error.status === 404) // it closed meanwhile: another state is on its way
                return;
            const isLost = error.status === 0 && this.#isLost(); // the next one begins with a state
            this.#setFailure(isLost ? '' : error.message);
            if (isLost)
                return;
            this.#retry = setTimeout(() => this.take(post), RETRY_MS);
        }
    }

    #setFailure(failure) {
        if (this.failure === failure)
            return;
        this.failure = failure;
        this.#repainted();
    }

    // Fetches everything anew with the next state, and shows until then what there is.
    forget() {
        this.#backgroundKey = '';
        this.layers = this.layers.map((layer) => ({...layer, fetched: -1}));
    }

    repaint() {
        const palette = this.#palette();
        if (this.background && palette) {
            const {width, height} = this.background;
            if (!fits(this.picture, this.background))
                this.picture = newPicture(width, height);
            compose(this.picture, this.background, this.layers, palette);
        }
        this.#repainted();
    }

    async #update(post) {
        if (!post.open) {
            this.#close();
            return;
        }
        const key = `${post.width}x${post.height} ${post.background}`;
        const isNew = key !== this.#backgroundKey;
        const background = isNew ? await fetchBackground(this.#number) : this.background;
        if (!fits(background, post)) // it has another size by now
            return;
        const old = this.layers;
        const shown = post.osds.filter((osd) => osd.shown);
        const layers = await Promise.all(shown.map((osd) => this.#updateLayer(osd)));
        this.layers = layers.filter((layer) => layer !== null);
        if (!isNew) {
            this.#repaintChanged(old);
            return;
        }
        this.#backgroundKey = key; // not before: a layer that was lost has all of it made again
        this.background = background;
        this.repaint();
    }

    #close() {
        if (!this.background)
            return;
        this.#backgroundKey = '';
        this.picture = null;
        this.background = null;
        this.layers = [];
        this.#repainted();
    }

    // The layer of an OSD: with new pixels if the codec has been given some, else with the old.
    async #updateLayer(osd) {
        const old = this.layers.find((layer) => layer.number === osd.number);
        if (old && old.handle === osd.handle && old.fetched >= osd.sets)
            return {...old, x: osd.x, y: osd.y};
        const fetched = await fetchIndices(this.#number, osd).catch((error) => {
            if (error.status === 404)
                return null;
            throw error;
        });
        return fetched && {...osd, indices: fetched.indices, fetched: fetched.sets};
    }

    // Makes anew what layers that came, went, moved or were drawn have covered and cover.
    #repaintChanged(old) {
        const isIn = (layers, layer) => layers.some((each) => each.number === layer.number &&
            each.indices === layer.indices && each.x === layer.x && each.y === layer.y);
        const gone = old.filter((layer) => !isIn(this.layers, layer));
        const come = this.layers.filter((layer) => !isIn(old, layer));
        const areas = [...gone, ...come].map(areaOf);
        if (areas.length === 0 || !this.picture)
            return;
        compose(this.picture, this.background, this.layers, this.#palette(),
                areas.reduce(unionArea));
        this.#repainted();
    }
}
