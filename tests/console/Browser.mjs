// Chromium without a window. The page is watched: a test fails if the console sends a request to another address than
// the service's, violates the security policy or logs an error.

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

// The browser's log message for a missing response or an error response. Tests that cause one set `allowsFailures`.
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

    // Returns how often the page has fetched a path that begins with `path`.
    fetchCount(path) {
        return this.page.evaluate((prefix) => window.fetches.filter((each) => each.startsWith(prefix)).length, path);
    }

    // Advances the page's clock, and runs the timers that become due.
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

// Waits until `read` returns `expected`. Fails with the difference if it does not within the given time.
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
