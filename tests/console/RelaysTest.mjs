// The section "Relays".

import assert from "node:assert/strict";
import { test } from "node:test";

import { eventually } from "./Browser.mjs";
import { openWith, page, service, text, texts, waitForPoll } from "./Harness.mjs";
import { mediaOf, relayOf, streamId } from "./Samples.mjs";

test("a relay is shown with its source, destination, state, error and counters until it is removed", async () => {
    const media = mediaOf([], {
        state: "reconnecting",
        error: "the destination refused",
        bytes: 12,
        frames: 3,
        dropped: 4,
        reconnects: 5,
        restarts: 6,
    });
    await openWith({ relays: [relayOf("alice"), relayOf("bob", { media })] });
    const card = page.locator(".relay").nth(1);
    assert.equal(await card.locator(".stream-id").textContent(), streamId("bob"));
    const addresses = [`rtmp://127.0.0.1:1935/live/${streamId("bob")}`, "rtmp://cdn.example/live/main"];
    assert.deepEqual(await card.locator("code").allTextContents(), addresses);
    assert.equal(await card.locator(".state").textContent(), "reconnecting");
    assert.equal(await card.locator(".problem").textContent(), "the destination refused");
    assert.deepEqual(await card.locator("dd").allTextContents(), [...addresses, "12 B", "3", "4", "5", "6"]);
    assert.ok(await page.locator(".relay").first().locator(".problem").isHidden());
    service.state.relays = [relayOf("bob")];
    await waitForPoll();
    await eventually(() => texts(".relay .stream-id"), [streamId("bob")]);
    assert.equal(await text(".relay .state"), "running");
});
