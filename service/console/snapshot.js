// The current output of a mix: fetches snapshots and draws them, as long as the user can see them.

import { readMessage, request } from "./api.js";
import { setOptionalText, setText } from "./dom.js";
import { polling } from "./polling.js";

// Milliseconds from the start of one fetch to the start of the next fetch.
const interval = 280;
const reducedMotionInterval = 5000;
const retryInterval = 2000; // after a failure

const prefersReducedMotion = matchMedia("(prefers-reduced-motion: reduce)");

export class Snapshot {
    #path;
    #parts;
    #isRunning = false;
    #isInView = false;
    #isPaused = false;
    #isFetching = false;
    #nextFetch = 0; // time of the next fetch, as a value of performance.now()
    #timer = 0;
    #observer;
    #listeners = new AbortController();

    // `parts` has the elements screen, snapshot, noSnapshot, snapshotCaption and pause.
    constructor(id, parts) {
        this.#path = `/snapshot?mix=${encodeURIComponent(id)}`;
        this.#parts = parts;
        parts.snapshot.setAttribute("aria-label", `The current output of ${id}`);
        parts.pause.addEventListener("click", () => {
            this.#isPaused = !this.#isPaused;
            parts.pause.setAttribute("aria-pressed", String(this.#isPaused));
            this.#schedule();
        });
        this.#observer = new IntersectionObserver(([entry]) => {
            this.#isInView = entry.isIntersecting;
            this.#schedule();
        });
        this.#observer.observe(parts.screen);
        const { signal } = this.#listeners;
        polling.addEventListener("connection", () => this.#schedule(), { signal });
        document.addEventListener("visibilitychange", () => this.#schedule(), { signal });
    }

    // `absence` is the reason to show if the mix is not running.
    show(isRunning, absence) {
        const { snapshot, noSnapshot, snapshotCaption, pause } = this.#parts;
        this.#isRunning = isRunning;
        if (!isRunning) {
            snapshot.hidden = true;
        }
        if (snapshot.hidden) {
            setOptionalText(noSnapshot, isRunning ? "No frame yet" : absence);
            setText(snapshotCaption, "Output");
        }
        pause.hidden = !isRunning;
        this.#schedule();
    }

    dispose() {
        this.#isRunning = false;
        clearTimeout(this.#timer);
        this.#observer.disconnect();
        this.#listeners.abort();
    }

    // Schedules the next fetch if all conditions for it hold. Call this when one of the conditions may have changed.
    #schedule() {
        clearTimeout(this.#timer);
        const isVisible = this.#isInView && !document.hidden;
        const isWanted = this.#isRunning && isVisible && !this.#isPaused && polling.connection.isConnected;
        if (isWanted && !this.#isFetching) {
            this.#timer = setTimeout(() => this.#fetch(), Math.max(0, this.#nextFetch - performance.now()));
        }
    }

    async #fetch() {
        this.#isFetching = true;
        const started = performance.now();
        this.#nextFetch = started + retryInterval;
        try {
            const response = await request(this.#path);
            if (response.ok) {
                this.#draw(await createImageBitmap(await response.blob()));
                this.#nextFetch = started + (prefersReducedMotion.matches ? reducedMotionInterval : interval);
            } else {
                this.#showFailure((await readMessage(response)) || `HTTP ${response.status}`);
            }
        } catch {
            this.#showFailure("the snapshot cannot be read");
        }
        this.#isFetching = false;
        this.#schedule();
    }

    #draw(bitmap) {
        const { snapshot, noSnapshot, snapshotCaption } = this.#parts;
        if (this.#isRunning) {
            if (snapshot.width !== bitmap.width || snapshot.height !== bitmap.height) {
                snapshot.width = bitmap.width;
                snapshot.height = bitmap.height;
            }
            snapshot.getContext("2d").drawImage(bitmap, 0, 0);
            snapshot.hidden = false;
            noSnapshot.hidden = true;
            setText(snapshotCaption, "Output, live");
        }
        bitmap.close();
    }

    // The last frame stays visible. The caption shows the reason of the failure.
    #showFailure(reason) {
        const { snapshot, noSnapshot, snapshotCaption } = this.#parts;
        if (this.#isRunning) {
            setText(snapshotCaption, snapshot.hidden ? "Output" : `Output, last frame: ${reason}`);
            setOptionalText(noSnapshot, snapshot.hidden ? `No frame: ${reason}` : "");
        }
    }
}
