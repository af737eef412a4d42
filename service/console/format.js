// Numbers, times and ids as strings for display. A missing number is shown as a dash.

const grouped = new Intl.NumberFormat("en");

export function formatCount(number) {
    return Number.isFinite(number) ? grouped.format(number) : "–";
}

export function formatBytes(bytes) {
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

export function plural(count, noun) {
    return `${formatCount(count)} ${noun}${count === 1 ? "" : "s"}`;
}

// Returns "12:00:00.000" for "2024-01-31T12:00:00.000Z", and any other string unchanged.
export function timeOfDay(time) {
    return /T([\d:.]+)Z$/.exec(time)?.[1] ?? String(time);
}

// A stream id is a short number, "_" and a long digest. Its first and last characters are enough to recognise it.
export function shortenId(id) {
    if (id.length <= 18) {
        return id;
    }
    return `${id.slice(0, Math.min(id.indexOf("_"), 12) + 5)}…${id.slice(-4)}`;
}
