// Lays requests and answers out for reading, and finds in them the field that was refused. Knows no page: texts go in,
// pieces of text come out.

const deepest = 16; // what the service reads; deeper texts are shown as they stand
const refusedInQuery = 4001; // the code of refusals that concern the query

// The text in lines, one value each, with every number and string exactly as it was written: a list of
// {text, kind, isMarked}. Null if it is no JSON.
export function layOutJson(text, refusedField = "") {
    try {
        JSON.parse(text);
    } catch {
        return null;
    }
    const layout = new Layout();
    for (const [token] of text.matchAll(/"(?:[^"\\]|\\.)*"|[{}[\],:]|[^\s{}[\],:"]+/g)) {
        layout.add(token);
        if (layout.depth > deepest) {
            return null;
        }
    }
    if (refusedField) {
        layout.mark(refusedField);
    }
    return layout.pieces;
}

class Layout {
    pieces = [];
    #open = []; // the objects and arrays around the place that is being read
    #values = []; // {path, first, last}: which pieces each value is made of

    get depth() {
        return this.#open.length;
    }

    add(token) {
        const around = this.#open.at(-1);
        if (token === "}" || token === "]") {
            this.#open.pop();
            this.#breakLine(!around.isEmpty);
            this.#piece(token, "sign");
            around.value.last = this.pieces.length - 1;
        } else if (token === ",") {
            this.#piece(token, "sign");
            this.#breakLine(true);
            around.index += 1;
            around.key = null;
        } else if (token === ":") {
            this.#piece(": ", "sign");
        } else {
            this.#breakLine(around?.isEmpty);
            if (around) {
                around.isEmpty = false;
            }
            if (around && !around.isArray && around.key === null) {
                around.key = shownKey(JSON.parse(token));
                this.#piece(token, "key");
            } else {
                this.#value(token, around);
            }
        }
    }

    // A field that is missing is marked by the innermost value that should hold it.
    mark(field) {
        const holds = (path) =>
            path === "" || path === field || field.startsWith(path + ".") || field.startsWith(path + "[");
        const nearest = this.#values
            .filter((value) => holds(value.path))
            .reduce((best, value) => (value.path.length > best.length ? value.path : best), "");
        for (const { first, last } of this.#values.filter((value) => value.path === nearest)) {
            for (let at = first; at <= last; ++at) {
                this.pieces[at].isMarked = true;
            }
        }
    }

    #value(token, around) {
        const value = { path: pathIn(around), first: this.pieces.length, last: this.pieces.length };
        this.#values.push(value);
        if (token === "{" || token === "[") {
            this.#piece(token, "sign");
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

function pathIn(around) {
    if (!around) {
        return "";
    }
    const { path } = around.value;
    if (around.isArray) {
        return `${path}[${around.index}]`;
    }
    return path === "" ? around.key : `${path}.${around.key}`;
}

// A key as the service writes it into the name of a refused field: at most 48 bytes, in ASCII.
function shownKey(key) {
    const bytes = new TextEncoder().encode(key);
    let length = Math.min(bytes.length, 48);
    while (length < bytes.length && (bytes[length] & 0xc0) === 0x80) {
        length -= 1;
    }
    const head = JSON.stringify(new TextDecoder().decode(bytes.subarray(0, length))).slice(1, -1);
    const ascii = head.replace(/[\u007f-\uffff]/g, (unit) => "\\u" + unit.charCodeAt(0).toString(16).padStart(4, "0"));
    return (ascii || '""') + (length < bytes.length ? "..." : "");
}

// The parameters of a query as the same pieces; `refusedField` is "query" or, of one parameter, "query: usersig".
export function layOutQuery(query, refusedField = "") {
    const parameters = query.split("&");
    const refusedKey = /^query: (.*)$/s.exec(refusedField)?.[1];
    const isRefused = (parameter) => parameter.split("=", 1)[0] === refusedKey;
    const isWhole = refusedField !== "" && !parameters.some(isRefused);
    return parameters.flatMap((parameter, index) => [
        { text: (index === 0 ? "?" : "&") + parameter, kind: "plain", isMarked: isWhole || isRefused(parameter) },
    ]);
}

// What an answer says: {code, message}, with null for what it does not hold.
export function readAnswer(answer) {
    let value = null;
    try {
        value = JSON.parse(answer);
    } catch {
        // An injected fault may return anything.
    }
    const code = value?.code ?? value?.ErrorCode;
    const message = value?.message ?? value?.ErrorInfo;
    return { code: typeof code === "number" ? code : null, message: typeof message === "string" ? message : null };
}

// Which half of a request was refused: "query", "body" or, if it was not, "".
export function refusedPart({ refused_field: field, answer }) {
    if (!field) {
        return "";
    }
    return readAnswer(answer).code === refusedInQuery ? "query" : "body";
}
