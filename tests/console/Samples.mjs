// Sample states of the service, for MockService.

import { createHash } from "node:crypto";

// The kinds of faults, in the form that GET /faults returns.
export const faultKinds = [
    { kind: "delay", fields: [["delay_ms", "integer", undefined, 1, 600000]] },
    { kind: "status", fields: [["status", "integer", 503, 200, 599]] },
    { kind: "empty", fields: [] },
    {
        kind: "code",
        fields: [
            ["code", "integer", 505, -2147483648, 2147483647],
            ["message", "string", "on request"],
            ["error_code_keys", "boolean", false],
        ],
    },
].map(({ kind, fields }) => ({
    kind,
    description: `What ${kind} does.`,
    fields: fields.map(([name, type, value, minimum, maximum]) => ({ name, type, default: value, minimum, maximum })),
}));

export function emptyState() {
    return { service: { media: false, origin: null }, relays: [], mixes: [], requests: [] };
}

export function streamId(name) {
    return `8888_${createHash("md5").update(String(name)).digest("hex")}`;
}

export function timeAt(second) {
    return new Date(Date.UTC(2024, 0, 31, 12, 0, 0) + second * 1000).toISOString();
}

export function video(name, layer, x, y, width, height) {
    return { stream_id: streamId(name), type: "video", layer, x, y, width, height };
}

export function audio(name, layer) {
    return { stream_id: streamId(name), type: "audio", layer, x: 0, y: 0, width: 0, height: 0 };
}

export function mediaOf(inputs, change = {}) {
    const numbers = { state: "running", error: "", bytes: 1234567, frames: 4321, dropped: 0, reconnects: 0 };
    return {
        ...numbers,
        restarts: 0,
        inputs: inputs.map((input) => ({ stream_id: input.stream_id, ...numbers, bytes: 654321, frames: 1080 })),
        ...change,
    };
}

export function mixOf(name, inputs, change = {}) {
    const canvas = { width: 1280, height: 720, color: "0x203040" };
    return {
        output_stream_id: streamId(name),
        running: true,
        appid: 1250000000,
        since: timeAt(0),
        updates: 1,
        canvas,
        inputs,
        output: {
            output_stream_bitrate: 1500,
            output_stream_gop: 2,
            output_stream_frame_rate: 20,
            output_audio_sample_rate: 48000,
            output_audio_bitrate: 64,
            output_audio_channels: 2,
        },
        output_sei: "",
        history: [{ time: timeAt(0), operation: "start", canvas, inputs: inputs.length }],
        play: `rtmp://127.0.0.1:1935/mix/${streamId(name)}`,
        media: mediaOf(inputs),
        ...change,
    };
}

export function relayOf(name, change = {}) {
    const id = streamId(name);
    return {
        stream_id: id,
        dest_stream_url: "rtmp://cdn.example/live/main",
        appid: 1250000000,
        since: timeAt(5),
        requests: 1,
        source: `rtmp://127.0.0.1:1935/live/${id}`,
        media: mediaOf([{ stream_id: id }]),
        ...change,
    };
}

export function relayBody(change = {}) {
    return {
        interface: "add_relay_stream_url",
        timestamp: 4711,
        event_id: 1700000011,
        appid: 1250000000,
        path: "live",
        domain: "8888.livepush.vexa.example",
        stream_id: streamId("alice"),
        dest_stream_url: "rtmp://cdn.example/live/main",
        use_mix_crop_center: 1,
        ...change,
    };
}

// `change.body` is a string, or a value that is converted to JSON.
export function requestOf(second, change = {}) {
    const body = typeof change.body === "string" ? change.body : JSON.stringify(change.body ?? relayBody());
    return {
        time: timeAt(second),
        interface: "add_relay_stream_url",
        query: "sdkappid=1400000001&random=42&usersig=***&parivMapKey=***",
        body_bytes: Buffer.byteLength(body),
        http_status: 200,
        response: '{"code":0,"message":"ok"}',
        refused_field: "",
        fault: "",
        ...change,
        body,
    };
}

export function refusedOf(second, field, reason, code, change = {}) {
    return requestOf(second, {
        response: JSON.stringify({ code, message: `${field}: ${reason}` }),
        refused_field: field,
        ...change,
    });
}

// A state with three mixes (one with five inputs, one with audio only, one that was cancelled), two relays and some
// requests.
export function busyState() {
    const four = [
        video("alice", 2, 0, 0, 640, 360),
        video("bob", 3, 640, 0, 640, 360),
        video("carol", 4, 0, 360, 640, 360),
        video("dora", 5, 560, 280, 720, 440),
        audio("emil", 6),
    ];
    const talk = [audio("fay", 1), audio("gus", 2)];
    const media = mediaOf(four, { bytes: 48213377, frames: 5210, dropped: 3, reconnects: 1 });
    media.inputs[2] = {
        ...media.inputs[2],
        state: "reconnecting",
        error: `no one publishes ${streamId("carol")} yet`,
        reconnects: 4,
    };
    const body = {
        ...relayBody({ interface: "set_live_mix_transcoding" }),
        session_id: streamId("alice"),
        input_stream_list: [
            {
                input_stream_id: "canvas1",
                layout_params: { image_layer: 1, input_type: 3, image_width: 1280, image_height: 720 },
            },
            {
                input_stream_id: streamId("bob"),
                layout_params: { image_layer: 2, input_type: 0, image_width: -5, image_height: 360 },
            },
        ],
    };
    const mixInterface = { interface: "set_live_mix_transcoding", body };
    return {
        service: {
            media: true,
            origin: { address: "rtmp://127.0.0.1:1935", state: "running", error: "", restarts: 0 },
        },
        mixes: [
            mixOf("room", four, {
                media,
                updates: 3,
                history: [0, 20, 65].map((second, index) => ({
                    time: timeAt(second),
                    operation: index === 0 ? "start" : "update",
                    canvas: { width: 1280, height: 720, color: "0x203040" },
                    inputs: 3 + index,
                })),
            }),
            mixOf("talk", talk, { canvas: null }),
            mixOf("over", [video("ivo", 2, 0, 0, 1280, 720)], {
                running: false,
                media: null,
                play: "",
                history: [
                    { time: timeAt(1), operation: "start", canvas: null, inputs: 1 },
                    { time: timeAt(2), operation: "cancel", canvas: null, inputs: 0 },
                ],
            }),
        ],
        relays: [
            relayOf("alice"),
            relayOf("bob", {
                dest_stream_url: "rtmp://other-cdn.example/app/a-rather-long-stream-name?key=value",
                media: mediaOf([{ stream_id: streamId("bob") }], {
                    state: "reconnecting",
                    error: "the destination refused the connection",
                    reconnects: 7,
                    dropped: 42,
                    restarts: 1,
                }),
            }),
        ],
        requests: [
            requestOf(0),
            refusedOf(
                4,
                "domain",
                'found "8888.example", must be the biz id, a 32-bit integer other than 0, and ".livepush.vexa.example"',
                4006,
                { body: relayBody({ domain: "8888.example" }) },
            ),
            requestOf(9, { http_status: 503, response: "", fault: "status" }),
            refusedOf(
                20,
                "input_stream_list[1].layout_params.image_width",
                "found -5, must be an integer from 0 to 2147483647",
                4006,
                mixInterface,
            ),
            refusedOf(31, "query: usersig", "found it empty, must be the signature of the user", 4001, {
                query: "sdkappid=1400000001&random=42&usersig=&parivMapKey=***",
            }),
            requestOf(65, { ...mixInterface, body: { ...body, use_mix_crop_center: 1 } }),
            requestOf(66, { fault: "delay" }),
        ],
    };
}
