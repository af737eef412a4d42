// The section "Relays".

import { byId, instantiateTemplate, setOptionalText, setState, setText } from "./dom.js";
import { plural, timeOfDay } from "./format.js";
import { KeyedList } from "./keyed-list.js";
import { mediaState, showCounters } from "./media.js";

function createRelay({ stream_id: id }) {
    const { root, ...parts } = instantiateTemplate("relay");
    setText(parts.id, id);
    return {
        root,
        update(relay) {
            setState(parts.state, ...mediaState(relay));
            setOptionalText(parts.error, relay.media?.error ?? "");
            setText(parts.source, relay.source ?? "–");
            setText(parts.destination, relay.dest_stream_url);
            showCounters(parts.counters, relay.media, "Received");
            const facts = [`app ${relay.appid}`, `since ${timeOfDay(relay.since)}`, plural(relay.requests, "request")];
            setText(parts.facts, facts.join(" · "));
        },
    };
}

const relayList = new KeyedList(byId("relay-list"), createRelay);

export function showRelays(relays, hasMedia) {
    relayList.show(
        relays.map((relay) => ({ ...relay, hasMedia })),
        (relay) => relay.stream_id,
    );
    byId("relays-empty").hidden = relays.length > 0;
    setText(byId("relay-count"), String(relays.length));
}
