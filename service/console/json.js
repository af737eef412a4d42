// Formats JSON for display, and marks the value at a path. Uses no element of the page.

const maxDepth = 16; // the service's limit; JSON that is nested deeper is not formatted

// Formats JSON with one value per line; numbers and strings stay as they are in `text`. Returns a list of
// {text, kind, isMarked}, or null if `text` is not JSON. `markedPath` is a path such as "list[1].width", or "" to mark
// nothing.
export function formatJson(text, markedPath = "") {
    try {
        JSON.parse(text);
    } catch {
        return null;
    }
    const formatter = new Formatter();
    for (const [token] of text.matchAll(/"(?:[^"\\]|\\.)*"|[{}[\],:]|[^\s{}[\],:"]+/g)) {
        formatter.add(token);
        if (formatter.depth > maxDepth) {
            return null;
        }
    }
    if (markedPath) {
        formatter.mark(markedPath);
    }
    return formatter.pieces;
}

class Formatter {
    pieces = [];
    #open = []; // the objects and arrays that enclose the current token
    #values = []; // {path, first, last}; first and last are the indices of the value's pieces

    get depth() {
        return this.#open.length;
    }

    add(token) {
        const parent = this.#open.at(-1);
        if (token === "}" || token === "]") {
            this.#open.pop();
            this.#breakLine(!parent.isEmpty);
            this.#piece(token, "punctuation");
            parent.value.last = this.pieces.length - 1;
        } else if (token === ",") {
            this.#piece(token, "punctuation");
            this.#breakLine(true);
            parent.index += 1;
            parent.key = null;
        } else if (token === ":") {
            this.#piece(": ", "punctuation");
        } else {
            this.#breakLine(parent?.isEmpty);
            if (parent) {
                parent.isEmpty = false;
            }
            if (parent && !parent.isArray && parent.key === null) {
                parent.key = pathKey(JSON.parse(token));
                this.#piece(token, "key");
            } else {
                this.#value(token, parent);
            }
        }
    }

    // Marks the value at the path. If there is none, marks the innermost object or array that should contain it.
    mark(markedPath) {
        const contains = (path) =>
            path === "" ||
            path === markedPath ||
            markedPath.startsWith(path + ".") ||
            markedPath.startsWith(path + "[");
        const nearest = this.#values
            .filter((value) => contains(value.path))
            .reduce((best, value) => (value.path.length > best.length ? value.path : best), "");
        for (const { first, last } of this.#values.filter((value) => value.path === nearest)) {
            for (let index = first; index <= last; ++index) {
                this.pieces[index].isMarked = true;
            }
        }
    }

    #value(token, parent) {
        const value = { path: pathOf(parent), first: this.pieces.length, last: this.pieces.length };
        this.#values.push(value);
        if (token === "{" || token === "[") {
            this.#piece(token, "punctuation");
            this.#open.push({ value, isArray: token === "[", index: 0, key: null, isEmpty: true });
        } else {
            this.#piece(token, token.startsWith('"') ? "string" : "plain");
        }
    }

    #piece(text, kind) {
        this.pieces.push({ text, kind, isMarked: false });
    }

    #breakLine(isNeeded) {
        if (isNeeded) {
            this.#piece("\n" + "  ".repeat(this.depth), "space");
        }
    }
}

function pathOf(parent) {
    if (!parent) {
        return "";
    }
    const { path } = parent.value;
    if (parent.isArray) {
        return `${path}[${parent.index}]`;
    }
    return path === "" ? parent.key : `${path}.${parent.key}`;
}

// Returns a key in the form that the service uses in paths: at most 48 bytes, in ASCII.
function pathKey(key) {
    const bytes = new TextEncoder().encode(key);
    let length = Math.min(bytes.length, 48);
    while (length < bytes.length && (bytes[length] & 0xc0) === 0x80) {
        length -= 1;
    }
    const head = JSON.stringify(new TextDecoder().decode(bytes.subarray(0, length))).slice(1, -1);
    const ascii = head.replace(/[\u007f-\uffff]/g, (unit) => "\\u" + unit.charCodeAt(0).toString(16).padStart(4, "0"));
    return (ascii || '""') + (length < bytes.length ? "..." : "");
}
