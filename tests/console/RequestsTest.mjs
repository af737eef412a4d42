// The section "Requests".

import assert from "node:assert/strict";
import { test } from "node:test";

import { eventually } from "./Browser.mjs";
import { openDetails, openWith, page, service, texts, waitForPoll } from "./Harness.mjs";
import { refusedOf, relayBody, requestOf, timeAt } from "./Samples.mjs";

const request = (index) => page.locator(".request").nth(index);

test("requests are listed latest first", async () => {
    await openWith({
            requests: [
                requestOf(0),
                refusedOf(1, "appid", "found 0, must not be 0", 4006),
                requestOf(2, { fault: "close", http_status: 0, response: "" }),
                requestOf(3, {
                    fault: "code",
                    response: '{"ErrorCode":505,"ErrorInfo":"on request"}',
                    interface: "set_live_mix_transcoding",
                }),
                requestOf(4, { fault: "delay" }),
            ],
        });
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
        "fault: code",
        "fault: close",
        "refused: appid",
        "accepted",
    ]);
});

test("a request expands to query, body and response", async () => {
    const body = '{"appid":12345678901234567890,"list":[1.50,{}, [] ],"text":"a \\"b\\" {c}, d:","appid":1e400}';
    await openWith({ requests: [requestOf(0, { body })] });
    await openDetails(request(0));
    assert.deepEqual(await texts(".content h4"), ["Query", `Body, ${body.length} bytes`, "Response"]);
    assert.deepEqual(await texts(".content pre"), [
        "?sdkappid=1400000001&random=42&usersig=***&parivMapKey=***",
        '{\n  "appid": 12345678901234567890,\n  "list": [\n    1.50,\n    {},\n    []\n  ],\n' +
            '  "text": "a \\"b\\" {c}, d:",\n  "appid": 1e400\n}',
        '{\n  "code": 0,\n  "message": "ok"\n}',
    ]);
    assert.equal(await page.locator("mark").count(), 0);
});

test("a body that is truncated, not JSON, too deep or empty is shown unformatted", async () => {
    const deep = `${"[".repeat(4000)}${"]".repeat(4000)}`;
    const truncated = `{"text":"${"x".repeat(8183)}`;
    await openWith({
            requests: [
                requestOf(0, { body: truncated, body_bytes: 70000 }),
                requestOf(1, { body: "{not json" }),
                requestOf(2, { body: deep }),
                requestOf(3, { body: "", response: "" }),
            ],
        });
    for (const [index, body, title] of [
        [3, truncated, "Body, the first 8,192 of 70,000 bytes"],
        [2, "{not json", "Body, 9 bytes"],
        [1, deep, "Body, 8,000 bytes"],
    ]) {
        await openDetails(request(index));
        assert.equal(await request(index).locator("pre").nth(1).textContent(), body);
        assert.equal(await request(index).locator("h4").nth(1).textContent(), title);
    }
    await openDetails(request(0));
    assert.deepEqual(await request(0).locator(".content .secondary").allTextContents(), ["empty", "empty"]);
});

// Returns the marked text in the details of a request, and the note at the mark.
async function markOf(details) {
    await openDetails(details);
    const marked = (await details.locator("mark").allTextContents()).join("");
    const notes = (await details.locator(".note").allTextContents()).join("|");
    return [marked.replace(/ ← .*/s, "").replace(/\s+/g, " "), notes.trim()];
}

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
    "the nearest object if that object is missing, too": [
        ["output_param.output_stream_id", "missing", 4003, { body: { a: 1 } }],
        '{ "a": 1 }',
    ],
    "the list where an element is missing": [
        ["list[1].layout_params", "missing", 4003, { body: { list: [{ a: 1 }], z: 0 } }],
        '[ { "a": 1 } ]',
    ],
    "an array where an object is required": [
        ["output_param", "found an array", 4005, { body: { output_param: [1, 2], z: 0 } }],
        "[ 1, 2 ]",
    ],
    "both of two equal keys": [["appid", "found it twice", 4002, { body: '{"appid":1,"x":2,"appid":3}' }], "13"],
    "a key outside ASCII": [
        [
            `q\\u00fc\\n${"x".repeat(44)}...`,
            "found an unknown field",
            4004,
            { body: { [`qü\n${"x".repeat(60)}`]: "here" } },
        ],
        '"here"',
    ],
    "a field that is named query": [
        ["query", "found an unknown field", 4004, { body: { query: 1 } }],
        "1",
    ],
    "the whole of an unreadable body": [["body", "found invalid JSON at byte 2", 4002, { body: "{]" }], "{]"],
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
test("in a refused request, the refused field is marked and the reason is shown", async () => {
    await openWith({ requests: Object.values(marked).map(([refused], index) => refusedOf(index, ...refused)) });
    const names = Object.keys(marked);
    for (const [index, name] of names.entries()) {
        const [refused, expected] = marked[name];
        assert.deepEqual(await markOf(request(names.length - 1 - index)), [expected, `← ${refused[1]}`], name);
    }
});

test("up to 200 requests keep their elements while new requests arrive, and the page does not scroll", async () => {
    const all = Array.from({ length: 230 }, (_, index) =>
        requestOf(index, { body: relayBody({ timestamp: index }) }),
    );
    await openWith({ requests: all.slice(0, 200) });
    assert.equal(await page.locator(".request").count(), 200);
    const chosen = page.locator('.request:has(time:text-is("12:02:30.000"))');
    await openDetails(chosen);
    await chosen.locator("summary").focus();
    await chosen.evaluate((element) => (element.isTheSame = true));
    const topOf = () => chosen.evaluate((element) => Math.round(element.getBoundingClientRect().top));
    await chosen.evaluate((element) => element.scrollIntoView({ block: "center", behavior: "instant" }));
    const top = await topOf();
    for (const end of [201, 215, 230]) {
        service.state.requests = all.slice(end - 200, end);
        await waitForPoll();
        await eventually(async () => (await texts(".request time"))[0], timeAt(end - 1).slice(11, 23));
        assert.ok(Math.abs((await topOf()) - top) <= 1, `was at ${top}, is at ${await topOf()}`);
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

test("requests with the same content are all shown", async () => {
    await openWith({ requests: [requestOf(0), requestOf(0), requestOf(0)] });
    assert.equal(await page.locator(".request").count(), 3);
});
