// Renders a list of {text, kind, isMarked} as a <pre>. The note follows at the end of the line where the mark begins.

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
