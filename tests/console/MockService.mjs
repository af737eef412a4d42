// A service that serves the files of the console, and responses that a test chooses.

import { readFile } from "node:fs/promises";
import { createServer } from "node:http";
import { extname } from "node:path";
import { fileURLToPath } from "node:url";

import { emptyState, faultKinds } from "./Samples.mjs";

const folder = fileURLToPath(new URL("../../service/console/", import.meta.url));
const contentTypes = { ".html": "text/html", ".css": "text/css", ".js": "text/javascript", ".svg": "image/svg+xml" };

export class MockService {
    state = emptyState();
    stateError = ""; // if not "", GET /state fails with this message
    activeFaults = [];
    faultError = ""; // if not "", POST /faults fails with this message
    snapshot = null; // the JPEG image of GET /snapshot; null: GET /snapshot fails
    snapshotGate = Promise.resolve(); // snapshots are sent after this promise has resolved
    requests = []; // [method, path with query, body] of all requests, except those for files
    snapshotsInFlight = 0;
    maxSnapshotsInFlight = 0;
    #server = null;
    #port = 0;

    get address() {
        return `http://127.0.0.1:${this.#port}`;
    }

    count(path) {
        return this.requests.filter(([, requested]) => requested.startsWith(path)).length;
    }

    // A service that is started again after stop() listens at the same address.
    start() {
        this.#server = createServer((request, response) => this.#handle(request, response));
        return new Promise((resolve) => {
            this.#server.listen(this.#port, "127.0.0.1", () => {
                this.#port = this.#server.address().port;
                resolve();
            });
        });
    }

    stop() {
        return new Promise((resolve) => {
            this.#server.close(resolve);
            this.#server.closeAllConnections();
        });
    }

    async #handle(request, response) {
        const path = request.url.split("?")[0];
        const send = (status, type, content) => {
            response.writeHead(status, { "Content-Type": type, "Content-Security-Policy": "default-src 'self'" });
            response.end(content);
        };
        const sendJson = (value, status = 200) => send(status, "application/json", JSON.stringify(value));
        const name = path === "/" ? "index.html" : path.slice(1);
        if (extname(name) in contentTypes) {
            return send(200, `${contentTypes[extname(name)]}; charset=utf-8`, await readFile(folder + name));
        }
        let body = "";
        for await (const chunk of request) {
            body += chunk;
        }
        this.requests.push([request.method, request.url, body]);
        if (path === "/state") {
            return this.stateError ? sendJson({ message: this.stateError }, 503) : sendJson(this.state);
        }
        if (path === "/snapshot") {
            return this.#sendSnapshot(send, sendJson);
        }
        if (path !== "/faults") {
            return sendJson({ message: "there is nothing at this path" }, 404);
        }
        if (request.method === "POST" && this.faultError) {
            return sendJson({ message: this.faultError }, 400);
        }
        if (request.method === "POST") {
            this.activeFaults.push(JSON.parse(body));
        } else if (request.method === "DELETE") {
            this.activeFaults = [];
        }
        return sendJson(
            request.method === "GET" ? { active: this.activeFaults, kinds: faultKinds } : { message: "ok" },
        );
    }

    async #sendSnapshot(send, sendJson) {
        this.snapshotsInFlight += 1;
        this.maxSnapshotsInFlight = Math.max(this.maxSnapshotsInFlight, this.snapshotsInFlight);
        await this.snapshotGate;
        this.snapshotsInFlight -= 1;
        if (this.snapshot) {
            send(200, "image/jpeg", this.snapshot);
        } else {
            sendJson({ message: "the mix has no frame yet" }, 404);
        }
    }
}
