// Strings from requests and media that attack the page.

import assert from "node:assert/strict";
import { test } from "node:test";

import { open, openAllDetails, page, service, text, waitForPoll } from "./Harness.mjs";
import { audio, mediaOf, mixOf, relayOf, requestOf, video } from "./Samples.mjs";

// Markup, a template expression and a change of text direction.
const hostile = '"><img src=x onerror="alert(1)"><script>alert(2)</script>\u202e{{x}}';

test("external strings appear as text, never as markup", async () => {
    const inputs = [
        { ...video("alice", 2, 0, 0, 1280, 720), stream_id: hostile },
        { ...audio("bob", 3), stream_id: hostile },
    ];
    const media = mediaOf(inputs, { state: hostile, error: hostile, bytes: hostile, frames: hostile });
    media.inputs[0].error = hostile;
    const history = [
        {
            time: hostile,
            operation: hostile,
            canvas: { width: hostile, height: hostile, color: hostile },
            inputs: hostile,
        },
    ];
    const canvas = { width: 1280, height: 720, color: hostile };
    service.activeFaults = [
        { kind: hostile, count: hostile, interface: hostile },
        { kind: "code", count: 1, code: 1, message: hostile },
    ];
    await open({
        service: { media: true, origin: { address: hostile, state: hostile, error: hostile, restarts: hostile } },
        mixes: [
            mixOf("room", inputs, {
                output_stream_id: hostile,
                play: hostile,
                media,
                canvas,
                history,
                since: hostile,
                appid: hostile,
                output: { output_stream_bitrate: hostile },
            }),
        ],
        relays: [
            relayOf("alice", {
                stream_id: hostile,
                source: hostile,
                dest_stream_url: hostile,
                media: mediaOf([], { state: hostile, error: hostile }),
            }),
        ],
        requests: [
            requestOf(0, {
                interface: hostile,
                query: hostile,
                body: hostile,
                response: hostile,
                fault: hostile,
                refused_field: hostile,
            }),
            requestOf(1, {
                body: { [hostile]: hostile },
                refused_field: hostile,
                response: JSON.stringify({ code: 4006, message: hostile }),
            }),
        ],
    });
    await openAllDetails();
    await waitForPoll();
    await page.locator(".box .id-button").first().hover();
    assert.equal(await page.locator("img, body script, [onerror]").count(), 0);
    for (const selector of [
        ".mix h3",
        ".mix > .problem",
        ".inputs .problem",
        ".play code",
        ".relay h3",
        ".relay code",
        ".relay .problem",
        ".relay .state",
        ".mix > summary .state",
        "#origin-state",
        "#active-faults li",
        ".request:last-child .interface",
        ".request:last-child .content pre >> nth=1",
    ]) {
        assert.ok((await text(selector)).includes(hostile), selector);
    }
    assert.equal(await page.locator("#id-tooltip").textContent(), hostile);
    assert.ok(await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth));
});
