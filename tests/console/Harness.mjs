// The set-up that the suites of the console share. Importing this module starts a browser, and before each test a mock
// service.

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

// Returns a JPEG image of rectangles. Each is [colour, left, top] and has the size of the image.
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

// Opens the console. The service runs with media, and its state has the given `parts`.
export function openWith(parts, options) {
    return open({ ...emptyState(), service: busyState().service, ...parts }, options);
}

export async function open(state, options) {
    service.state = state;
    watched = await WatchedPage.open(browser, service.address, options);
    page = watched.page;
    await eventually(() => text("#service-state"), "connected");
}

// Waits for two polls of the page. After that, the page shows the current state of the service.
export async function waitForPoll() {
    const target = service.count("/faults") + 2;
    await eventually(async () => {
        await watched.advance(1000);
        return service.count("/faults") >= target;
    }, true);
}

// Stops the page's clock. After that, only advance() advances it.
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
