// Chromium without a window, and a page that is watched: in every test, the console must send requests only to the
// service, comply with its security policy and log no error.

import assert from "node:assert/strict";
import { createRequire } from "node:module";

const { chromium } = createRequire(`${process.env.VEXALIVE_NODE_MODULES}/`)("playwright-core");

export function launch() {
    return chromium.launch({
        executablePath: process.env.VEXALIVE_CHROMIUM ?? "/usr/bin/chromium",
        args: [
            "--headless",
            "--no-sandbox",
            "--disable-gpu",
            "--disable-quic",
            "--no-first-run",
            "--disable-background-networking",
            "--disable-component-update",
            "--disable-sync",
        ],
    });
}

// What the browser logs about a response that is missing or an error. Tests that cause one set `allowsFailures`.
const failedResponse = /^Failed to load resource/;

export class WatchedPage {
    static async open(browser, address, options = {}) {
        const { allowsFailures = false, ...contextOptions } = options;
        const context = await browser.newContext({ viewport: { width: 1280, height: 900 }, ...contextOptions });
        const watched = new WatchedPage(context, await context.newPage(), address);
        watched.allowsFailures = allowsFailures;
        await watched.page.clock.install();
        await watched.page.addInitScript(recordFetches);
        await watched.page.goto(`${address}/`);
        return watched;
    }

    constructor(context, page, address) {
        this.context = context;
        this.page = page;
        this.problems = [];
        page.on("request", (request) => {
            if (!request.url().startsWith(`${address}/`)) {
                this.problems.push(`request to ${request.url()}`);
            }
        });
        page.on("console", (message) => {
            const isExpected = this.allowsFailures && failedResponse.test(message.text());
            if (["error", "warning"].includes(message.type()) && !isExpected) {
                this.problems.push(`console: ${message.text()}`);
            }
        });
        page.on("pageerror", (error) => this.problems.push(`error: ${error.stack}`));
        page.on("dialog", (dialog) => {
            this.problems.push(`dialog: ${dialog.message()}`);
            dialog.dismiss();
        });
    }

    // How often the page has fetched paths that begin like this.
    fetchCount(path) {
        return this.page.evaluate((prefix) => window.fetches.filter((each) => each.startsWith(prefix)).length, path);
    }

    // Moves the page's clock, and runs the timers that are due.
    advance(milliseconds) {
        return this.page.clock.runFor(milliseconds);
    }

    async close() {
        await this.context.close();
        assert.deepEqual(this.problems, []);
    }
}

// Runs in the page.
function recordFetches() {
    const { fetch } = window;
    window.fetches = [];
    window.fetch = (path, options) => {
        window.fetches.push(path);
        return fetch(path, options);
    };
}

// Waits until `read` returns what is expected; fails with the difference if it never does.
export async function eventually(read, expected, milliseconds = 8000) {
    const deadline = Date.now() + milliseconds;
    for (;;) {
        const value = await read();
        try {
            return assert.deepEqual(value, expected);
        } catch (error) {
            if (Date.now() > deadline) {
                throw error;
            }
        }
        await new Promise((resolve) => setTimeout(resolve, 50));
    }
}
