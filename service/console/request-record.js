// Extracts what the page shows from a recorded request and its response. Does not access the page.

const queryErrorCode = 4001; // of responses that reject the query

// Returns {code, message} of a response body; null for each that is missing.
export function parseResponse(body) {
    let value = null;
    try {
        value = JSON.parse(body);
    } catch {
        // The response of an injected fault need not be JSON.
    }
    const code = value?.code ?? value?.ErrorCode;
    const message = value?.message ?? value?.ErrorInfo;
    return { code: typeof code === "number" ? code : null, message: typeof message === "string" ? message : null };
}

// Returns which part of the request was refused: "query", "body" or "" for none.
export function refusedPart({ refused_field: field, response }) {
    if (!field) {
        return "";
    }
    return parseResponse(response).code === queryErrorCode ? "query" : "body";
}

// Returns the message of the response without the field's name.
export function refusalReason({ refused_field: field, response }) {
    const message = parseResponse(response).message ?? "";
    return message.startsWith(`${field}: `) ? message.slice(field.length + 2) : message;
}

// Returns the parameters of a query as a list of {text, kind, isMarked}. `refusedField` is "query" or, for one
// parameter, "query: usersig".
export function formatQuery(query, refusedField = "") {
    const parameters = query.split("&");
    const refusedKey = /^query: (.*)$/s.exec(refusedField)?.[1];
    const isRefused = (parameter) => parameter.split("=", 1)[0] === refusedKey;
    const isWhole = refusedField !== "" && !parameters.some(isRefused);
    return parameters.map((parameter, index) => ({
        text: (index === 0 ? "?" : "&") + parameter,
        kind: "plain",
        isMarked: isWhole || isRefused(parameter),
    }));
}

// Returns [outcome, description]; the outcome is "accepted", "refused" or "fault".
export function outcomeOf({ refused_field: field, fault, response, http_status: status }) {
    if (fault && fault !== "delay") {
        return ["fault", `fault: ${fault}`];
    }
    const delay = fault ? ", after a delay" : "";
    const { code } = parseResponse(response);
    if (field || code) {
        return ["refused", (field ? `refused: ${field}` : `refused with code ${code}`) + delay];
    }
    return status === 0 ? ["fault", "closed without a response"] : ["accepted", `accepted${delay}`];
}
