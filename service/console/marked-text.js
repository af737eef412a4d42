// Renders a list of {text, kind, isMarked} as a <pre> element. `note` is shown at the end of the line in which the
// marked text begins.

import { createElement } from "./dom.js";

export function renderPieces(pieces, note) {
    const block = createElement("pre");
    let mark = null;
    let isNotePending = false;
    let isNoteUsed = note === "";
    const appendNote = () => {
        if (isNotePending) {
            block.append(createElement("span", "note", ` ← ${note}`));
            isNotePending = false;
            isNoteUsed = true;
        }
    };
    for (const { text, kind, isMarked } of pieces) {
        if (kind === "space" && isNotePending) {
            appendNote();
            mark = null;
        }
        if (!isMarked) {
            mark = null;
        } else if (!mark) {
            mark = block.appendChild(createElement("mark"));
            isNotePending = !isNoteUsed;
        }
        (mark ?? block).append(createElement("span", kind, text));
    }
    appendNote();
    return block;
}

export function renderPlain(text, note) {
    return renderPieces(text === "" ? [] : [{ text, kind: "plain", isMarked: note !== "" }], note);
}
