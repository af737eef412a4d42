// Shows the states of the service, its media and its origin in the page header, and a banner if the service does not
// respond.

import { announce, byId, setOptionalText, setState, setText } from "./dom.js";
import { plural } from "./format.js";
import { polling } from "./polling.js";

let wasConnected = true;

function describeFailure({ error, lastResponse, retryDelay }) {
    const parts = [
        error && `Last error: ${error}.`,
        lastResponse && `Last response at ${lastResponse}.`,
        `Retrying in ${plural(retryDelay / 1000, "second")}.`,
    ];
    return parts.filter(Boolean).join(" ");
}

export function showConnection() {
    const { isConnected } = polling.connection;
    byId("connection-lost").hidden = isConnected;
    document.body.classList.toggle("stale", !isConnected);
    setState(byId("service-state"), ...(isConnected ? ["running", "connected"] : ["failed", "not responding"]));
    if (!isConnected) {
        setText(byId("connection-detail"), describeFailure(polling.connection));
    }
    if (isConnected !== wasConnected) {
        announce(isConnected ? "The service responds again." : "The service does not respond.");
    }
    wasConnected = isConnected;
}

export function showService(service) {
    const origin = service?.origin;
    setState(byId("media-state"), ...(service?.media ? ["running", "on"] : ["off", "off: no relay or mix runs"]));
    setState(byId("origin-state"), origin?.state ?? "off", origin?.state ?? "none");
    const details = origin
        ? [origin.address, origin.error, origin.restarts > 0 ? plural(origin.restarts, "restart") : ""]
        : [];
    setOptionalText(byId("origin-detail"), details.filter(Boolean).join(" · "));
}

byId("retry-now").addEventListener("click", () => polling.pollNow());
