// The section "Mixes": the running mixes, and below them the cancelled mixes.

import { copyText } from "./clipboard.js";
import { byId, createElement, instantiateTemplate, setOptionalText, setState, setText } from "./dom.js";
import { formatCount, plural, timeOfDay } from "./format.js";
import { Inputs } from "./inputs.js";
import { KeyedList } from "./keyed-list.js";
import { Layout, describeInputs } from "./layout.js";
import { mediaState, showCounters } from "./media.js";
import { Snapshot } from "./snapshot.js";

const copyFeedbackTime = 1500; // milliseconds

const outputFields = [
    ["output_stream_bitrate", (value) => `video ${value} kbit/s`],
    ["output_stream_frame_rate", (value) => `${value} frames/s`],
    ["output_stream_gop", (value) => `key frame every ${value} s`],
    ["output_audio_bitrate", (value) => `audio ${value} kbit/s`],
    ["output_audio_sample_rate", (value) => `${value} Hz`],
    ["output_audio_channels", (value) => plural(value, "channel")],
];

function describeOutput(output) {
    const present = outputFields.filter(([field]) => Number.isFinite(output?.[field]));
    return present.map(([field, describe]) => describe(output[field])).join(" · ");
}

function createHistoryItem() {
    const root = createElement("li");
    const time = createElement("time");
    const operation = createElement("strong");
    const details = createElement("span", "secondary");
    root.append(time, operation, details);
    return {
        root,
        update(event) {
            setText(time, timeOfDay(event.time));
            time.dateTime = event.time;
            setText(operation, event.operation);
            const canvas = event.canvas ? `canvas ${event.canvas.width} × ${event.canvas.height}` : "audio only";
            setText(details, event.operation === "cancel" ? "" : `${plural(event.inputs, "input")}, ${canvas}`);
        },
    };
}

function createMix({ output_stream_id: id, running: isRunning }) {
    const { root, ...parts } = instantiateTemplate("mix");
    root.open = isRunning;
    root.classList.toggle("ended", !isRunning);
    setText(parts.id, id);
    const layout = new Layout(parts);
    const inputs = new Inputs(parts);
    const snapshot = new Snapshot(id, parts);
    const history = new KeyedList(parts.history, createHistoryItem);
    parts.copy.addEventListener("click", async () => {
        setText(parts.copy, (await copyText(parts.address.textContent)) ? "Copied" : "Not copied");
        setTimeout(() => setText(parts.copy, "Copy"), copyFeedbackTime);
    });

    function showFacts(mix) {
        const facts = [`app ${mix.appid}`, `since ${timeOfDay(mix.since)}`, describeOutput(mix.output)];
        setText(parts.facts, facts.filter(Boolean).join(" · "));
        parts.play.hidden = !mix.play;
        setText(parts.address, mix.play ?? "");
    }

    function showHistory(mix) {
        const { length } = mix.history;
        const isComplete = length >= mix.updates;
        setText(parts.historyCount, isComplete ? String(length) : `the last ${length} of ${formatCount(mix.updates)}`);
        history.show([...mix.history].reverse());
    }

    return {
        root,
        dispose: () => snapshot.dispose(),
        update(mix) {
            const { canvas, media } = mix;
            const described = describeInputs(mix);
            setState(parts.state, ...mediaState(mix));
            setOptionalText(parts.error, mix.running ? (media?.error ?? "") : "");
            layout.show(canvas, described);
            inputs.show(canvas, described);
            const absence = mix.hasMedia ? "the mix is not running" : "the service runs without media";
            snapshot.show(mix.running && canvas !== null && Boolean(media), `No frame: ${absence}`);
            showCounters(parts.counters, media, "Sent");
            showFacts(mix);
            showHistory(mix);
        },
    };
}

const runningMixes = new KeyedList(byId("mix-list"), createMix);
const endedMixes = new KeyedList(byId("ended-mix-list"), createMix);

function lastChange(mix) {
    return mix.history.at(-1)?.time ?? mix.since;
}

export function showMixes(mixes, hasMedia) {
    const described = mixes.map((mix) => ({ ...mix, hasMedia }));
    const running = described.filter((mix) => mix.running);
    const ended = described.filter((mix) => !mix.running);
    ended.sort((one, other) => lastChange(other).localeCompare(lastChange(one)));
    runningMixes.show(running, (mix) => mix.output_stream_id);
    endedMixes.show(ended, (mix) => mix.output_stream_id);
    byId("mixes-empty").hidden = mixes.length > 0;
    setText(byId("mix-count"), String(running.length));
}
