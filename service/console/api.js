// Requests to the service.

const requestTimeout = 10000; // milliseconds

export function request(path, options = {}) {
    return fetch(path, { cache: "no-store", signal: AbortSignal.timeout(requestTimeout), ...options });
}

// Returns the value of "message" in a JSON response, or "" if it has none.
export async function readMessage(response) {
    try {
        const { message } = await response.json();
        return typeof message === "string" ? message : "";
    } catch {
        return "";
    }
}

// The error that is thrown for a response whose HTTP status is not 2xx.
export class ResponseError extends Error {}

async function describeError(response) {
    const message = await readMessage(response);
    return `HTTP ${response.status}${message && `: ${message}`}`;
}

export async function getJson(path) {
    const response = await request(path);
    if (!response.ok) {
        throw new ResponseError(await describeError(response));
    }
    return response.json();
}

// Sends a request. Returns the error message, or "" on success.
export async function send(method, path, body) {
    try {
        const response = await request(path, {
            method,
            headers: { "Content-Type": "application/json" },
            body: body && JSON.stringify(body),
        });
        return response.ok ? "" : (await readMessage(response)) || `HTTP ${response.status}`;
    } catch {
        return "the service does not respond";
    }
}
