// Extracts the values to show from a recorded request and its response. Does not access the DOM.

const queryErrorCode = 4001; // the code of a response that refuses the query

// Returns {code, message} of a response body. A missing value is null.
export function parseResponse(body) {
    let value = null;
    try {
        value = JSON.parse(body);
    } catch {
        // An injected fault may have replaced the response by text that is not JSON.
    }
    const code = value?.code ?? value?.ErrorCode;
    const message = value?.message ?? value?.ErrorInfo;
    return { code: typeof code === "number" ? code : null, message: typeof message === "string" ? message : null };
}

// Returns which part of the request was refused: "query", "body", or "" if none was refused.
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

// Returns the parameters of a query as a list of {text, kind, isMarked}. `refusedField` says which parameters to mark:
// "query" marks all, "query: usersig" marks the parameter usersig, "" marks none.
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

// Returns [outcome, description]. The outcome is "accepted", "refused" or "fault".
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
