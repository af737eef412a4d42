// What the suites of the console share: importing it starts a browser, and a mock service for each test.

import { after, afterEach, beforeEach } from "node:test";

import { WatchedPage, eventually, launch } from "./Browser.mjs";
import { MockService } from "./MockService.mjs";
import { busyState, emptyState } from "./Samples.mjs";

export const colours = { red: [200, 40, 40], green: [40, 160, 60], blue: [40, 60, 200], grey: [90, 90, 90] };

export let service, watched, page;
const browser = await launch();
const greyJpeg = await paintJpeg([["grey", "0", "0"]]);

after(() => browser.close());
beforeEach(async () => {
    service = new MockService();
    service.snapshot = greyJpeg;
    await service.start();
});
afterEach(async () => {
    try {
        await watched?.close();
    } finally {
        watched = null;
        await service.stop();
    }
});

// Returns a JPEG of rectangles: [colour, left, top], each of the whole size.
export async function paintJpeg(rectangles) {
    const painter = await browser.newPage({ viewport: { width: 160, height: 90 } });
    const elements = rectangles.map(
        ([colour, left, top]) =>
            `<div style="position: absolute; width: 100%; height: 100%; left: ${left}; top: ${top};
                         background: rgb(${colours[colour]})"></div>`,
    );
    await painter.setContent(`<body style="margin: 0; overflow: hidden">${elements.join("")}</body>`);
    const jpeg = await painter.screenshot({ type: "jpeg", quality: 95 });
    await painter.close();
    return jpeg;
}

// Opens the console; the service has media, and `parts` of the state.
export function openWith(parts, options) {
    return open({ ...emptyState(), service: busyState().service, ...parts }, options);
}

export async function open(state, options) {
    service.state = state;
    watched = await WatchedPage.open(browser, service.address, options);
    page = watched.page;
    await eventually(() => text("#service-state"), "connected");
}

// Waits for two polls: then the page shows what the service sends now.
export async function polled() {
    const target = service.count("/faults") + 2;
    await eventually(async () => {
        await watched.advance(1000);
        return service.count("/faults") >= target;
    }, true);
}

// From now on, only advance() moves the page's clock.
export function pauseClock() {
    return page.clock.pauseAt(Date.now() + 60000);
}

export const texts = (selector) => page.locator(selector).allTextContents();
export const text = (selector) => page.locator(selector).first().textContent();

export async function openDetails(request) {
    await request.locator("summary").click();
    await request.locator(".content section").nth(2).waitFor();
}

export async function openAllDetails() {
    await page.evaluate(() => document.querySelectorAll("details").forEach((details) => (details.open = true)));
    await page.locator(".request pre").first().waitFor();
}
