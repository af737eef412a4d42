// The console: asks the service about once a second what it knows, and shows it.
//
// Most of what is shown was sent by strangers: it becomes text, never markup. Elements stay as long as what they show
// stays, so that nothing loses its focus, its selection or its place when new answers come.

import { layOutJson, layOutQuery, readAnswer, refusedPart } from "./json.js";

const pollPause = 1000; // all times are milliseconds
const longestPollPause = 15000;
const patience = 10000; // with an answer
const picturePause = 280;
const calmPicturePause = 5000; // for who wants little to move
const missingPicturePause = 2000;
const mostBodyBytes = 8192; // of a body, as the service remembers it

// ---- Elements -------------------------------------------------------------------------------------------------------

const byId = (id) => document.getElementById(id);

function make(tag, className = "", text = "") {
    const element = document.createElement(tag);
    element.className = className;
    element.textContent = text;
    return element;
}

function setText(element, text) {
    if (element.textContent !== text) {
        element.textContent = text;
    }
}

// Text that is there only if there is something to say.
function setRemark(element, text) {
    setText(element, text);
    element.hidden = text === "";
}

// A copy of a template: its root, and its parts by their names.
function instantiate(name) {
    const root = byId(`${name}-template`).content.firstElementChild.cloneNode(true);
    const parts = { root };
    for (const part of root.querySelectorAll("[data-part]")) {
        parts[part.dataset.part] = part;
    }
    return parts;
}

// Keeps the children of an element in step with a list of items. `create` gives {root, update, leave} for an item, of
// which the last two may be missing.
class Cards {
    #parent;
    #create;
    #cards = new Map();

    constructor(parent, create) {
        this.#parent = parent;
        this.#create = create;
    }

    show(items, keyOf = (item, index) => index) {
        const keys = items.map(keyOf);
        const wanted = new Set(keys);
        for (const [key, card] of this.#cards) {
            if (!wanted.has(key)) {
                card.root.remove();
                card.leave?.();
                this.#cards.delete(key);
            }
        }
        let next = this.#parent.firstElementChild;
        items.forEach((item, index) => {
            const card = this.#cards.get(keys[index]) ?? this.#add(keys[index], item);
            if (card.root === next) {
                next = next.nextElementSibling;
            } else {
                this.#parent.insertBefore(card.root, next);
            }
            const shown = JSON.stringify(item);
            if (card.update && card.shown !== shown) {
                card.update(item);
                card.shown = shown;
            }
        });
    }

    #add(key, item) {
        const card = this.#create(item);
        this.#cards.set(key, card);
        return card;
    }
}

// ---- Words and numbers ----------------------------------------------------------------------------------------------

const grouped = new Intl.NumberFormat("en");

function countText(number) {
    return Number.isFinite(number) ? grouped.format(number) : "–";
}

function bytesText(bytes) {
    if (!Number.isFinite(bytes) || bytes < 1000) {
        return Number.isFinite(bytes) ? `${bytes} B` : "–";
    }
    const units = ["kB", "MB", "GB", "TB"];
    let value = bytes / 1000;
    while (value >= 999.95 && units.length > 1) {
        value /= 1000;
        units.shift();
    }
    return `${value.toFixed(1)} ${units[0]}`;
}

function plural(count, noun) {
    return `${countText(count)} ${noun}${count === 1 ? "" : "s"}`;
}

// "12:00:00.000" of "2024-01-31T12:00:00.000Z".
function timeOfDay(time) {
    return /T([\d:.]+)Z$/.exec(time)?.[1] ?? String(time);
}

// A stream id is a long digest behind a short number: its ends tell it apart.
function shortened(id) {
    if (id.length <= 18) {
        return id;
    }
    return `${id.slice(0, Math.min(id.indexOf("_"), 12) + 5)}…${id.slice(-4)}`;
}

function announce(text) {
    byId("announcement").textContent = text;
}

async function copy(text) {
    try {
        await navigator.clipboard.writeText(text);
        announce("Copied.");
        return true;
    } catch {
        announce("The browser does not let this page copy: select the text instead.");
        return false;
    }
}

function showState(element, state, words = state) {
    element.dataset.state = state;
    setText(element, words);
}

// `numbers` is a list of [name, text].
function showNumbers(list, numbers) {
    while (list.children.length < numbers.length) {
        const pair = make("div");
        pair.append(make("dt"), make("dd"));
        list.append(pair);
    }
    numbers.forEach(([name, text], index) => {
        setText(list.children[index].children[0], name);
        setText(list.children[index].children[1], text);
    });
}

function mediaNumbers(media, bytesName) {
    return [
        [bytesName, bytesText(media.bytes)],
        ["Frames", countText(media.frames)],
        ["Dropped", countText(media.dropped)],
        ["Reconnects", countText(media.reconnects)],
        ["Restarts", countText(media.restarts)],
    ];
}

// ---- Names of streams -----------------------------------------------------------------------------------------------

// Shows the ends of a stream id; the whole of it while it is pointed at or focused; copies it when pressed.
function makeIdButton() {
    const button = make("button", "id-name");
    button.type = "button";
    button.addEventListener("click", async () => {
        wholeId.showAt(button);
        wholeId.tellCopied(await copy(button.dataset.whole));
    });
    button.addEventListener("pointerenter", () => wholeId.showAt(button));
    button.addEventListener("pointerleave", () => wholeId.hideSoon());
    button.addEventListener("focus", () => wholeId.showAt(button));
    button.addEventListener("blur", () => wholeId.hideSoon());
    return button;
}

function showId(button, id) {
    if (button.dataset.whole !== id) {
        button.dataset.whole = id;
        button.setAttribute("aria-label", `${id}: copy`);
        button.textContent = shortened(id);
    }
}

// The one place where a whole id appears beside its short form. The pointer may go there to select it.
const wholeId = {
    element: byId("whole-id"),
    button: null,
    timer: 0,

    showAt(button) {
        clearTimeout(this.timer);
        this.element.textContent = button.dataset.whole;
        this.element.classList.remove("copied");
        this.element.hidden = false;
        this.button = button;
        this.place();
    },

    place() {
        const place = this.button.getBoundingClientRect();
        const own = this.element.getBoundingClientRect();
        const room = document.documentElement.clientWidth - own.width - 8;
        const isBelow = place.bottom + own.height + 8 < document.documentElement.clientHeight;
        this.element.style.left = `${Math.max(8, Math.min(place.left, room))}px`;
        this.element.style.top = `${isBelow ? place.bottom + 2 : place.top - own.height - 2}px`;
    },

    tellCopied(isCopied) {
        this.element.classList.toggle("copied", isCopied);
    },

    hideSoon() {
        clearTimeout(this.timer);
        this.timer = setTimeout(() => this.hide(), 250);
    },

    hide() {
        clearTimeout(this.timer);
        this.element.hidden = true;
    },
};

wholeId.element.addEventListener("pointerenter", () => clearTimeout(wholeId.timer));
wholeId.element.addEventListener("pointerleave", () => wholeId.hideSoon());
document.addEventListener("keydown", (event) => event.key === "Escape" && wholeId.hide());
document.addEventListener("scroll", () => wholeId.element.hidden || wholeId.place(), { passive: true });

// ---- Mixes ----------------------------------------------------------------------------------------------------------

const inputColours = [
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
]; // those of `vexalive preview`
const heardOnlyColour = "#e1e6eb";

const isSeen = (input) => input.type === "video" && input.width > 0 && input.height > 0;

// The inputs, each with its colour and what the media say about it.
function describeInputs({ canvas, inputs, media }) {
    let videos = 0;
    return inputs.map((input, index) => {
        const colour = input.type === "video" ? inputColours[videos++ % inputColours.length] : heardOnlyColour;
        const atPlace = media?.inputs?.[index];
        const status =
            atPlace?.stream_id === input.stream_id
                ? atPlace
                : media?.inputs?.find((each) => each.stream_id === input.stream_id);
        return { ...input, isSeen: canvas !== null && isSeen(input), colour, status: status ?? null };
    });
}

function isOutside({ x, y, width, height }, canvas) {
    return x >= canvas.width || y >= canvas.height || x + width <= 0 || y + height <= 0;
}

function placeText(input, canvas) {
    if (!input.isSeen) {
        return input.type === "video" ? "heard only (no area)" : "heard only";
    }
    const place = `${input.width} × ${input.height} at ${input.x}, ${input.y}`;
    return isOutside(input, canvas) ? `${place}: outside` : place;
}

function createBox() {
    const root = make("div", "box");
    root.setAttribute("role", "listitem");
    const layer = make("span", "layer");
    const name = makeIdButton();
    const size = make("span", "size");
    root.append(layer, name, size);
    return {
        root,
        update({ input, canvas }) {
            const share = (length, whole) => `${Math.max(-1000, Math.min(1000, (length / whole) * 100))}%`;
            root.style.left = share(input.x, canvas.width);
            root.style.top = share(input.y, canvas.height);
            root.style.width = share(input.width, canvas.width);
            root.style.height = share(input.height, canvas.height);
            root.style.zIndex = input.layer;
            root.style.backgroundColor = input.colour;
            setText(layer, String(input.layer));
            layer.title = `layer ${input.layer}`;
            showId(name, input.stream_id);
            setText(size, placeText(input, canvas));
        },
    };
}

function createInputRow() {
    const { root, ...parts } = instantiate("input");
    const name = makeIdButton();
    parts.name.append(name);
    return {
        root,
        update({ input, canvas }) {
            setText(parts.layer, String(input.layer));
            parts.layer.style.backgroundColor = input.colour;
            showId(name, input.stream_id);
            setText(parts.place, placeText(input, canvas));
            showState(parts.state, input.status?.state ?? "unknown", input.status?.state ?? "–");
            setRemark(parts.error, input.status?.error ?? "");
            setText(parts.bytes, bytesText(input.status?.bytes));
            setText(parts.frames, countText(input.status?.frames));
            setText(parts.dropped, countText(input.status?.dropped));
            setText(parts.reconnects, countText(input.status?.reconnects));
        },
    };
}

function createHeardOnly() {
    const root = make("span", "heard");
    const name = makeIdButton();
    const layer = make("span", "layer");
    root.append(layer, name);
    return {
        root,
        update(input) {
            setText(layer, String(input.layer));
            layer.style.backgroundColor = input.colour;
            showId(name, input.stream_id);
        },
    };
}

function createUpdate() {
    const root = make("li");
    const time = make("time");
    const operation = make("strong");
    const what = make("span", "quiet");
    root.append(time, operation, what);
    return {
        root,
        update(event) {
            setText(time, timeOfDay(event.time));
            time.dateTime = event.time;
            setText(operation, event.operation);
            const size = event.canvas ? `canvas ${event.canvas.width} × ${event.canvas.height}` : "audio only";
            setText(what, event.operation === "cancel" ? "" : `${plural(event.inputs, "input")}, ${size}`);
        },
    };
}

function outputText(output) {
    const named = [
        ["output_stream_bitrate", (value) => `video ${value} kbit/s`],
        ["output_stream_frame_rate", (value) => `${value} frames/s`],
        ["output_stream_gop", (value) => `key frame every ${value} s`],
        ["output_audio_bitrate", (value) => `audio ${value} kbit/s`],
        ["output_audio_sample_rate", (value) => `${value} Hz`],
        ["output_audio_channels", (value) => plural(value, "channel")],
    ];
    const asked = named.filter(([key]) => Number.isFinite(output?.[key])).map(([key, say]) => say(output[key]));
    return asked.join(" · ");
}

function mixState({ running, media, hasMedia }) {
    if (!running) {
        return ["ended", "cancelled"];
    }
    if (media) {
        return [media.state];
    }
    return hasMedia ? ["starting"] : ["silent", "accepted, without media"];
}

// The output of a mix as it is now, asked for again and again while someone can see it.
class Picture {
    #id;
    #parts;
    #isRunning = false;
    #isInView = false;
    #isPaused = false;
    #isAsking = false;
    #due = 0; // the time for the next one
    #timer = 0;
    #observer;

    constructor(id, parts) {
        this.#id = id;
        this.#parts = parts;
        parts.picture.setAttribute("aria-label", `The output of ${id} as it is now`);
        parts.pause.addEventListener("click", () => {
            this.#isPaused = !this.#isPaused;
            parts.pause.setAttribute("aria-pressed", String(this.#isPaused));
            this.consider();
        });
        this.#observer = new IntersectionObserver(([entry]) => {
            this.#isInView = entry.isIntersecting;
            this.consider();
        });
        this.#observer.observe(parts.screen);
        Picture.all.add(this);
    }

    show(isRunning, absence) {
        this.#isRunning = isRunning;
        if (!isRunning) {
            this.#parts.picture.hidden = true;
        }
        if (this.#parts.picture.hidden) {
            setRemark(this.#parts.noPicture, isRunning ? "No picture yet" : absence);
            setText(this.#parts.pictureCaption, "Output");
        }
        this.#parts.pause.hidden = !isRunning;
        this.consider();
    }

    leave() {
        this.#isRunning = false;
        clearTimeout(this.#timer);
        this.#observer.disconnect();
        Picture.all.delete(this);
    }

    // Called whenever one of the conditions may have changed.
    consider() {
        clearTimeout(this.#timer);
        if (this.#isWanted() && !this.#isAsking) {
            this.#timer = setTimeout(() => this.#ask(), Math.max(0, this.#due - performance.now()));
        }
    }

    #isWanted() {
        return this.#isRunning && this.#isInView && !this.#isPaused && !document.hidden && poll.isAnswering;
    }

    async #ask() {
        this.#isAsking = true;
        const started = performance.now();
        this.#due = started + missingPicturePause;
        try {
            const response = await fetch(`/snapshot?mix=${encodeURIComponent(this.#id)}`, {
                cache: "no-store",
                signal: AbortSignal.timeout(patience),
            });
            if (response.ok) {
                this.#draw(await createImageBitmap(await response.blob()));
                this.#due = started + (prefersCalm.matches ? calmPicturePause : picturePause);
            } else {
                this.#miss((await messageOf(response)) || "no picture yet");
            }
        } catch {
            this.#miss("the picture cannot be read");
        }
        this.#isAsking = false;
        this.consider();
    }

    #draw(bitmap) {
        const { picture, noPicture, pictureCaption } = this.#parts;
        if (this.#isRunning) {
            if (picture.width !== bitmap.width || picture.height !== bitmap.height) {
                picture.width = bitmap.width;
                picture.height = bitmap.height;
            }
            picture.getContext("2d").drawImage(bitmap, 0, 0);
            picture.hidden = false;
            noPicture.hidden = true;
            setText(pictureCaption, "Output, live");
        }
        bitmap.close();
    }

    // The last picture stays, and is said to be the last.
    #miss(reason) {
        if (this.#isRunning) {
            setText(
                this.#parts.pictureCaption,
                this.#parts.picture.hidden ? "Output" : `Output, its last picture: ${reason}`,
            );
            setRemark(this.#parts.noPicture, this.#parts.picture.hidden ? `No picture: ${reason}` : "");
        }
    }

    static all = new Set();

    static considerAll() {
        Picture.all.forEach((picture) => picture.consider());
    }
}

const prefersCalm = matchMedia("(prefers-reduced-motion: reduce)");

function createMix({ output_stream_id: id, running: isRunning }) {
    const { root, ...parts } = instantiate("mix");
    root.open = isRunning;
    root.classList.toggle("ended", !isRunning);
    setText(parts.id, id);
    const picture = new Picture(id, parts);
    const boxes = new Cards(parts.canvas, createBox);
    const rows = new Cards(parts.inputs, createInputRow);
    const heardOnlyList = parts.heardOnly.appendChild(make("span", "heard-list"));
    const heardOnly = new Cards(heardOnlyList, createHeardOnly);
    const history = new Cards(parts.history, createUpdate);
    parts.copy.addEventListener("click", async () => {
        setText(parts.copy, (await copy(parts.address.textContent)) ? "Copied" : "Not copied");
        setTimeout(() => setText(parts.copy, "Copy"), 1500);
    });

    function showLayout(mix, inputs) {
        const { canvas } = mix;
        parts.pair.hidden = canvas === null;
        if (canvas !== null) {
            parts.pair.style.setProperty("--ratio", canvas.width / canvas.height);
            parts.canvas.style.backgroundColor = `#${/^0x([0-9a-f]{6})$/i.exec(canvas.color)?.[1] ?? "000000"}`;
            setText(parts.layoutCaption, `Layout, ${canvas.width} × ${canvas.height} on ${canvas.color}`);
        }
        const withCanvas = inputs.map((input) => ({ input, canvas }));
        boxes.show(withCanvas.filter(({ input }) => input.isSeen));
        rows.show(withCanvas);
        const unseen = inputs.filter((input) => !input.isSeen);
        parts.heardOnly.hidden = unseen.length === 0;
        heardOnly.show(unseen);
    }

    return {
        root,
        leave: () => picture.leave(),
        update(mix) {
            const { media } = mix;
            showState(parts.state, ...mixState(mix));
            setRemark(parts.error, mix.running ? (media?.error ?? "") : "");
            showLayout(mix, describeInputs(mix));
            const absence = mix.hasMedia
                ? "No picture: the mix does not run"
                : "No picture: the service runs without media";
            picture.show(mix.running && mix.canvas !== null && Boolean(media), absence);
            parts.numbers.hidden = !media;
            if (media) {
                showNumbers(parts.numbers, mediaNumbers(media, "Sent"));
            }
            parts.play.hidden = !mix.play;
            setText(parts.address, mix.play ?? "");
            const facts = [`app ${mix.appid}`, `since ${timeOfDay(mix.since)}`, outputText(mix.output)];
            setText(parts.output, facts.filter(Boolean).join(" · "));
            const remembered = mix.history.length;
            const isPart = remembered < mix.updates;
            setText(
                parts.historyCount,
                isPart ? `the last ${remembered} of ${countText(mix.updates)}` : String(remembered),
            );
            history.show([...mix.history].reverse());
        },
    };
}

const runningMixes = new Cards(byId("mix-list"), createMix);
const endedMixes = new Cards(byId("ended-mix-list"), createMix);

function showMixes(mixes, hasMedia) {
    const withMedia = mixes.map((mix) => ({ ...mix, hasMedia }));
    const running = withMedia.filter((mix) => mix.running);
    const lastTime = (mix) => mix.history.at(-1)?.time ?? mix.since;
    const ended = withMedia
        .filter((mix) => !mix.running)
        .sort((one, other) => lastTime(other).localeCompare(lastTime(one)));
    runningMixes.show(running, (mix) => mix.output_stream_id);
    endedMixes.show(ended, (mix) => mix.output_stream_id);
    byId("mixes-empty").hidden = mixes.length > 0;
    setText(byId("mix-count"), String(running.length));
}

// ---- Relays ---------------------------------------------------------------------------------------------------------

function createRelay({ stream_id: id }) {
    const { root, ...parts } = instantiate("relay");
    setText(parts.id, id);
    return {
        root,
        update({ source, dest_stream_url: destination, media, hasMedia, requests, since, appid }) {
            showState(parts.state, ...mixState({ running: true, media, hasMedia }));
            setRemark(parts.error, media?.error ?? "");
            setText(parts.source, source ?? "–");
            setText(parts.destination, destination);
            parts.numbers.hidden = !media;
            if (media) {
                showNumbers(parts.numbers, mediaNumbers(media, "Received"));
            }
            setText(parts.facts, `app ${appid} · since ${timeOfDay(since)} · ${plural(requests, "request")}`);
        },
    };
}

const relayCards = new Cards(byId("relay-list"), createRelay);

function showRelays(relays, hasMedia) {
    relayCards.show(
        relays.map((relay) => ({ ...relay, hasMedia })),
        (relay) => relay.stream_id,
    );
    byId("relays-empty").hidden = relays.length > 0;
    setText(byId("relay-count"), String(relays.length));
}

// ---- Requests -------------------------------------------------------------------------------------------------------

// Pieces of text, with a remark at the end of the line where the mark begins.
function makeText(pieces, remark) {
    const block = make("pre");
    let mark = null;
    let isRemarkDue = false;
    const placeRemark = () => {
        if (isRemarkDue) {
            block.append(make("span", "remark", ` ← ${remark}`));
            isRemarkDue = false;
            remark = "";
        }
    };
    for (const { text, kind, isMarked } of pieces) {
        if (kind === "space" && isRemarkDue) {
            placeRemark();
            mark = null;
        }
        if (!isMarked) {
            mark = null;
        } else if (!mark) {
            mark = block.appendChild(make("mark"));
            isRemarkDue = remark !== "";
        }
        (mark ?? block).append(make("span", kind, text));
    }
    placeRemark();
    return block;
}

function makeUnread(text, remark) {
    return makeText(text === "" ? [] : [{ text, kind: "plain", isMarked: remark !== "" }], remark);
}

function makePassage(title, text, block) {
    const passage = make("section");
    passage.append(make("h4", "", title), text === "" ? make("p", "quiet", "empty") : block);
    return passage;
}

function fillRequest(content, request) {
    const { query, body, body_bytes: bodyBytes, answer, refused_field: field } = request;
    const refused = refusedPart(request);
    const message = readAnswer(answer).message ?? "";
    const reason = message.startsWith(`${field}: `) ? message.slice(field.length + 2) : message;
    if (refused) {
        content.append(make("p", "problem", `${field}: ${reason}`));
    }
    const inQuery = refused === "query" ? field : "";
    const inBody = refused === "body" ? field : "";
    content.append(makePassage("Query", query, makeText(layOutQuery(query, inQuery), reason)));
    const isCut = bodyBytes > mostBodyBytes;
    const pieces = isCut ? null : layOutJson(body, inBody);
    const bodyBlock = pieces ? makeText(pieces, reason) : makeUnread(body, inBody && reason);
    const size = isCut
        ? `the first ${countText(mostBodyBytes)} of ${plural(bodyBytes, "byte")}`
        : plural(bodyBytes, "byte");
    content.append(makePassage(`Body, ${size}`, body, bodyBlock));
    const answerPieces = layOutJson(answer);
    content.append(makePassage("Answer", answer, answerPieces ? makeText(answerPieces, "") : makeUnread(answer, "")));
}

function outcomeOf({ refused_field: field, fault, answer, http_status: status }) {
    if (fault && fault !== "delay") {
        return ["fault", `fault: ${fault}`];
    }
    const late = fault ? ", after a delay" : "";
    const { code } = readAnswer(answer);
    if (field || code) {
        return ["refused", (field ? `refused: ${field}` : `refused with code ${code}`) + late];
    }
    return status === 0 ? ["fault", "closed without an answer"] : ["accepted", `accepted${late}`];
}

function createRequest(request) {
    const { root, ...parts } = instantiate("request");
    const [outcome, words] = outcomeOf(request);
    const { code } = readAnswer(request.answer);
    setText(parts.time, timeOfDay(request.time));
    parts.time.dateTime = request.time;
    setText(parts.interface, request.interface);
    setText(parts.status, request.http_status === 0 ? "closed" : `HTTP ${request.http_status}`);
    setText(parts.code, code === null ? "no code" : `code ${code}`);
    setText(parts.outcome, words);
    root.dataset.outcome = outcome;
    root.addEventListener("toggle", () => fillRequest(parts.content, request), { once: true });
    return { root };
}

const requestCards = new Cards(byId("request-list"), createRequest);

// A request has no name but its content. Two that are alike in all of it are told apart by their order.
function showRequests(requests) {
    const seen = new Map();
    const keys = requests.map((request) => {
        const content = JSON.stringify(request);
        const nth = seen.get(content) ?? 0;
        seen.set(content, nth + 1);
        return `${nth} ${content}`;
    });
    keys.reverse();
    requestCards.show([...requests].reverse(), (request, index) => keys[index]);
    byId("requests-empty").hidden = requests.length > 0;
    setText(byId("request-count"), String(requests.length));
}

// ---- Fault ---------------------------------------------------------------------------------------------------

const kinds = [
    {
        kind: "delay",
        title: "Delay",
        what: "The true answer, late.",
        values: [{ key: "delay_ms", label: "milliseconds", value: 3000 }],
    },
    {
        kind: "status",
        title: "HTTP status",
        what: "Another status, with an empty body.",
        values: [{ key: "status", label: "status", value: 503 }],
    },
    { kind: "empty", title: "Empty", what: "HTTP 200 without a body.", values: [] },
    { kind: "cut", title: "Cut", what: "Half of the announced body, then the connection ends.", values: [] },
    { kind: "garbage", title: "Garbage", what: "HTTP 200 with a body that is no JSON.", values: [] },
    {
        kind: "huge",
        title: "Huge",
        what: "HTTP 200 with a JSON body of that size.",
        values: [{ key: "size", label: "bytes", value: 2097152 }],
    },
    {
        kind: "server_code",
        title: "Server code",
        what: "HTTP 200 with a code and a message.",
        values: [
            { key: "code", label: "code", value: 505 },
            { key: "message", label: "message", value: "on request" },
            { key: "error_code_keys", label: "as ErrorCode and ErrorInfo", value: false },
        ],
    },
    { kind: "close", title: "Close", what: "The connection ends without an answer.", values: [] },
];

const inputTypes = { number: "number", string: "text", boolean: "checkbox" };

function makeValueField({ key, label, value }) {
    const field = make("label", `field ${typeof value}`);
    const input = make("input");
    input.type = inputTypes[typeof value];
    input.name = key;
    if (typeof value !== "boolean") {
        input.value = value;
    }
    field.append(input, ` ${label}`);
    return field;
}

// What is no number is sent as null: the service says what is wrong with it.
function numberIn(input) {
    return input.value === "" ? null : Number(input.value);
}

function chosenTimes() {
    const choice = document.querySelector("input[name=times]:checked").value;
    return { once: 1, always: 0, count: numberIn(byId("fault-count")) }[choice];
}

function chosenFault(kind, form) {
    const fault = { kind: kind.kind, times: chosenTimes() };
    const interfaceName = byId("fault-interface").value;
    if (interfaceName !== "") {
        fault.interface = interfaceName;
    }
    for (const { key, value } of kind.values) {
        const input = form.elements.namedItem(key);
        const read = { number: () => numberIn(input), string: () => input.value, boolean: () => input.checked };
        fault[key] = read[typeof value]();
    }
    return fault;
}

// The service's own words if it refuses, ours if it is not there; "" if it agrees.
async function tell(method, body) {
    try {
        const response = await fetch("/faults", {
            method,
            headers: { "Content-Type": "application/json" },
            body: body && JSON.stringify(body),
            signal: AbortSignal.timeout(patience),
        });
        return response.ok ? "" : (await messageOf(response)) || `HTTP ${response.status}`;
    } catch {
        return "the service does not answer";
    }
}

function addKind(kind) {
    const { root, form, title, what, values, add, error } = instantiate("kind");
    root.dataset.kind = kind.kind;
    setText(title, kind.title);
    setText(what, kind.what);
    values.append(...kind.values.map(makeValueField));
    add.setAttribute("aria-label", `Add: ${kind.title}`);
    form.noValidate = true; // the service knows the ranges
    form.addEventListener("submit", async (event) => {
        event.preventDefault();
        const refusal = await tell("POST", chosenFault(kind, form));
        setText(error, refusal);
        if (!refusal) {
            announce(`${kind.title} waits for requests.`);
            poll.askNow();
        }
    });
    byId("kinds").append(root);
}

kinds.forEach(addKind);
byId("fault-count").addEventListener("input", () => {
    document.querySelector("input[name=times][value=count]").checked = true;
});

byId("clear-all").addEventListener("click", async () => {
    const refusal = await tell("DELETE");
    setText(byId("clear-error"), refusal);
    if (!refusal) {
        announce("No fault waits.");
        poll.askNow();
    }
});

function waitingText(fault) {
    const { kind, times, interface: interfaceName, delay_ms: delay } = fault;
    const known = kinds.find((each) => each.kind === kind);
    const values = (known?.values ?? [])
        .filter(({ key, value }) => typeof value !== "boolean" && key !== "delay_ms" && key in fault)
        .map(({ key }) => (key === "message" ? `“${fault[key]}”` : fault[key]));
    const late = delay > 0 ? `${kind === "delay" ? "" : "after "}${delay} ms` : "";
    const what = [known?.title ?? kind, ...values, late].filter((text) => text !== "").join(" ");
    const howOften = times === 0 ? "until cleared" : times === 1 ? "once" : `${countText(times)} times`;
    return { what, details: `${interfaceName ?? "any interface"}, ${howOften}` };
}

function createWaiting() {
    const root = make("li");
    const what = make("strong");
    const details = make("span", "quiet");
    root.append(what, " ", details);
    return {
        root,
        update(fault) {
            const texts = waitingText(fault);
            setText(what, texts.what);
            setText(details, texts.details);
        },
    };
}

const waitingCards = new Cards(byId("waiting"), createWaiting);

function showWaiting(waiting) {
    waitingCards.show(waiting);
    byId("waiting-empty").hidden = waiting.length > 0;
    byId("clear-all").hidden = waiting.length === 0;
    setText(byId("waiting-count"), String(waiting.length));
}

// ---- The service ----------------------------------------------------------------------------------------------------

function showService(service) {
    const hasMedia = Boolean(service?.media);
    const origin = service?.origin;
    showState(
        byId("media-state"),
        hasMedia ? "running" : "silent",
        hasMedia ? "runs" : "off: requests are only answered",
    );
    showState(byId("origin-state"), origin?.state ?? "silent", origin ? origin.state : "none");
    const details = origin
        ? [origin.address, origin.error, origin.restarts > 0 ? plural(origin.restarts, "restart") : ""]
        : [];
    setRemark(byId("origin-detail"), details.filter(Boolean).join(" · "));
    return hasMedia;
}

function show(state, faults) {
    const hasMedia = showService(state.service);
    showMixes(state.mixes, hasMedia);
    showRelays(state.relays, hasMedia);
    showRequests(state.requests);
    showWaiting(faults.waiting);
}

async function messageOf(response) {
    try {
        const { message } = await response.json();
        return typeof message === "string" ? message : "";
    } catch {
        return "";
    }
}

async function ask(path) {
    const response = await fetch(path, { cache: "no-store", signal: AbortSignal.timeout(patience) });
    if (!response.ok) {
        throw new Error(`It says HTTP ${response.status}: ${await messageOf(response)}.`);
    }
    return response.json();
}

const poll = {
    isAnswering: false,
    isAsking: false,
    failures: 0,
    lastAnswer: "",
    timer: 0,

    async askNow() {
        clearTimeout(this.timer);
        if (this.isAsking) {
            return;
        }
        this.isAsking = true;
        try {
            const answers = await Promise.all([ask("/state"), ask("/faults")]).catch((error) => this.miss(error));
            if (answers) {
                this.hear();
                show(...answers);
            }
        } finally {
            this.isAsking = false;
            this.schedule();
        }
    },

    // Who does not look is not shown anything.
    schedule() {
        if (!document.hidden) {
            this.timer = setTimeout(() => this.askNow(), this.pause());
        }
    },

    pause() {
        return Math.min(pollPause * 2 ** Math.max(0, this.failures - 1), longestPollPause);
    },

    hear() {
        if (this.failures > 0) {
            announce("The service answers again.");
        }
        this.failures = 0;
        this.lastAnswer = new Date().toISOString().slice(11, 19);
        this.setAnswering(true);
    },

    miss(error) {
        this.failures += 1;
        if (this.failures === 1) {
            announce("The service does not answer.");
        }
        const said = error instanceof Error && error.message.startsWith("It says") ? error.message : "";
        const last = this.lastAnswer ? `The last answer came at ${this.lastAnswer}.` : "";
        const next = `Asking again in ${plural(this.pause() / 1000, "second")}.`;
        setText(byId("absence-detail"), [said, last, next].filter(Boolean).join(" "));
        this.setAnswering(false);
    },

    setAnswering(isAnswering) {
        this.isAnswering = isAnswering;
        byId("absence").hidden = isAnswering;
        document.body.classList.toggle("stale", !isAnswering);
        showState(
            byId("service-state"),
            isAnswering ? "running" : "failed",
            isAnswering ? "answers" : "does not answer",
        );
        Picture.considerAll();
    },
};

byId("ask-now").addEventListener("click", () => poll.askNow());
document.addEventListener("visibilitychange", () => {
    Picture.considerAll();
    if (!document.hidden) {
        poll.askNow();
    }
});

poll.askNow();
