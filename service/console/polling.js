// Polls the service's state. Does not poll while the tab is hidden. After each error in a row, the delay is doubled.

import { ResponseError, getJson } from "./api.js";

const interval = 1000; // milliseconds
const maxInterval = 15000;

// Events:
//     "connection"  sent after each poll; the property `connection` holds the result
//     "update"      sent after "connection" if the poll succeeded; its `detail` is {state, faults}, the bodies of
//                   GET /state and GET /faults
class Polling extends EventTarget {
    // failures: number of failed polls in a row; lastResponse: UTC time of day, or "" if there was none; retryDelay:
    // milliseconds until the next poll; error: message of the last error response.
    connection = { isConnected: false, failures: 0, lastResponse: "", retryDelay: interval, error: "" };
    #isPolling = false;
    #timer = 0;

    constructor() {
        super();
        document.addEventListener("visibilitychange", () => document.hidden || this.pollNow());
    }

    async pollNow() {
        clearTimeout(this.#timer);
        if (this.#isPolling) {
            return;
        }
        this.#isPolling = true;
        try {
            const [state, faults] = await Promise.all([getJson("/state"), getJson("/faults")]);
            this.#setConnected();
            this.dispatchEvent(new CustomEvent("update", { detail: { state, faults } }));
        } catch (error) {
            this.#setFailed(error);
        } finally {
            this.#isPolling = false;
            this.#schedule();
        }
    }

    #schedule() {
        clearTimeout(this.#timer);
        if (!document.hidden) {
            this.#timer = setTimeout(() => this.pollNow(), this.connection.retryDelay);
        }
    }

    #setConnected() {
        const lastResponse = new Date().toISOString().slice(11, 19);
        this.#setConnection({ isConnected: true, failures: 0, lastResponse, retryDelay: interval, error: "" });
    }

    #setFailed(error) {
        const failures = this.connection.failures + 1;
        const retryDelay = Math.min(interval * 2 ** (failures - 1), maxInterval);
        const message = error instanceof ResponseError ? error.message : "";
        const { lastResponse } = this.connection;
        this.#setConnection({ isConnected: false, failures, lastResponse, retryDelay, error: message });
    }

    #setConnection(connection) {
        this.connection = connection;
        this.dispatchEvent(new Event("connection"));
    }
}

export const polling = new Polling();
