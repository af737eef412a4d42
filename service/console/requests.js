// The section "Requests": the requests that the service has recorded, latest first.

import { byId, createElement, instantiateTemplate, setText } from "./dom.js";
import { formatCount, plural, timeOfDay } from "./format.js";
import { formatJson } from "./json.js";
import { KeyedList } from "./keyed-list.js";
import { renderPieces, renderPlain } from "./marked-text.js";
import { formatQuery, outcomeOf, parseResponse, refusalReason, refusedPart } from "./request-record.js";

const maxRecordedBytes = 8192; // of a body; the service does not record the rest

function createPart(title, text, block) {
    const part = createElement("section");
    part.append(createElement("h4", "", title), text === "" ? createElement("p", "secondary", "empty") : block);
    return part;
}

// A truncated body is shown as plain text, because it is not valid JSON.
function renderBody(body, isTruncated, refusedField, reason) {
    const pieces = isTruncated ? null : formatJson(body, refusedField);
    return pieces ? renderPieces(pieces, reason) : renderPlain(body, refusedField && reason);
}

function fillDetails(details, request) {
    const { query, body, body_bytes: bodyBytes, response, refused_field: field } = request;
    const part = refusedPart(request);
    const reason = refusalReason(request);
    if (part) {
        details.append(createElement("p", "problem", `${field}: ${reason}`));
    }
    const isTruncated = bodyBytes > maxRecordedBytes;
    const size = plural(bodyBytes, "byte");
    const title = `Body, ${isTruncated ? `the first ${formatCount(maxRecordedBytes)} of ${size}` : size}`;
    details.append(
        createPart("Query", query, renderPieces(formatQuery(query, part === "query" ? field : ""), reason)),
        createPart(title, body, renderBody(body, isTruncated, part === "body" ? field : "", reason)),
        createPart("Response", response, renderBody(response, false, "", "")),
    );
}

// The details are rendered when the user opens them for the first time.
function createRequest(request) {
    const { root, ...parts } = instantiateTemplate("request");
    const [outcome, description] = outcomeOf(request);
    const { code } = parseResponse(request.response);
    setText(parts.time, timeOfDay(request.time));
    parts.time.dateTime = request.time;
    setText(parts.interface, request.interface);
    setText(parts.status, request.http_status === 0 ? "closed" : `HTTP ${request.http_status}`);
    setText(parts.code, code === null ? "no code" : `code ${code}`);
    setText(parts.outcome, description);
    root.dataset.outcome = outcome;
    root.addEventListener("toggle", () => fillDetails(parts.details, request), { once: true });
    return { root };
}

const requestList = new KeyedList(byId("request-list"), createRequest);

// A request has no id, so its content is its key. A number before it distinguishes requests with the same content.
function keysOf(requests) {
    const counts = new Map();
    return requests.map((request) => {
        const content = JSON.stringify(request);
        const count = counts.get(content) ?? 0;
        counts.set(content, count + 1);
        return `${count} ${content}`;
    });
}

export function showRequests(requests) {
    const keys = keysOf(requests).reverse();
    requestList.show([...requests].reverse(), (request, index) => keys[index]);
    byId("requests-empty").hidden = requests.length > 0;
    setText(byId("request-count"), String(requests.length));
}
