// The section "Mixes".

import assert from "node:assert/strict";
import { describe, test } from "node:test";

import { eventually } from "./Browser.mjs";
import { openWith, page, service, text, texts, waitForPoll } from "./Harness.mjs";
import { audio, mediaOf, mixOf, streamId, timeAt, video } from "./Samples.mjs";

const overlapping = [video("alice", 2, 0, 0, 640, 720), video("bob", 3, 320, 180, 960, 360), audio("carol", 4)];

function openMix(inputs, change, options) {
    return openWith({ mixes: [mixOf("room", inputs, change)] }, options);
}

function boxAt(x, y) {
    return page.locator(".mix .canvas").evaluate(
        (canvas, [horizontal, vertical]) => {
            const { x: left, y: top, width, height } = canvas.getBoundingClientRect();
            const element = document.elementFromPoint(left + width * horizontal, top + height * vertical);
            return element.closest(".box").querySelector(".layer").textContent;
        },
        [x, y],
    );
}

describe("the layout", () => {
    test("has the proportions of the canvas, with the higher layer on top", async () => {
        await openMix(overlapping);
        const { ratio, boxes, colour } = await page.locator(".mix .canvas").evaluate((canvas) => {
            const whole = canvas.getBoundingClientRect();
            return {
                ratio: whole.width / whole.height,
                boxes: [...canvas.querySelectorAll(".box")].map((box) => {
                    const { x, y, width, height } = box.getBoundingClientRect();
                    return [x - whole.x, y - whole.y, width, height].map((length) => (length * 1280) / whole.width);
                }),
                colour: getComputedStyle(canvas).backgroundColor,
            };
        });
        assert.ok(Math.abs(ratio - 1280 / 720) < 0.01, `ratio ${ratio}`);
        const expected = [
            [0, 0, 640, 720],
            [320, 180, 960, 360],
        ];
        assert.equal(boxes.length, expected.length);
        boxes.forEach((box, index) =>
            box.forEach((length, side) => {
                assert.ok(Math.abs(length - expected[index][side]) < 3, `box ${index} is ${box}`);
            }),
        );
        assert.equal(await boxAt(0.4, 0.5), "3");
        assert.equal(colour, "rgb(32, 48, 64)");
    });

    test("stacks inputs by layer, not by their order in the list", async () => {
        await openMix([video("alice", 9, 0, 0, 1280, 720), video("bob", 2, 0, 0, 1280, 720)]);
        assert.equal(await boxAt(0.5, 0.5), "9");
    });

    test("lists inputs without an area as audio only", async () => {
        await openMix([...overlapping, video("dora", 5, 0, 0, 0, 100)]);
        assert.deepEqual(
            await page.locator(".audio-only .id-button").evaluateAll((ids) => ids.map((id) => id.dataset.id)),
            [streamId("carol"), streamId("dora")],
        );
        assert.equal(await page.locator(".box").count(), 2);
    });

    test("reports an area outside the canvas, and does not widen the page", async () => {
        await openMix([
            video("alice", 2, -5000, 0, 640, 720),
            video("bob", 3, -100, 700, 2147483647, 2147483647),
        ]);
        assert.deepEqual(await texts(".inputs [data-part=area]"), [
            "640 × 720 at -5000, 0: outside",
            "2147483647 × 2147483647 at -100, 700",
        ]);
        assert.ok(await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth));
    });

    test("is hidden for a mix of audio only", async () => {
        await openWith({ mixes: [mixOf("talk", [audio("alice", 1), audio("bob", 2)], { canvas: null })] });
        assert.ok(await page.locator(".figures").isHidden());
        assert.equal(await page.locator(".audio-only-input").count(), 2);
        await waitForPoll();
        assert.equal(service.count("/snapshot"), 0);
    });
});

describe("a stream id", () => {
    test("is shortened, and shown in full on hover and focus", async () => {
        await openMix(overlapping);
        const id = streamId("alice");
        const button = page.locator(".box .id-button").first();
        assert.equal(await button.textContent(), `${id.slice(0, 9)}…${id.slice(-4)}`);
        const tooltip = page.locator("#id-tooltip");
        assert.ok(await tooltip.isHidden());
        await button.hover();
        assert.equal(await tooltip.textContent(), id);
        assert.ok(await tooltip.isVisible());
        // The tooltip remains while the pointer is on it, so that the user can select the id.
        await tooltip.hover();
        await page.clock.runFor(500);
        assert.ok(await tooltip.isVisible());
        await tooltip.click();
        assert.equal(await page.evaluate(() => String(getSelection())), id);
        await page.mouse.move(5, 5);
        await tooltip.waitFor({ state: "hidden" });
        await button.focus();
        assert.ok(await tooltip.isVisible());
        await page.keyboard.press("Escape");
        assert.ok(await tooltip.isHidden());
    });

    test("can be copied, like the address to play", async () => {
        await openMix(overlapping, {}, { permissions: ["clipboard-read", "clipboard-write"] });
        const clipboard = () => page.evaluate(() => navigator.clipboard.readText());
        const address = `rtmp://127.0.0.1:1935/mix/${streamId("room")}`;
        assert.equal(await text(".play code"), address);
        await page.locator(".play button").click();
        await eventually(clipboard, address);
        await page.locator(".box .id-button").first().click();
        await eventually(clipboard, streamId("alice"));
    });
});

describe("a mix", () => {
    test("shows its state, error, counters and output parameters, and the state of each input", async () => {
        const inputs = [video("alice", 2, 0, 0, 640, 720), audio("bob", 3)];
        const media = mediaOf(inputs, {
            state: "reconnecting",
            error: "the origin is away",
            bytes: 48213377,
            frames: 5210,
            dropped: 3,
            reconnects: 4,
            restarts: 1,
        });
        media.inputs[1] = { ...media.inputs[1], state: "starting", error: "no publisher yet", bytes: 999, frames: 0 };
        await openMix(inputs, { media });
        assert.equal(await text(".mix > summary .state"), "reconnecting");
        assert.equal(await text(".mix > .problem"), "the origin is away");
        assert.deepEqual(await texts(".mix > .counters dt"), ["Sent", "Frames", "Dropped", "Reconnects", "Restarts"]);
        assert.deepEqual(await texts(".mix > .counters dd"), ["48.2 MB", "5,210", "3", "4", "1"]);
        assert.deepEqual(await texts(".inputs [data-part=state]"), ["running", "starting"]);
        assert.deepEqual(await texts(".inputs [data-part=error]"), ["", "no publisher yet"]);
        assert.deepEqual(await texts(".inputs [data-part=bytes]"), ["654.3 kB", "999 B"]);
        assert.match(
            await text(".mix [data-part=facts]"),
            /app 1250000000 .*video 1500 .* 20 frames\/s · key frame every 2 s · audio 64 .* 48000 Hz · 2 channels/,
        );
    });

    test("shows its history, latest first", async () => {
        const canvas = { width: 640, height: 360, color: "0x000000" };
        const history = [
            { time: timeAt(1), operation: "start", canvas, inputs: 1 },
            { time: timeAt(2), operation: "update", canvas: null, inputs: 2 },
            { time: timeAt(3), operation: "cancel", canvas: null, inputs: 0 },
            { time: timeAt(4), operation: "start", canvas, inputs: 1 },
        ];
        await openMix(overlapping, { history, updates: 60 });
        await page.locator(".history summary").click();
        assert.deepEqual(await texts(".history strong"), ["start", "cancel", "update", "start"]);
        assert.deepEqual(await texts(".history .secondary"), [
            "1 input, canvas 640 × 360",
            "",
            "2 inputs, audio only",
            "1 input, canvas 640 × 360",
        ]);
        assert.equal(await text(".history .count"), "the last 4 of 60");
    });

    test("that was cancelled is collapsed and dimmed below the running ones, until expanded", async () => {
        const ended = { running: false, media: null, play: "" };
        await openWith({ mixes: [mixOf("aaa", overlapping), mixOf("room", overlapping)] });
        const colourOf = () =>
            page
                .locator(`.mix:has(.stream-id:text-is("${streamId("aaa")}")) .stream-id`)
                .evaluate((id) => getComputedStyle(id).color);
        const runningColour = await colourOf();
        service.state.mixes[0] = mixOf("aaa", overlapping, ended);
        await waitForPoll();
        await eventually(() => texts(".mix > summary .state"), ["running", "cancelled"]);
        assert.deepEqual(await texts(".mix > summary .stream-id"), [streamId("room"), streamId("aaa")]);
        const mix = page.locator("#ended-mix-list .mix");
        assert.equal(await mix.evaluate((element) => element.open), false);
        assert.notEqual(await colourOf(), runningColour);
        await mix.locator("> summary").click();
        await waitForPoll();
        assert.equal(await mix.evaluate((element) => element.open), true);
    });

    test("is updated in place and keeps the focus", async () => {
        await openMix(overlapping);
        const box = page.locator(".box").first();
        await box.locator(".id-button").focus();
        await box.evaluate((element) => (element.isTheSame = true));
        const moved = [video("alice", 2, 640, 360, 640, 360), video("dora", 3, 0, 0, 640, 360)];
        service.state.mixes = [mixOf("room", moved, { media: mediaOf(moved, { state: "running", frames: 7777 }) })];
        await waitForPoll();
        await eventually(() => texts(".inputs [data-part=area]"), ["640 × 360 at 640, 360", "640 × 360 at 0, 0"]);
        assert.equal(await box.evaluate((element) => element.style.left), "50%");
        assert.equal((await texts(".mix > .counters dd"))[1], "7,777");
        assert.ok(
            await box.evaluate((element) => element.isTheSame && element.contains(document.activeElement)),
        );
        for (const parent of [".box", ".inputs"]) {
            const buttons = page.locator(`${parent} .id-button`);
            const ids = await buttons.evaluateAll((elements) => elements.map((element) => element.dataset.id));
            assert.deepEqual(ids, [streamId("alice"), streamId("dora")]);
            assert.ok((await buttons.last().textContent()).endsWith(streamId("dora").slice(-4)));
        }
        assert.ok(await page.locator(".audio-only").isHidden());
    });
});
