// Shows the state and the counters of the media of a relay or a mix.

import { createElement, setText } from "./dom.js";
import { formatBytes, formatCount } from "./format.js";

// Returns the arguments for setState(), without the element.
export function mediaState({ running = true, media, hasMedia }) {
    if (!running) {
        return ["ended", "cancelled"];
    }
    if (media) {
        return [media.state];
    }
    return hasMedia ? ["starting"] : ["off", "accepted, without media"];
}

// Shows the counters in the <dl> element `list`, or hides the element if there is no media.
export function showCounters(list, media, bytesLabel) {
    list.hidden = !media;
    if (!media) {
        return;
    }
    const counters = [
        [bytesLabel, formatBytes(media.bytes)],
        ["Frames", formatCount(media.frames)],
        ["Dropped", formatCount(media.dropped)],
        ["Reconnects", formatCount(media.reconnects)],
        ["Restarts", formatCount(media.restarts)],
    ];
    while (list.children.length < counters.length) {
        const pair = createElement("div");
        pair.append(createElement("dt"), createElement("dd"));
        list.append(pair);
    }
    counters.forEach(([label, value], index) => {
        const [term, description] = list.children[index].children;
        setText(term, label);
        setText(description, value);
    });
}
