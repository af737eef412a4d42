// The console against a service that says what each test wants.

import assert from "node:assert/strict";
import { after, afterEach, before, beforeEach, describe, test } from "node:test";

import { WatchedPage, eventually, launch, pause } from "./Browser.mjs";
import {
    MockService,
    audio,
    busyState,
    emptyState,
    mediaOf,
    mixOf,
    refusedOf,
    relayBody,
    relayOf,
    requestOf,
    streamId,
    timeAt,
    video,
} from "./MockService.mjs";

const colours = { red: [200, 40, 40], green: [40, 160, 60], blue: [40, 60, 200], grey: [90, 90, 90] };

let browser, service, watched, page;
const pictures = {}; // JPEGs of one colour, by its name
let quarters; // a JPEG with a colour in each corner

before(async () => {
    browser = await launch();
    const painter = await browser.newPage({ viewport: { width: 160, height: 90 } });
    const paint = async (places) => {
        const styled = places.map(
            ([name, left, top]) => `<div style="position:absolute;width:100%;height:100%;left:${left};
      top:${top};background:rgb(${colours[name]})"></div>`,
        );
        await painter.setContent(`<body style="margin:0;overflow:hidden">${styled.join("")}</body>`);
        return painter.screenshot({ type: "jpeg", quality: 95 });
    };
    for (const name of Object.keys(colours)) {
        pictures[name] = await paint([[name, "0", "0"]]);
    }
    quarters = await paint([
        ["red", "0", "0"],
        ["green", "50%", "0"],
        ["blue", "0", "50%"],
        ["grey", "50%", "50%"],
    ]);
    await painter.close();
});
after(() => browser.close());
beforeEach(async () => {
    service = new MockService();
    service.picture = pictures.grey;
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

async function open(state, options) {
    if (state) {
        service.state = state;
    }
    watched = await WatchedPage.open(browser, service.address, options);
    page = watched.page;
    await page.waitForFunction(() => document.getElementById("service-state").textContent === "answers");
}

function stateWith(parts) {
    return { ...emptyState(), service: busyState().service, ...parts };
}

const texts = (selector) => page.locator(selector).allTextContents();
const text = (selector) => page.locator(selector).first().textContent();

async function unfoldAll() {
    await page.evaluate(() => document.querySelectorAll("details").forEach((details) => (details.open = true)));
    await page.locator(".request pre").first().waitFor();
}

async function unfold(request) {
    await request.locator("summary").click();
    await request.locator(".content section").nth(2).waitFor();
}

// The pieces of a text that are marked, as one text; and what is said about them.
async function marksIn(request) {
    await unfold(request);
    const marked = await request.locator("mark").evaluateAll((marks) => marks.map((mark) => mark.textContent).join(""));
    return [
        marked.replace(/ ← .*/s, "").replace(/\s+/g, " "),
        (await request.locator(".remark").allTextContents()).join("|").trim(),
    ];
}

describe("the head", () => {
    test("tells of media and origin", async () => {
        const state = busyState();
        state.service.origin = {
            address: "rtmp://127.0.0.1:4935",
            state: "reconnecting",
            error: "nginx has ended",
            restarts: 2,
        };
        await open(state);
        assert.equal(await text("#media-state"), "runs");
        assert.equal(await text("#origin-state"), "reconnecting");
        assert.equal(await text("#origin-detail"), "rtmp://127.0.0.1:4935 · nginx has ended · 2 restarts");
        assert.deepEqual(await texts("nav .count"), ["2", "2", "0", "7"]);
    });

    test("of a service without media says so, and what to try where nothing is", async () => {
        await open(emptyState());
        assert.match(await text("#media-state"), /^off/);
        assert.equal(await text("#origin-state"), "none");
        for (const section of ["mixes", "relays", "requests"]) {
            const hint = page.locator(`#${section}-empty`);
            assert.ok(await hint.isVisible());
            assert.match(await hint.textContent(), /Nothing here yet.* vexalive (mix|relay) /s);
        }
    });

    test("has no hints where something is", async () => {
        await open(busyState());
        assert.equal(await page.locator(".empty:visible").count(), 0);
    });
});

describe("a mix", () => {
    const overlapping = [video("alice", 2, 0, 0, 640, 720), video("bob", 3, 320, 180, 960, 360), audio("carol", 4)];

    test("is drawn to scale, the higher layer above", async () => {
        await open(stateWith({ mixes: [mixOf("room", overlapping)] }));
        const shares = await page.locator(".mix .canvas").evaluate((canvas) => {
            const whole = canvas.getBoundingClientRect();
            return {
                ratio: whole.width / whole.height,
                boxes: [...canvas.querySelectorAll(".box")].map((box) => {
                    const { x, y, width, height } = box.getBoundingClientRect();
                    return [x - whole.x, y - whole.y, width, height].map((length) => (length * 1280) / whole.width);
                }),
            };
        });
        assert.ok(Math.abs(shares.ratio - 1280 / 720) < 0.01, `ratio ${shares.ratio}`);
        const expected = [
            [0, 0, 640, 720],
            [320, 180, 960, 360],
        ];
        shares.boxes.forEach((box, at) =>
            box.forEach((length, side) => {
                assert.ok(Math.abs(length - expected[at][side]) < 3, `box ${at} is ${box}`);
            }),
        );
        assert.equal(shares.boxes.length, 2);
        const top = await page.locator(".mix .canvas").evaluate((canvas) => {
            const { x, y, width, height } = canvas.getBoundingClientRect();
            return document
                .elementFromPoint(x + width * 0.4, y + height * 0.5)
                .closest(".box")
                .querySelector(".layer").textContent;
        });
        assert.equal(top, "3");
        assert.equal(
            await page.locator(".mix .canvas").evaluate((canvas) => getComputedStyle(canvas).backgroundColor),
            "rgb(32, 48, 64)",
        );
    });

    test("draws layers, not the order of the list", async () => {
        await open(
            stateWith({
                mixes: [mixOf("room", [video("alice", 9, 0, 0, 1280, 720), video("bob", 2, 0, 0, 1280, 720)])],
            }),
        );
        const top = await page.locator(".mix .canvas").evaluate((canvas) => {
            const { x, y, width, height } = canvas.getBoundingClientRect();
            return document
                .elementFromPoint(x + width * 0.5, y + height * 0.5)
                .closest(".box")
                .querySelector(".layer").textContent;
        });
        assert.equal(top, "9");
    });

    test("names its inputs in short, and in whole when pointed at or focused", async () => {
        await open(stateWith({ mixes: [mixOf("room", overlapping)] }));
        const whole = streamId("alice");
        const name = page.locator(".box .id-name").first();
        assert.equal(await name.textContent(), `${whole.slice(0, 9)}…${whole.slice(-4)}`);
        const tip = page.locator("#whole-id");
        assert.ok(await tip.isHidden());
        await name.hover();
        assert.equal(await tip.textContent(), whole);
        assert.ok(await tip.isVisible());
        await tip.hover(); // stays while the pointer is on it, to be selected
        await pause(500);
        assert.ok(await tip.isVisible());
        await tip.click();
        assert.equal(await page.evaluate(() => String(getSelection())), whole);
        await page.mouse.move(5, 5);
        await tip.waitFor({ state: "hidden" });
        await name.focus();
        assert.ok(await tip.isVisible());
        await page.keyboard.press("Escape");
        assert.ok(await tip.isHidden());
    });

    test("lists beside the canvas who is only heard", async () => {
        await open(stateWith({ mixes: [mixOf("room", [...overlapping, video("dora", 5, 0, 0, 0, 100)])] }));
        assert.deepEqual(
            await page.locator(".heard-only .id-name").evaluateAll((names) => names.map((name) => name.dataset.whole)),
            [streamId("carol"), streamId("dora")],
        );
        assert.equal(await page.locator(".box").count(), 2);
    });

    test("of voices alone has neither canvas nor picture", async () => {
        service.picture = pictures.red;
        await open(stateWith({ mixes: [mixOf("talk", [audio("alice", 1), audio("bob", 2)], { canvas: null })] }));
        assert.ok(await page.locator(".pair").isHidden());
        assert.equal(await page.locator(".heard").count(), 2);
        await pause(1200);
        assert.equal(service.count("/snapshot"), 0);
    });

    test("says when a rectangle lies outside, and stays within the page", async () => {
        await open(
            stateWith({
                mixes: [
                    mixOf("room", [
                        video("alice", 2, -5000, 0, 640, 720),
                        video("bob", 3, -100, 700, 2147483647, 2147483647),
                    ]),
                ],
            }),
        );
        assert.deepEqual(await texts(".inputs [data-part=place]"), [
            "640 × 720 at -5000, 0: outside",
            "2147483647 × 2147483647 at -100, 700",
        ]);
        assert.ok(await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth));
    });

    test("shows state, error, numbers, each input's state and what was asked for", async () => {
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
        media.inputs[1] = {
            ...media.inputs[1],
            state: "starting",
            error: "no one publishes yet",
            bytes: 999,
            frames: 0,
        };
        await open(stateWith({ mixes: [mixOf("room", inputs, { media })] }));
        assert.equal(await text(".mix > summary .state"), "reconnecting");
        assert.equal(await text(".mix > .problem"), "the origin is away");
        assert.deepEqual(await texts(".mix > .numbers dt"), ["Sent", "Frames", "Dropped", "Reconnects", "Restarts"]);
        assert.deepEqual(await texts(".mix > .numbers dd"), ["48.2 MB", "5,210", "3", "4", "1"]);
        assert.deepEqual(await texts(".inputs [data-part=state]"), ["running", "starting"]);
        assert.deepEqual(await texts(".inputs [data-part=error]"), ["", "no one publishes yet"]);
        assert.deepEqual(await texts(".inputs [data-part=bytes]"), ["654.3 kB", "999 B"]);
        assert.match(
            await text(".mix [data-part=output]"),
            /app 1250000000 .*video 1500 .* 20 frames\/s · key frame every 2 s · audio 64 .* 48000 Hz · 2 channels/,
        );
    });

    test("gives its address to copy", async () => {
        await open(stateWith({ mixes: [mixOf("room", overlapping)] }), {
            permissions: ["clipboard-read", "clipboard-write"],
        });
        assert.equal(await text(".play code"), `rtmp://127.0.0.1:1935/mix/${streamId("room")}`);
        await page.locator(".play button").click();
        assert.equal(
            await page.evaluate(() => navigator.clipboard.readText()),
            `rtmp://127.0.0.1:1935/mix/${streamId("room")}`,
        );
        await page.locator(".box .id-name").first().click();
        assert.equal(await page.evaluate(() => navigator.clipboard.readText()), streamId("alice"));
    });

    test("tells its history, the latest first", async () => {
        const canvas = { width: 640, height: 360, color: "0x000000" };
        const history = [
            { time: timeAt(1), operation: "start", canvas, inputs: 1 },
            { time: timeAt(2), operation: "update", canvas: null, inputs: 2 },
            { time: timeAt(3), operation: "cancel", canvas: null, inputs: 0 },
            { time: timeAt(4), operation: "start", canvas, inputs: 1 },
        ];
        await open(stateWith({ mixes: [mixOf("room", overlapping, { history, updates: 60 })] }));
        await page.locator(".history summary").click();
        assert.deepEqual(await texts(".history strong"), ["start", "cancel", "update", "start"]);
        assert.deepEqual(await texts(".history .quiet"), [
            "1 input, canvas 640 × 360",
            "",
            "2 inputs, audio only",
            "1 input, canvas 640 × 360",
        ]);
        assert.equal(await text(".history .count"), "the last 4 of 60");
    });

    test("that is cancelled is folded and dim, below those that run, until unfolded", async () => {
        await open(stateWith({ mixes: [mixOf("aaa", overlapping), mixOf("room", overlapping)] }));
        const colourOf = () =>
            page
                .locator(`.mix:has(.stream-id:text-is("${streamId("aaa")}")) .stream-id`)
                .evaluate((id) => getComputedStyle(id).color);
        const bright = await colourOf();
        service.state = stateWith({
            mixes: [mixOf("aaa", overlapping, { running: false, media: null, play: "" }), mixOf("room", overlapping)],
        });
        await eventually(() => texts(".mix > summary .state"), ["running", "cancelled"]);
        assert.deepEqual(await texts(".mix > summary .stream-id"), [streamId("room"), streamId("aaa")]);
        const ended = page.locator("#ended-mix-list .mix");
        assert.equal(await ended.evaluate((mix) => mix.open), false);
        assert.notEqual(await colourOf(), bright);
        await ended.locator("> summary").click();
        await pause(1500);
        assert.equal(await ended.evaluate((mix) => mix.open), true);
    });

    test("changes while it is looked at, and keeps the focus", async () => {
        await open(stateWith({ mixes: [mixOf("room", overlapping)] }));
        await page.locator(".box .id-name").first().focus();
        await page
            .locator(".box")
            .first()
            .evaluate((box) => (box.isTheSame = true));
        const moved = [video("alice", 2, 640, 360, 640, 360), video("dora", 3, 0, 0, 640, 360)];
        service.state = stateWith({
            mixes: [mixOf("room", moved, { media: mediaOf(moved, { state: "running", frames: 7777 }) })],
        });
        await eventually(() => texts(".inputs [data-part=place]"), ["640 × 360 at 640, 360", "640 × 360 at 0, 0"]);
        assert.equal(
            await page
                .locator(".box")
                .first()
                .evaluate((box) => box.style.left),
            "50%",
        );
        assert.equal((await texts(".mix > .numbers dd"))[1], "7,777");
        assert.ok(
            await page
                .locator(".box")
                .first()
                .evaluate((box) => box.isTheSame && box.contains(document.activeElement)),
        );
        for (const place of [".box", ".inputs"]) {
            const names = page.locator(`${place} .id-name`);
            const wholes = await names.evaluateAll((buttons) => buttons.map((button) => button.dataset.whole));
            assert.deepEqual(wholes, [streamId("alice"), streamId("dora")]);
            assert.ok((await names.last().textContent()).endsWith(streamId("dora").slice(-4)));
        }
        assert.ok(await page.locator(".heard-only").isHidden());
    });
});

describe("the live picture", () => {
    const mixes = () => [mixOf("room", [video("alice", 2, 0, 0, 1280, 720)])];
    const pixel = (x, y) =>
        page
            .locator(".mix canvas")
            .first()
            .evaluate(
                (canvas, at) => {
                    const copy = new OffscreenCanvas(1, 1).getContext("2d", { willReadFrequently: true });
                    copy.drawImage(canvas, -Math.floor(canvas.width * at[0]), -Math.floor(canvas.height * at[1]));
                    return [...copy.getImageData(0, 0, 1, 1).data.slice(0, 3)];
                },
                [x, y],
            );
    const nameOf = (rgb) =>
        Object.keys(colours).find((name) => colours[name].every((part, index) => Math.abs(part - rgb[index]) < 16)) ??
        `${rgb}`;

    test("is that of the output, and follows it", async () => {
        service.picture = quarters;
        await open(stateWith({ mixes: mixes() }));
        await page.locator(".mix canvas").first().waitFor();
        const corners = async () =>
            Promise.all(
                [
                    [0.2, 0.2],
                    [0.8, 0.2],
                    [0.2, 0.8],
                    [0.8, 0.8],
                ].map(async (at) => nameOf(await pixel(...at))),
            );
        assert.deepEqual(await corners(), ["red", "green", "blue", "grey"]);
        assert.equal(
            service.asked.find(([, path]) => path.startsWith("/snapshot"))[1],
            `/snapshot?mix=${streamId("room")}`,
        );
        service.picture = pictures.green;
        await eventually(corners, ["green", "green", "green", "green"], 2000);
    });

    test("comes three or four times a second, one at a time", async () => {
        service.picture = pictures.red;
        service.pictureDelay = 50;
        await open(stateWith({ mixes: mixes() }));
        await page.locator(".mix canvas").first().waitFor();
        const earlier = service.count("/snapshot");
        await pause(4000);
        const asked = service.count("/snapshot") - earlier;
        assert.ok(asked >= 8 && asked <= 16, `${asked} in 4 s`);
        service.pictureDelay = 2500; // slower than any pace
        await pause(6000);
        assert.equal(service.mostPicturesUnderWay, 1);
    });

    test("is not asked for where nobody sees it", async () => {
        service.picture = pictures.red;
        await open(stateWith({ mixes: mixes() }));
        const isStill = async () => {
            await pause(700); // what is under way may end
            const earlier = service.count("/snapshot");
            await pause(1500);
            return service.count("/snapshot") === earlier;
        };
        const runs = () =>
            eventually(async () => {
                const earlier = service.count("/snapshot");
                await pause(700);
                return service.count("/snapshot") > earlier;
            }, true);
        await runs();
        await page.evaluate(() => {
            Object.defineProperty(document, "hidden", { value: true, configurable: true });
            document.dispatchEvent(new Event("visibilitychange"));
        });
        assert.ok(await isStill(), "page hidden");
        const polls = service.count("/state");
        await pause(1500);
        assert.equal(service.count("/state"), polls, "a hidden page asks nothing");
        await page.evaluate(() => {
            delete document.hidden;
            document.dispatchEvent(new Event("visibilitychange"));
        });
        await runs();
        await page.locator(".mix > summary").click();
        assert.ok(await isStill(), "mix folded");
        await page.locator(".mix > summary").click();
        await runs();
        await page.getByRole("button", { name: "Pause" }).click();
        assert.ok(await isStill(), "paused");
        await page.getByRole("button", { name: "Pause" }).click();
        await runs();
        service.state = stateWith({ mixes: mixes().map((mix) => ({ ...mix, running: false, media: null })) });
        await eventually(() => text(".mix > summary .state"), "cancelled");
        assert.ok(await isStill(), "cancelled");
    });

    test("that is missing is said to be missing, in the service's words", async () => {
        service.picture = null;
        await open(stateWith({ mixes: mixes() }), { mayMissAnswers: true });
        await eventually(() => text(".no-picture"), "No picture: the mix has no picture yet");
        service.picture = pictures.red;
        await page.locator(".mix canvas").first().waitFor();
        assert.ok(await page.locator(".no-picture").isHidden());
    });

    test("is not asked for without media", async () => {
        await open({
            ...emptyState(),
            mixes: [mixOf("room", [video("alice", 2, 0, 0, 1280, 720)], { media: null, play: undefined })],
        });
        assert.equal(await text(".no-picture"), "No picture: the service runs without media");
        assert.equal(await text(".mix > summary .state"), "accepted, without media");
        assert.ok(await page.locator(".play").isHidden());
        await pause(1000);
        assert.equal(service.count("/snapshot"), 0);
    });

    test("comes seldom for who wants little to move", async () => {
        service.picture = pictures.red;
        await open(stateWith({ mixes: mixes() }), { reducedMotion: "reduce" });
        await pause(3000);
        assert.equal(service.count("/snapshot"), 1);
    });
});

describe("a relay", () => {
    test("shows source, destination, state, error and numbers, and goes when it is removed", async () => {
        const media = mediaOf([], {
            state: "reconnecting",
            error: "the destination refused",
            bytes: 12,
            frames: 3,
            dropped: 4,
            reconnects: 5,
            restarts: 6,
        });
        await open(stateWith({ relays: [relayOf("alice"), relayOf("bob", { media })] }));
        const card = page.locator(".relay").nth(1);
        assert.equal(await card.locator(".stream-id").textContent(), streamId("bob"));
        assert.deepEqual(await card.locator("code").allTextContents(), [
            `rtmp://127.0.0.1:1935/live/${streamId("bob")}`,
            "rtmp://cdn.example/live/main",
        ]);
        assert.equal(await card.locator(".state").textContent(), "reconnecting");
        assert.equal(await card.locator(".problem").textContent(), "the destination refused");
        assert.deepEqual(await card.locator("dd").allTextContents(), [
            ...(await card.locator("code").allTextContents()),
            "12 B",
            "3",
            "4",
            "5",
            "6",
        ]);
        assert.ok(await page.locator(".relay").first().locator(".problem").isHidden());
        service.state = stateWith({ relays: [relayOf("bob")] });
        await eventually(() => texts(".relay .stream-id"), [streamId("bob")]);
        assert.equal(await text(".relay .state"), "running");
    });
});

describe("requests", () => {
    const request = (index) => page.locator(".request").nth(index);

    test("are listed with the latest first", async () => {
        await open(
            stateWith({
                requests: [
                    requestOf(0),
                    refusedOf(1, "appid", "found 0, must not be 0", 4006),
                    requestOf(2, { fault: "close", http_status: 0, answer: "" }),
                    requestOf(3, {
                        fault: "server_code",
                        answer: '{"ErrorCode":505,"ErrorInfo":"on request"}',
                        interface: "set_live_mix_transcoding",
                    }),
                    requestOf(4, { fault: "delay" }),
                ],
            }),
        );
        assert.deepEqual(await texts(".request time"), [
            "12:00:04.000",
            "12:00:03.000",
            "12:00:02.000",
            "12:00:01.000",
            "12:00:00.000",
        ]);
        assert.deepEqual(await texts(".request .interface"), [
            "add_relay_stream_url",
            "set_live_mix_transcoding",
            ...Array(3).fill("add_relay_stream_url"),
        ]);
        assert.deepEqual(await texts(".request .status"), ["HTTP 200", "HTTP 200", "closed", "HTTP 200", "HTTP 200"]);
        assert.deepEqual(await texts(".request .code"), ["code 0", "code 505", "no code", "code 4006", "code 0"]);
        assert.deepEqual(await texts(".request .outcome"), [
            "accepted, after a delay",
            "fault: server_code",
            "fault: close",
            "refused: appid",
            "accepted",
        ]);
    });

    test("unfold to query, body and answer", async () => {
        const body = '{"appid":12345678901234567890,"list":[1.50,{}, [] ],"text":"a \\"b\\" {c}, d:","appid":1e400}';
        await open(stateWith({ requests: [requestOf(0, { body })] }));
        await unfold(request(0));
        assert.deepEqual(await texts(".content h4"), ["Query", `Body, ${body.length} bytes`, "Answer"]);
        assert.deepEqual(await texts(".content pre"), [
            "?sdkappid=1400000001&random=42&usersig=***&parivMapKey=***",
            '{\n  "appid": 12345678901234567890,\n  "list": [\n    1.50,\n    {},\n    []\n  ],\n' +
                '  "text": "a \\"b\\" {c}, d:",\n  "appid": 1e400\n}',
            '{\n  "code": 0,\n  "message": "ok"\n}',
        ]);
        assert.equal(await page.locator("mark").count(), 0);
    });

    test("are shown as they stand where they are cut, no JSON, too deep or empty", async () => {
        const deep = `${"[".repeat(4000)}${"]".repeat(4000)}`;
        const cut = `{"text":"${"x".repeat(8183)}`;
        await open(
            stateWith({
                requests: [
                    requestOf(0, { body: cut, body_bytes: 70000 }),
                    requestOf(1, { body: "{not json" }),
                    requestOf(2, { body: deep }),
                    requestOf(3, { body: "", answer: "" }),
                ],
            }),
        );
        for (const [index, body, title] of [
            [3, cut, "Body, the first 8,192 of 70,000 bytes"],
            [2, "{not json", "Body, 9 bytes"],
            [1, deep, "Body, 8,000 bytes"],
        ]) {
            await unfold(request(index));
            assert.equal(await request(index).locator("pre").nth(1).textContent(), body);
            assert.equal(await request(index).locator("h4").nth(1).textContent(), title);
        }
        await unfold(request(0));
        assert.deepEqual(await request(0).locator(".content .quiet").allTextContents(), ["empty", "empty"]);
    });

    const layout = { image_layer: 2, input_type: 0, image_height: 360 };
    const list = [
        { input_stream_id: "canvas1", layout_params: { image_width: 7 } },
        { input_stream_id: "two", layout_params: { image_width: -5, ...layout } },
    ];
    const marked = {
        "a value": [["domain", 'found "x"', 4006, { body: relayBody({ domain: "x.y" }) }], '"x.y"'],
        "a value deep inside": [
            ["input_stream_list[1].layout_params.image_width", "found -5", 4006, { body: { input_stream_list: list } }],
            "-5",
        ],
        "the object where the field is missing": [
            [
                "input_stream_list[1].layout_params.image_width",
                "missing",
                4003,
                {
                    body: {
                        input_stream_list: [list[0], { input_stream_id: "two", layout_params: { image_layer: 2 } }],
                    },
                },
            ],
            '{ "image_layer": 2 }',
        ],
        "the nearest object where more is missing": [
            ["output_param.output_stream_id", "missing", 4003, { body: { a: 1 } }],
            '{ "a": 1 }',
        ],
        "the list where an element is missing": [
            ["list[1].layout_params", "missing", 4003, { body: { list: [{ a: 1 }], z: 0 } }],
            '[ { "a": 1 } ]',
        ],
        "an array that is no object": [
            ["output_param", "found an array", 4005, { body: { output_param: [1, 2], z: 0 } }],
            "[ 1, 2 ]",
        ],
        "both of two equal keys": [["appid", "found it twice", 4002, { body: '{"appid":1,"x":2,"appid":3}' }], "13"],
        "a key in other letters": [
            [
                `q\\u00fc\\n${"x".repeat(44)}...`,
                "found a field that is not known here",
                4004,
                { body: { [`qü\n${"x".repeat(60)}`]: "here" } },
            ],
            '"here"',
        ],
        "a field that is named query": [
            ["query", "found a field that is not known here", 4004, { body: { query: 1 } }],
            "1",
        ],
        "the whole of an unreadable body": [["body", "found what is not JSON at byte 2", 4002, { body: "{]" }], "{]"],
        "the whole of a body that is no object": [["body", "found 7, must be a JSON object", 4002, { body: "7" }], "7"],
        "a parameter of the query": [
            ["query: usersig", "found it empty", 4001, { query: "sdkappid=1&random=2&usersig=&parivMapKey=***" }],
            "&usersig=",
        ],
        "the query where a parameter is missing": [
            ["query: random", "missing", 4001, { query: "sdkappid=1&usersig=***" }],
            "?sdkappid=1&usersig=***",
        ],
        "the whole query": [["query", "found something else as parameter 1", 4001, { query: "***" }], "?***"],
    };
    test("that are refused have the field marked, and why", async () => {
        await open(
            stateWith({ requests: Object.values(marked).map(([refused], index) => refusedOf(index, ...refused)) }),
        );
        const names = Object.keys(marked);
        for (const [index, name] of names.entries()) {
            const [refused, expected] = marked[name];
            assert.deepEqual(await marksIn(request(names.length - 1 - index)), [expected, `← ${refused[1]}`], name);
        }
    });

    test("up to 200 stay as they are while new ones come, and the page does not jump", async () => {
        const all = Array.from({ length: 230 }, (_, index) =>
            requestOf(index, { body: relayBody({ timestamp: index }) }),
        );
        await open(stateWith({ requests: all.slice(0, 200) }));
        assert.equal(await page.locator(".request").count(), 200);
        const chosen = page.locator('.request:has(time:text-is("12:02:30.000"))');
        await unfold(chosen);
        await chosen.locator("summary").focus();
        await chosen.evaluate((element) => (element.isTheSame = true));
        const placeOf = () => chosen.evaluate((element) => Math.round(element.getBoundingClientRect().top));
        await chosen.evaluate((element) => element.scrollIntoView({ block: "center", behavior: "instant" }));
        await pause(300);
        const place = await placeOf();
        for (const end of [201, 215, 230]) {
            service.state = stateWith({ requests: all.slice(end - 200, end) });
            await eventually(async () => (await texts(".request time"))[0], timeAt(end - 1).slice(11, 23));
            assert.ok(Math.abs((await placeOf()) - place) <= 1, `was at ${place}, is at ${await placeOf()}`);
            assert.equal(await page.locator(".request").count(), 200);
        }
        assert.ok(
            await chosen.evaluate(
                (element) => element.isTheSame && element.open && element.contains(document.activeElement),
            ),
        );
        assert.match(await chosen.locator("pre").nth(1).textContent(), /"timestamp": 150,/);
        assert.deepEqual(await page.locator(".request[open]").count(), 1);
    });

    test("that are alike are all shown", async () => {
        await open(stateWith({ requests: [requestOf(0), requestOf(0), requestOf(0)] }));
        assert.equal(await page.locator(".request").count(), 3);
    });
});

describe("fault", () => {
    const add = (title) => page.getByRole("button", { name: `Add: ${title}`, exact: true }).click();
    const posted = () => service.asked.filter(([method]) => method === "POST").map(([, , body]) => JSON.parse(body));

    test("of each kind is switched on with its values", async () => {
        await open(emptyState());
        const kinds = {
            Delay: { kind: "delay", times: 1, delay_ms: 3000 },
            "HTTP status": { kind: "status", times: 1, status: 503 },
            Empty: { kind: "empty", times: 1 },
            Cut: { kind: "cut", times: 1 },
            Garbage: { kind: "garbage", times: 1 },
            Huge: { kind: "huge", times: 1, size: 2097152 },
            "Server code": { kind: "server_code", times: 1, code: 505, message: "on request", error_code_keys: false },
            Close: { kind: "close", times: 1 },
        };
        for (const title of Object.keys(kinds)) {
            await add(title);
        }
        await eventually(async () => posted(), Object.values(kinds));
        await eventually(() => page.locator("#waiting li").count(), 8);
    });

    test("takes the interface, the count and the values that were chosen", async () => {
        await open(emptyState());
        await page.getByLabel("Interface").selectOption("set_live_mix_transcoding");
        await page.getByLabel("How many times").fill("4");
        const code = page.locator("[data-kind=server_code]");
        await code.getByLabel("code", { exact: true }).fill("-7");
        await code.getByLabel("message").fill("<b>no</b>");
        await code.getByLabel("as ErrorCode and ErrorInfo").check();
        await add("Server code");
        await page.getByLabel("until cleared").check();
        await page.locator("[data-kind=status]").getByRole("spinbutton").fill("");
        await add("HTTP status");
        await eventually(
            async () => posted(),
            [
                {
                    kind: "server_code",
                    times: 4,
                    interface: "set_live_mix_transcoding",
                    code: -7,
                    message: "<b>no</b>",
                    error_code_keys: true,
                },
                { kind: "status", times: 0, interface: "set_live_mix_transcoding", status: null },
            ],
        );
    });

    test("that waits is shown, and cleared by one button", async () => {
        service.waiting = [
            { kind: "status", times: 2, delay_ms: 0, status: 503 },
            { kind: "delay", interface: "add_relay_stream_url", times: 0, delay_ms: 250 },
            { kind: "server_code", times: 1, delay_ms: 10, code: 505, message: "on request", error_code_keys: false },
        ];
        await open(emptyState());
        assert.deepEqual(await texts("#waiting li"), [
            "HTTP status 503 any interface, 2 times",
            "Delay 250 ms add_relay_stream_url, until cleared",
            "Server code 505 “on request” after 10 ms any interface, once",
        ]);
        service.waiting = service.waiting.slice(1);
        await eventually(() => page.locator("#waiting li").count(), 2);
        await page.getByRole("button", { name: "Clear all" }).click();
        await eventually(() => page.locator("#waiting li").count(), 0);
        assert.equal(service.asked.filter(([method]) => method === "DELETE").length, 1);
        assert.ok(await page.locator("#waiting-empty").isVisible());
        assert.ok(await page.getByRole("button", { name: "Clear all" }).isHidden());
    });

    test("that is refused says why, where it was asked for", async () => {
        service.refusal = "status: found 7, must be an integer from 200 to 599";
        await open(emptyState(), { mayMissAnswers: true });
        await page.locator("[data-kind=status]").getByRole("spinbutton").fill("7");
        await add("HTTP status");
        await eventually(() => page.locator(".kinds .problem:visible").allTextContents(), [service.refusal]);
        assert.equal(await page.locator("[data-kind=status] .problem").textContent(), service.refusal);
        service.refusal = "";
        await add("HTTP status");
        await eventually(() => page.locator(".kinds .problem:visible").count(), 0);
    });
});

describe("the service", () => {
    test("gone is said to be gone, asked less often, and found again", async () => {
        await open(stateWith({ relays: [relayOf("alice")] }), { mayMissAnswers: true });
        const absence = page.locator("#absence");
        assert.ok(await absence.isHidden());
        await service.stop();
        await absence.waitFor();
        assert.equal(await text("#service-state"), "does not answer");
        assert.equal(await text("#announcement"), "The service does not answer.");
        assert.equal(await text(".relay .stream-id"), streamId("alice"), "the last state stays");
        const pauses = new Set();
        await eventually(
            async () => {
                pauses.add(Number(/Asking again in (\d+) s/.exec(await absence.textContent())[1]));
                return [...pauses];
            },
            [1, 2, 4],
            12000,
        );
        assert.match(await absence.textContent(), /The last answer came at \d\d:\d\d:\d\d/);
        await page.locator("[data-kind=empty]").getByRole("button").click();
        await eventually(() => text("[data-kind=empty] .problem"), "the service does not answer");
        service.state = stateWith({ relays: [relayOf("bob")] });
        await service.start();
        await page.getByRole("button", { name: "Ask now" }).click();
        await absence.waitFor({ state: "hidden" });
        assert.equal(await text("#announcement"), "The service answers again.");
        await eventually(() => texts(".relay .stream-id"), [streamId("bob")]);
        const polls = service.count("/state");
        await pause(3000);
        assert.ok(service.count("/state") - polls >= 2, "asks each second again");
    });

    test("is asked about once a second", async () => {
        await open(emptyState());
        const polls = service.count("/state");
        await pause(5000);
        const asked = service.count("/state") - polls;
        assert.ok(asked >= 3 && asked <= 5, `${asked} in 5 s`);
    });
});

describe("hostile texts", () => {
    const hostile = '"><img src=x onerror="alert(1)"><script>alert(2)</script>\u202e{{x}}';

    test("stay texts wherever they stand", async () => {
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
        service.picture = pictures.red;
        service.waiting = [
            { kind: hostile, times: hostile, interface: hostile },
            { kind: "server_code", times: 1, code: 1, message: hostile },
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
                    answer: hostile,
                    fault: hostile,
                    refused_field: hostile,
                }),
                requestOf(1, {
                    body: { [hostile]: hostile },
                    refused_field: hostile,
                    answer: JSON.stringify({ code: 4006, message: hostile }),
                }),
            ],
        });
        await unfoldAll();
        await page.locator(".box .id-name").first().hover();
        await pause(1500);
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
            ".request:last-child .interface",
            ".request:last-child .content pre >> nth=1",
        ]) {
            assert.ok((await text(selector)).includes(hostile), selector);
        }
        assert.equal(await page.locator("#whole-id").textContent(), hostile);
        assert.ok(await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth));
    });
});

describe("the look", () => {
    const longText = "x".repeat(3000);

    test("on a phone scrolls in one direction only", async () => {
        const state = busyState();
        state.requests.push(
            requestOf(70, {
                query: longText,
                body: { [longText]: longText, list: [[[[[[[[[longText]]]]]]]]] },
                answer: longText,
                interface: longText,
            }),
        );
        state.relays[0].dest_stream_url = `rtmp://${longText}`;
        state.mixes[0].media.error = longText;
        state.mixes[0].media.inputs[0].error = longText;
        state.service.origin.error = longText;
        service.picture = quarters;
        service.waiting = [{ kind: "server_code", times: 1, code: 1, message: longText }];
        await open(state, { viewport: { width: 360, height: 780 } });
        await unfoldAll();
        await pause(500);
        const tooWide = await page.evaluate(() => {
            const isSideways = document.documentElement.scrollWidth > document.documentElement.clientWidth;
            const wide = [...document.querySelectorAll("body *")].filter((element) => {
                const { right, width } = element.getBoundingClientRect();
                return (
                    width > 1 &&
                    right > 361 &&
                    !element.closest(".stage") &&
                    getComputedStyle(element).position !== "fixed"
                );
            });
            return { isSideways, wide: wide.map((element) => `${element.tagName}.${element.className}`) };
        });
        assert.deepEqual(tooWide, { isSideways: false, wide: [] });
        await page.locator(".box .id-name:visible").first().click();
        const tip = await page.locator("#whole-id").boundingBox();
        assert.ok(tip.x >= 0 && tip.x + tip.width <= 360, JSON.stringify(tip));
    });

    // Each element with a text of its own, against what lies behind it.
    const poorContrasts = () =>
        page.evaluate(() => {
            const parse = (colour) => {
                const [r, g, b, a = 1] = colour.match(/[\d.]+/g).map(Number);
                return { rgb: [r, g, b], a };
            };
            const over = (front, back) => front.rgb.map((part, index) => part * front.a + back[index] * (1 - front.a));
            const behind = (element) => {
                const own = element ? parse(getComputedStyle(element).backgroundColor) : { rgb: [255, 255, 255], a: 1 };
                return own.a === 1 ? own.rgb : over(own, behind(element.parentElement));
            };
            const luminance = (rgb) => {
                const [r, g, b] = rgb.map((part) =>
                    part / 255 <= 0.04045 ? part / 255 / 12.92 : ((part / 255 + 0.055) / 1.055) ** 2.4,
                );
                return 0.2126 * r + 0.7152 * g + 0.0722 * b;
            };
            const seen = [...document.querySelectorAll("body *")].filter(
                (element) =>
                    element.checkVisibility() &&
                    (["INPUT", "SELECT"].includes(element.tagName) ||
                        [...element.childNodes].some(
                            (node) => node.nodeType === Node.TEXT_NODE && node.data.trim() !== "",
                        )),
            );
            const poor = [];
            for (const element of seen) {
                const back = behind(element);
                const front = over(parse(getComputedStyle(element).color), back);
                const [light, dark] = [luminance(front), luminance(back)].sort((one, other) => other - one);
                const contrast = (light + 0.05) / (dark + 0.05);
                if (contrast < 4.5) {
                    const { tagName, className, textContent } = element;
                    poor.push(`${tagName}.${className} "${textContent.slice(0, 20)}": ${contrast.toFixed(2)}`);
                }
            }
            return { poor, count: seen.length, page: getComputedStyle(document.documentElement).backgroundColor };
        });
    for (const colorScheme of ["light", "dark"]) {
        test(`has contrast in the ${colorScheme}`, async () => {
            service.waiting = [{ kind: "empty", times: 1 }];
            await open(busyState(), { colorScheme, mayMissAnswers: true });
            await unfoldAll();
            await pause(500);
            const { poor, count, page: back } = await poorContrasts();
            assert.deepEqual(poor, []);
            assert.ok(count > 250, `${count} texts`);
            assert.equal(Number(/\d+/.exec(back)[0]) < 128, colorScheme === "dark", back);
            await service.stop();
            await page.locator("#absence").waitFor();
            assert.deepEqual((await poorContrasts()).poor, []);
            await service.start();
        });
    }

    test("can be had by keyboard and by ear", async () => {
        await open(busyState(), { mayMissAnswers: true });
        const nameless = await page.evaluate(() =>
            [...document.querySelectorAll("button, input, select, a, summary")]
                .filter(
                    (control) =>
                        !(
                            control.getAttribute("aria-label") ||
                            control.labels?.[0]?.textContent.trim() ||
                            control.textContent.trim()
                        ),
                )
                .map((control) => control.outerHTML),
        );
        assert.deepEqual(nameless, []);
        const last = page.locator(".request").last();
        await last.locator("summary").focus();
        await page.keyboard.press("Enter");
        assert.ok(await last.evaluate((element) => element.open));
        await page.locator("[data-kind=status]").getByRole("spinbutton").focus();
        await page.keyboard.press("Enter");
        await eventually(async () => service.waiting.map(({ kind }) => kind), ["status"]);
        await eventually(() => text("#announcement"), "HTTP status waits for requests.");
        for (const [role, count] of [
            ["table", 2],
            ["status", 1],
            ["navigation", 1],
            ["main", 1],
            ["radio", 3],
        ]) {
            assert.equal(await page.getByRole(role).count(), count, role);
        }
        // Whatever takes the focus shows that it has it.
        await page.keyboard.press("Tab");
        const outline = await page.evaluate(() => getComputedStyle(document.activeElement).outlineStyle);
        assert.equal(outline, "solid");
    });
});
