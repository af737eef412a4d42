// Chromium, without a window, and pages that are watched: whatever a test does, the console may ask nobody but the
// service, break no rule of its security policy, and leave no error behind.

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

// What the browser itself writes about an answer that is missing or no success. A test that provokes it says so.
const missedAnswer = /^Failed to load resource/;

export class WatchedPage {
    static async open(browser, address, options = {}) {
        const { mayMissAnswers = false, ...contextOptions } = options;
        const context = await browser.newContext({ viewport: { width: 1280, height: 900 }, ...contextOptions });
        const watched = new WatchedPage(context, await context.newPage(), address);
        watched.mayMissAnswers = mayMissAnswers;
        await watched.page.goto(`${address}/`);
        return watched;
    }

    constructor(context, page, address) {
        this.context = context;
        this.page = page;
        this.complaints = [];
        page.on("request", (request) => {
            if (!request.url().startsWith(`${address}/`)) {
                this.complaints.push(`asked for ${request.url()}`);
            }
        });
        page.on("console", (message) => {
            const isExpected = this.mayMissAnswers && missedAnswer.test(message.text());
            if (["error", "warning"].includes(message.type()) && !isExpected) {
                this.complaints.push(`console: ${message.text()}`);
            }
        });
        page.on("pageerror", (error) => this.complaints.push(`error: ${error.stack}`));
        page.on("dialog", (dialog) => {
            this.complaints.push(`dialog: ${dialog.message()}`);
            dialog.dismiss();
        });
    }

    async close() {
        await this.context.close();
        assert.deepEqual(this.complaints, []);
    }
}

// Waits until `read` gives what is expected, and shows the difference if it never does.
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
        await pause(50);
    }
}

export function pause(milliseconds) {
    return new Promise((resolve) => setTimeout(resolve, milliseconds));
}
