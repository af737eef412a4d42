// The section "Faults".

import assert from "node:assert/strict";
import { test } from "node:test";

import { eventually } from "./Browser.mjs";
import { open, page, service, text, texts, waitForPoll } from "./Harness.mjs";
import { emptyState, faultKinds } from "./Samples.mjs";

const add = (kind) => page.getByRole("button", { name: `Add fault: ${kind}`, exact: true }).click();
const formOf = (kind) => page.locator(`[data-kind=${kind}]`);
const posted = () => service.requests.filter(([method]) => method === "POST").map(([, , body]) => JSON.parse(body));

test("there is a form for each kind that the service lists, with its defaults", async () => {
    await open(emptyState());
    assert.deepEqual(
        await texts(".kinds code"),
        faultKinds.map(({ kind }) => kind),
    );
    assert.deepEqual(
        await texts(".kinds .secondary"),
        faultKinds.map(({ description }) => description),
    );
    await formOf("delay").getByLabel("delay_ms").fill("250");
    for (const { kind } of faultKinds) {
        await add(kind);
    }
    const expected = faultKinds.map(({ kind, fields }) => ({
        kind,
        count: 1,
        ...Object.fromEntries(fields.map(({ name, default: value = 250 }) => [name, value])),
    }));
    await eventually(async () => posted(), expected);
    await waitForPoll();
    await eventually(() => page.locator("#active-faults li").count(), faultKinds.length);
});

test("a fault has the interface, the count and the values that the user chose", async () => {
    await open(emptyState());
    await page.getByLabel("Interface").selectOption("set_live_mix_transcoding");
    await page.getByLabel("Count", { exact: true }).fill("4");
    await formOf("code").getByLabel("code", { exact: true }).fill("-7");
    await formOf("code").getByLabel("message").fill("<b>no</b>");
    await formOf("code").getByLabel("error_code_keys").check();
    await add("code");
    await page.getByLabel("until cleared").check();
    await add("delay"); // its required field "delay_ms" is empty
    const scope = { interface: "set_live_mix_transcoding" };
    await eventually(
        async () => posted(),
        [
            { kind: "code", count: 4, ...scope, code: -7, message: "<b>no</b>", error_code_keys: true },
            { kind: "delay", count: 0, ...scope, delay_ms: null },
        ],
    );
});

test("active faults are listed, and one button clears them", async () => {
    service.activeFaults = [
        { kind: "status", count: 2, delay_ms: 0, status: 503 },
        { kind: "delay", interface: "add_relay_stream_url", count: 0, delay_ms: 250 },
        { kind: "code", count: 1, delay_ms: 10, code: 505, message: "on request", error_code_keys: false },
    ];
    await open(emptyState());
    const clear = page.getByRole("button", { name: "Clear all" });
    assert.deepEqual(await texts("#active-faults li"), [
        "status=503 any interface, 2 times",
        "delay=250 add_relay_stream_url, until cleared",
        'code=505, delay_ms=10, message="on request" any interface, once',
    ]);
    assert.ok(await page.locator("#faults-empty").isHidden());
    service.activeFaults.shift();
    await waitForPoll();
    await eventually(() => page.locator("#active-faults li").count(), 2);
    await clear.click();
    await eventually(() => page.locator("#active-faults li").count(), 0);
    assert.equal(service.requests.filter(([method]) => method === "DELETE").length, 1);
    assert.equal(await text("#announcement"), "All faults cleared.");
    assert.ok(await page.locator("#faults-empty").isVisible());
    assert.ok(await clear.isHidden());
});

test("the service's error message appears in the form of the refused fault", async () => {
    service.faultError = "status: found 7, must be an integer from 200 to 599";
    await open(emptyState(), { allowsFailures: true });
    await formOf("status").getByLabel("status", { exact: true }).fill("7");
    await add("status");
    await eventually(() => page.locator(".kinds .problem:visible").allTextContents(), [service.faultError]);
    assert.equal(await formOf("status").locator(".problem").textContent(), service.faultError);
    service.faultError = "";
    await add("status");
    await eventually(() => page.locator(".kinds .problem:visible").count(), 0);
});
