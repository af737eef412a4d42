// The table of a mix's inputs, and the list of its audio-only inputs.

import { createElement, instantiateTemplate, setOptionalText, setState, setText } from "./dom.js";
import { formatBytes, formatCount } from "./format.js";
import { KeyedList } from "./keyed-list.js";
import { formatArea } from "./layout.js";
import { createIdButton, setId } from "./stream-id.js";

function createRow() {
    const { root, ...parts } = instantiateTemplate("input");
    const id = createIdButton();
    parts.id.append(id);
    return {
        root,
        update({ input, canvas }) {
            const { status } = input;
            setText(parts.layer, String(input.layer));
            parts.layer.style.backgroundColor = input.colour;
            setId(id, input.stream_id);
            setText(parts.area, formatArea(input, canvas));
            setState(parts.state, status?.state ?? "unknown", status?.state ?? "–");
            setOptionalText(parts.error, status?.error ?? "");
            setText(parts.bytes, formatBytes(status?.bytes));
            setText(parts.frames, formatCount(status?.frames));
            setText(parts.dropped, formatCount(status?.dropped));
            setText(parts.reconnects, formatCount(status?.reconnects));
        },
    };
}

function createAudioOnlyItem() {
    const root = createElement("span", "audio-only-input");
    const layer = createElement("span", "layer");
    const id = createIdButton();
    root.append(layer, id);
    return {
        root,
        update(input) {
            setText(layer, String(input.layer));
            layer.style.backgroundColor = input.colour;
            setId(id, input.stream_id);
        },
    };
}

export class Inputs {
    #rows;
    #audioOnly;
    #audioOnlySection;

    // `parts` has the elements inputs, audioOnly and audioOnlyList.
    constructor(parts) {
        this.#rows = new KeyedList(parts.inputs, createRow);
        this.#audioOnly = new KeyedList(parts.audioOnlyList, createAudioOnlyItem);
        this.#audioOnlySection = parts.audioOnly;
    }

    show(canvas, inputs) {
        this.#rows.show(inputs.map((input) => ({ input, canvas })));
        const audioOnly = inputs.filter(({ isVisible }) => !isVisible);
        this.#audioOnlySection.hidden = audioOnly.length === 0;
        this.#audioOnly.show(audioOnly);
    }
}
