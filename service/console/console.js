// The console polls the service once per second and shows the service's state.

import { showFaults } from "./faults.js";
import { showMixes } from "./mixes.js";
import { polling } from "./polling.js";
import { showRelays } from "./relays.js";
import { showRequests } from "./requests.js";
import { showConnection, showService } from "./service-status.js";

polling.addEventListener("connection", showConnection);
polling.addEventListener("update", ({ detail: { state, faults } }) => {
    const hasMedia = Boolean(state.service?.media);
    showService(state.service);
    showMixes(state.mixes, hasMedia);
    showRelays(state.relays, hasMedia);
    showRequests(state.requests);
    showFaults(faults);
});
polling.pollNow();
