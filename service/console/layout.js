// The diagram of a mix: its canvas, and a box on it for each input that has an area.

import { createElement, setText } from "./dom.js";
import { KeyedList } from "./keyed-list.js";
import { createIdButton, setId } from "./stream-id.js";

// The same colours as those of `vexalive preview`.
const videoColours = [
    "#a9cbe8",
    "#f4dca6",
    "#b3d9b8",
    "#ecbcc0",
    "#cdc3ea",
    "#f3c7a8",
    "#a8d8d3",
    "#ddcfbb",
    "#d6de9f",
    "#b6c5ec",
    "#e3bcdc",
    "#c3ccd4",
];
const audioColour = "#e1e6eb";

// Returns the inputs of a mix. Each input also has `colour`, `isVisible` (whether it appears on the canvas) and
// `status` (of its media; may be null).
export function describeInputs({ canvas, inputs, media }) {
    let videos = 0;
    return inputs.map((input, index) => {
        const isVideo = input.type === "video";
        const colour = isVideo ? videoColours[videos++ % videoColours.length] : audioColour;
        const isVisible = canvas !== null && isVideo && input.width > 0 && input.height > 0;
        // Several inputs may use the same stream. The status at the same index is therefore preferred.
        const atIndex = media?.inputs?.[index];
        const status =
            atIndex?.stream_id === input.stream_id
                ? atIndex
                : media?.inputs?.find(({ stream_id: id }) => id === input.stream_id);
        return { ...input, isVisible, colour, status: status ?? null };
    });
}

function isOutside({ x, y, width, height }, canvas) {
    return x >= canvas.width || y >= canvas.height || x + width <= 0 || y + height <= 0;
}

export function formatArea(input, canvas) {
    if (!input.isVisible) {
        return input.type === "video" ? "audio only (no area)" : "audio only";
    }
    const area = `${input.width} × ${input.height} at ${input.x}, ${input.y}`;
    return isOutside(input, canvas) ? `${area}: outside` : area;
}

function percentage(length, whole) {
    return `${(length / whole) * 100}%`;
}

function createBox() {
    const root = createElement("div", "box");
    root.setAttribute("role", "listitem");
    const layer = createElement("span", "layer");
    const id = createIdButton();
    const area = createElement("span", "area");
    root.append(layer, id, area);
    return {
        root,
        update({ input, canvas }) {
            root.style.left = percentage(input.x, canvas.width);
            root.style.top = percentage(input.y, canvas.height);
            root.style.width = percentage(input.width, canvas.width);
            root.style.height = percentage(input.height, canvas.height);
            root.style.zIndex = input.layer;
            root.style.backgroundColor = input.colour;
            setText(layer, String(input.layer));
            layer.title = `layer ${input.layer}`;
            setId(id, input.stream_id);
            setText(area, formatArea(input, canvas));
        },
    };
}

export class Layout {
    #parts;
    #boxes;

    // `parts` has the elements figures, canvas and layoutCaption.
    constructor(parts) {
        this.#parts = parts;
        this.#boxes = new KeyedList(parts.canvas, createBox);
    }

    // `canvas` is null for a mix without video.
    show(canvas, inputs) {
        const { figures, canvas: surface, layoutCaption } = this.#parts;
        figures.hidden = canvas === null;
        if (canvas !== null) {
            figures.style.setProperty("--ratio", canvas.width / canvas.height);
            surface.style.backgroundColor = `#${/^0x([0-9a-f]{6})$/i.exec(canvas.color)?.[1] ?? "000000"}`;
            setText(layoutCaption, `Layout, ${canvas.width} × ${canvas.height} on ${canvas.color}`);
        }
        this.#boxes.show(inputs.filter(({ isVisible }) => isVisible).map((input) => ({ input, canvas })));
    }
}
