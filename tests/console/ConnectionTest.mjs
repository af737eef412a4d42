// The page header, polling, and a service that does not respond.

import assert from "node:assert/strict";
import { test } from "node:test";

import { eventually } from "./Browser.mjs";
import { open, openWith, page, pauseClock, service, text, texts, waitForPoll, watched } from "./Harness.mjs";
import { busyState, emptyState, relayOf, streamId } from "./Samples.mjs";

test("the header shows the state of media and origin", async () => {
    const state = busyState();
    state.service.origin = {
        address: "rtmp://127.0.0.1:4935",
        state: "reconnecting",
        error: "nginx exited",
        restarts: 2,
    };
    await open(state);
    assert.equal(await text("#media-state"), "on");
    assert.equal(await text("#origin-state"), "reconnecting");
    assert.equal(await text("#origin-detail"), "rtmp://127.0.0.1:4935 · nginx exited · 2 restarts");
    assert.deepEqual(await texts("nav .count"), ["2", "2", "0", "7"]);
    assert.equal(await page.locator(".empty:visible").count(), 0);
});

test("without media, the header says so; empty sections suggest a command", async () => {
    await open(emptyState());
    assert.match(await text("#media-state"), /^off/);
    assert.equal(await text("#origin-state"), "none");
    for (const section of ["mixes", "relays", "requests"]) {
        const hint = page.locator(`#${section}-empty`);
        assert.ok(await hint.isVisible());
        assert.match(await hint.textContent(), /No \w+ yet.*vexalive (mix|relay)/s);
    }
});

test("a service that does not respond is reported and polled less often until it responds", async () => {
    await openWith({ relays: [relayOf("alice")] }, { allowsFailures: true });
    const banner = page.locator("#connection-lost");
    assert.ok(await banner.isHidden());
    await page.evaluate(() => {
        const detail = document.getElementById("connection-detail");
        window.delays = [];
        const record = () => {
            window.delays.push(Number(/Retrying in (\d+) s/.exec(detail.textContent)[1]));
            window.failedAt = Date.now();
        };
        new MutationObserver(record).observe(detail, { childList: true });
    });
    await pauseClock();
    await service.stop();
    const retryDelays = async () => {
        await watched.advance(1000);
        return page.evaluate(() => window.delays);
    };
    await eventually(retryDelays, [1, 2, 4, 8, 15]);
    const attempts = await watched.fetchCount("/state");
    const elapsed = await page.evaluate(() => Date.now() - window.failedAt); // on the paused clock
    await watched.advance(14900 - elapsed);
    assert.equal(await watched.fetchCount("/state"), attempts);
    await watched.advance(200);
    assert.equal(await watched.fetchCount("/state"), attempts + 1);
    assert.ok(await banner.isVisible());
    assert.equal(await text("#service-state"), "not responding");
    assert.equal(await text("#announcement"), "The service does not respond.");
    assert.equal(await text(".relay .stream-id"), streamId("alice"), "the last known state");
    assert.match(await banner.textContent(), /Last response at \d\d:\d\d:\d\d/);
    await page.locator("[data-kind=empty]").getByRole("button").click();
    await eventually(() => text("[data-kind=empty] .problem"), "the service does not respond");
    service.state = { ...emptyState(), relays: [relayOf("bob")] };
    await service.start();
    await page.getByRole("button", { name: "Retry now" }).click();
    await banner.waitFor({ state: "hidden" });
    assert.equal(await text("#announcement"), "The service responds again.");
    await eventually(() => texts(".relay .stream-id"), [streamId("bob")]);
    await waitForPoll(); // at intervals of 1 s again
});

test("an error response is reported with its status and message", async () => {
    await open(emptyState(), { allowsFailures: true });
    service.stateError = "overloaded";
    await waitForPoll();
    await eventually(() => page.locator("#connection-lost").isVisible(), true);
    assert.match(await text("#connection-detail"), /^Last error: HTTP 503: overloaded\. Last response at/);
});

test("the page polls once per second", async () => {
    await open(emptyState());
    await pauseClock();
    await waitForPoll();
    for (let second = 1; second <= 3; ++second) {
        service.state.relays = [relayOf(second)];
        const earlier = await watched.fetchCount("/state");
        await watched.advance(900);
        assert.equal(await watched.fetchCount("/state"), earlier);
        await watched.advance(200);
        assert.equal(await watched.fetchCount("/state"), earlier + 1);
        await eventually(() => texts(".relay .stream-id"), [streamId(second)]);
    }
});
