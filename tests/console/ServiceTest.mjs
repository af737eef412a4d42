// The console that `vexalive serve` serves, with real requests and real faults.

import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { mkdtemp, readFile, rm } from "node:fs/promises";
import { request } from "node:https";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { createInterface } from "node:readline";
import { after, afterEach, before, beforeEach, test } from "node:test";

import { WatchedPage, eventually, launch } from "./Browser.mjs";
import { relayBody, streamId } from "./Samples.mjs";

const query = "sdkappid=1400000001&random=42&usersig=T0psecret&parivMapKey=T0psecret";

let folder, tool, service, browser, watched, page;

before(async () => {
    folder = await mkdtemp(join(tmpdir(), "vexalive-console-"));
    const toolArguments = ["serve", "--state-dir", folder, "--push-domain", "livepush.vexa.example", "--json"];
    // The command `timeout` ends the service even if this test is killed.
    tool = spawn("timeout", ["300", process.env.VEXALIVE_TOOL, ...toolArguments], {
        stdio: ["ignore", "pipe", "inherit"],
    });
    service = {};
    const lines = createInterface({ input: tool.stdout });
    for await (const line of lines) {
        const event = JSON.parse(line);
        Object.assign(service, event.event === "listening" ? { ...event, ca: await readFile(event.caFile) } : {});
        if (event.event === "console") {
            service.console = event.url.replace(/\/$/, "");
            break;
        }
    }
    tool.stdout.resume();
    browser = await launch();
});
after(async () => {
    await browser?.close();
    if (tool?.exitCode === null) {
        const exited = new Promise((resolve) => tool.on("exit", resolve));
        tool.kill("SIGTERM");
        assert.equal(await exited, 0);
    }
    await rm(folder, { recursive: true });
});
beforeEach(async () => {
    watched = await WatchedPage.open(browser, service.console);
    page = watched.page;
});
afterEach(() => watched.close());

// Returns the status and the body of the response.
function send(body, withQuery = query) {
    const [host, port] = service.service.split(":");
    const path = `/v3/liveinterface/${body.interface}?${withQuery}`;
    return new Promise((resolve, reject) => {
        const sent = request({ host, port, path, method: "POST", ca: service.ca, agent: false }, async (response) => {
            let content = "";
            for await (const chunk of response) {
                content += chunk;
            }
            resolve([response.statusCode, content]);
        });
        sent.on("error", reject);
        sent.end(JSON.stringify(body));
    });
}

const texts = (selector) => page.locator(selector).allTextContents();
const latest = () => page.locator(".request").first();

async function openLatest() {
    await latest().locator("summary").click();
    await latest().locator(".content section").nth(2).waitFor();
}

const activeFaults = () => texts("#active-faults li");
const addButton = (kind) => page.getByRole("button", { name: `Add fault: ${kind}`, exact: true });

test("an accepted and a refused request appear; the refused field is marked", async () => {
    assert.deepEqual(await send(relayBody()), [200, '{"code":0,"message":"ok"}']);
    await eventually(() => texts(".request .outcome"), ["accepted"]);
    await eventually(() => texts(".relay .stream-id"), [streamId("alice")]);
    assert.deepEqual(await texts(".relay .state"), ["accepted, without media"]);

    await send(relayBody({ domain: "8888.elsewhere.example" }));
    await eventually(() => texts(".request .outcome"), ["refused: domain", "accepted"]);
    assert.deepEqual(await texts(".request .code"), ["code 4006", "code 0"]);
    await openLatest();
    assert.deepEqual(await latest().locator("mark").allTextContents(), ['"8888.elsewhere.example"']);
    assert.match(await latest().locator(".note").textContent(), /must be the biz id/);
    assert.match(await latest().locator("pre").first().textContent(), /usersig=\*\*\*&parivMapKey=\*\*\*$/);
    assert.ok(!(await page.content()).includes("T0psecret"));
});

test("a refused query and a missing nested field of a mix are marked", async () => {
    await send(relayBody(), "sdkappid=1&random=1&usersig=&parivMapKey=x");
    await eventually(() => latest().locator(".outcome").textContent(), "refused: query: usersig");
    await openLatest();
    assert.deepEqual(await latest().locator("mark").allTextContents(), ["&usersig="]);

    const { stream_id: session_id, dest_stream_url, ...common } = relayBody({ interface: "set_live_mix_transcoding" });
    const layout_params = { image_layer: 1, input_type: 4, image_width: 0, image_height: 0, location_x: 0 };
    const output_param = { output_stream_id: session_id, output_stream_type: 0, output_sei: "{}" };
    const input_stream_list = [{ input_stream_id: session_id, layout_params }];
    await send({ ...common, session_id, output_param, input_stream_list });
    const field = "input_stream_list[0].layout_params.location_y";
    await eventually(() => latest().locator(".outcome").textContent(), `refused: ${field}`);
    await openLatest();
    const marked = (await latest().locator("mark").allTextContents()).join("").replace(/ ← missing/, "");
    assert.deepEqual(JSON.parse(marked), layout_params);

    layout_params.location_y = 0;
    assert.deepEqual(await send({ ...common, session_id, output_param, input_stream_list }), [
        200,
        '{"code":0,"message":"ok"}',
    ]);
    await eventually(() => texts(".mix > summary .stream-id"), [session_id]);
    assert.deepEqual(await texts(".mix .history strong"), ["start"]);
});

test("a fault that was added in the page applies to the next request", async () => {
    await page.getByLabel("Interface").selectOption("add_relay_stream_url");
    await page.getByLabel("Count", { exact: true }).fill("2");
    await page.locator("[data-kind=status]").getByLabel("status", { exact: true }).fill("502");
    await addButton("status").click();
    await eventually(activeFaults, ["status=502 add_relay_stream_url, 2 times"]);
    assert.deepEqual(await send(relayBody()), [502, ""]);
    await eventually(activeFaults, ["status=502 add_relay_stream_url, once"]);
    await eventually(() => latest().locator(".outcome").textContent(), "fault: status");
    await page.getByRole("button", { name: "Clear all" }).click();
    await eventually(activeFaults, []);
    assert.equal((await send(relayBody()))[0], 200);
});

test("the service accepts each kind of fault that the page sends", async () => {
    await page.locator(".kinds li").first().waitFor();
    const kinds = await texts(".kinds code");
    assert.ok(kinds.length >= 8, `${kinds}`);
    for (const input of await page.locator(".kinds input[type=number]").all()) {
        if ((await input.inputValue()) === "") {
            await input.fill(await input.getAttribute("min"));
        }
    }
    for (const kind of kinds) {
        await addButton(kind).click();
        await eventually(async () => /^\w+/.exec((await activeFaults()).at(-1))?.[0], kind);
    }
    assert.deepEqual(
        await texts(".kinds .problem"),
        kinds.map(() => ""),
    );
    await page.getByRole("button", { name: "Clear all" }).click();
    await eventually(activeFaults, []);
});

test("a value that the service refuses is reported with its message", async () => {
    watched.allowsFailures = true;
    await page.locator("[data-kind=status]").getByLabel("status", { exact: true }).fill("7");
    await addButton("status").click();
    const problem = page.locator("[data-kind=status] .problem");
    await eventually(() => problem.textContent(), "status: found 7, must be an integer from 200 to 599");
    assert.deepEqual(await activeFaults(), []);
});
