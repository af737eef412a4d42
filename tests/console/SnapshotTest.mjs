// The snapshots of a mix's output.

import assert from "node:assert/strict";
import { test } from "node:test";

import { eventually } from "./Browser.mjs";
import {
    colours,
    open,
    openWith,
    page,
    paintJpeg,
    pauseClock,
    service,
    text,
    waitForPoll,
    watched,
} from "./Harness.mjs";
import { emptyState, mixOf, streamId, video } from "./Samples.mjs";

const jpegs = { red: await paintJpeg([["red", "0", "0"]]), green: await paintJpeg([["green", "0", "0"]]) };

const mix = (change) => mixOf("room", [video("alice", 2, 0, 0, 1280, 720)], change);
const snapshot = () => page.locator(".mix canvas").first();
const fetchCount = () => watched.fetchCount("/snapshot");

// Returns the names of the colours at points of the snapshot. A point is [x, y], each from 0 to 1.
async function coloursAt(...points) {
    const pixels = await snapshot().evaluate((canvas, at) => {
        const copy = new OffscreenCanvas(canvas.width, canvas.height).getContext("2d", { willReadFrequently: true });
        copy.drawImage(canvas, 0, 0);
        return at.map(([x, y]) => [...copy.getImageData(canvas.width * x, canvas.height * y, 1, 1).data.slice(0, 3)]);
    }, points);
    const isNear = (pixel, colour) => colours[colour].every((part, index) => Math.abs(part - pixel[index]) < 16);
    return pixels.map((pixel) => Object.keys(colours).find((colour) => isNear(pixel, colour)) ?? `${pixel}`);
}

async function shows(colour) {
    await snapshot().waitFor();
    await eventually(() => coloursAt([0.5, 0.5]), [colour]);
}

// Returns the time until the next fetch, on the page's clock, in steps of 10 ms; at most 1 s.
async function timeToNextFetch() {
    const earlier = await fetchCount();
    let time = 0;
    while (time < 1000 && (await fetchCount()) === earlier) {
        await watched.advance(10);
        time += 10;
    }
    return time;
}

// Holds all snapshots back until the returned function is called.
function holdSnapshots() {
    let release;
    service.snapshotGate = new Promise((resolve) => (release = resolve));
    return release;
}

test("the page shows the output and its changes", async () => {
    service.snapshot = await paintJpeg([
        ["red", "0", "0"],
        ["green", "50%", "0"],
        ["blue", "0", "50%"],
        ["grey", "50%", "50%"],
    ]);
    await openWith({ mixes: [mix()] });
    await snapshot().waitFor();
    const corners = [
        [0.2, 0.2],
        [0.8, 0.2],
        [0.2, 0.8],
        [0.8, 0.8],
    ];
    assert.deepEqual(await coloursAt(...corners), ["red", "green", "blue", "grey"]);
    assert.ok(service.requests.some(([, path]) => path === `/snapshot?mix=${streamId("room")}`));
    service.snapshot = jpegs.green;
    await watched.advance(300);
    await eventually(() => coloursAt(...corners), Array(4).fill("green"));
});

test("the page fetches three or four snapshots per second", async () => {
    service.snapshot = jpegs.red;
    await openWith({ mixes: [mix()] });
    await shows("red");
    await pauseClock();
    const intervals = [];
    for (const colour of ["green", "red", "green", "red"]) {
        service.snapshot = jpegs[colour];
        intervals.push(await timeToNextFetch());
        await shows(colour);
    }
    intervals.slice(1).forEach((time) => assert.ok(time >= 250 && time <= 340, `${intervals} ms`));
});

test("the page fetches one snapshot at a time", async () => {
    await openWith({ mixes: [mix()] });
    await shows("grey");
    const release = holdSnapshots();
    await watched.advance(300);
    await eventually(() => service.snapshotsInFlight, 1);
    await watched.advance(6000);
    await waitForPoll();
    assert.equal(service.maxSnapshotsInFlight, 1);
    release();
    service.snapshot = jpegs.red;
    await watched.advance(300);
    await shows("red");
});

test("the page does not fetch snapshots that the user cannot see", async () => {
    await openWith({ mixes: [mix()] });
    const countsDuring = async (milliseconds) => {
        const earlier = await fetchCount();
        await watched.advance(milliseconds);
        return (await fetchCount()) - earlier;
    };
    const isFetching = () => eventually(async () => (await countsDuring(300)) > 0, true);
    const isIdle = () => eventually(() => countsDuring(5000), 0);
    const setHidden = (isHidden) =>
        page.evaluate((value) => {
            Object.defineProperty(document, "hidden", { value, configurable: true });
            document.dispatchEvent(new Event("visibilitychange"));
        }, isHidden);
    const pauseButton = page.getByRole("button", { name: "Pause" });

    await isFetching();
    await setHidden(true);
    await isIdle();
    const polls = await watched.fetchCount("/state");
    await watched.advance(5000);
    assert.equal(await watched.fetchCount("/state"), polls, "no polls while the tab is hidden");
    await setHidden(false);
    await isFetching();
    await page.locator(".mix > summary").click();
    await isIdle();
    await page.locator(".mix > summary").click();
    await isFetching();
    await pauseButton.click();
    await isIdle();
    await pauseButton.click();
    await isFetching();
    service.state.mixes = [mix({ running: false, media: null })];
    await waitForPoll();
    await eventually(() => text(".mix > summary .state"), "cancelled");
    await isIdle();
});

test("if there is no snapshot, the page shows the service's message", async () => {
    service.snapshot = null;
    await openWith({ mixes: [mix()] }, { allowsFailures: true });
    await eventually(() => text(".no-snapshot"), "No frame: the mix has no frame yet");
    service.snapshot = jpegs.red;
    await watched.advance(2000);
    await snapshot().waitFor();
    assert.ok(await page.locator(".no-snapshot").isHidden());
});

test("the page fetches no snapshots from a service without media", async () => {
    await open({ ...emptyState(), mixes: [mix({ media: null, play: undefined })] });
    assert.equal(await text(".no-snapshot"), "No frame: the service runs without media");
    assert.equal(await text(".mix > summary .state"), "accepted, without media");
    assert.ok(await page.locator(".play").isHidden());
    await waitForPoll();
    assert.equal(service.count("/snapshot"), 0);
});

test("the page fetches fewer snapshots if the user prefers reduced motion", async () => {
    service.snapshot = jpegs.red;
    await openWith({ mixes: [mix()] }, { reducedMotion: "reduce" });
    await shows("red");
    await watched.advance(3000);
    assert.equal(await fetchCount(), 1);
});
