// Small screens, contrast and accessibility.

import assert from "node:assert/strict";
import { test } from "node:test";

import { eventually } from "./Browser.mjs";
import { open, openAllDetails, page, service, text, waitForPoll, watched } from "./Harness.mjs";
import { busyState, requestOf } from "./Samples.mjs";

const longText = "x".repeat(3000);

test("a phone scrolls the page vertically only", async () => {
    const state = busyState();
    state.requests.push(
        requestOf(70, {
            query: longText,
            body: { [longText]: longText, list: [[[[[[[[[longText]]]]]]]]] },
            response: longText,
            interface: longText,
        }),
    );
    state.relays[0].dest_stream_url = `rtmp://${longText}`;
    state.mixes[0].media.error = longText;
    state.mixes[0].media.inputs[0].error = longText;
    state.service.origin.error = longText;
    service.activeFaults = [{ kind: "code", count: 1, code: 1, message: longText }];
    await open(state, { viewport: { width: 360, height: 780 } });
    await openAllDetails();
    await waitForPoll();
    const tooWide = await page.evaluate(() => {
        const isSideways = document.documentElement.scrollWidth > document.documentElement.clientWidth;
        const wide = [...document.querySelectorAll("body *")].filter((element) => {
            const { right, width } = element.getBoundingClientRect();
            return (
                width > 1 &&
                right > 361 &&
                !element.closest(".frame") &&
                getComputedStyle(element).position !== "fixed"
            );
        });
        return { isSideways, wide: wide.map((element) => `${element.tagName}.${element.className}`) };
    });
    assert.deepEqual(tooWide, { isSideways: false, wide: [] });
    await page.locator(".box .id-button:visible").first().click();
    const tip = await page.locator("#id-tooltip").boundingBox();
    assert.ok(tip.x >= 0 && tip.x + tip.width <= 360, JSON.stringify(tip));
});

// Returns the elements whose text has a contrast below 4.5 to its background.
const poorContrasts = () =>
    page.evaluate(() => {
        const parse = (colour) => {
            const [r, g, b, a = 1] = colour.match(/[\d.]+/g).map(Number);
            return { rgb: [r, g, b], a };
        };
        const over = (front, back) => front.rgb.map((part, index) => part * front.a + back[index] * (1 - front.a));
        const behind = (element) => {
            const own = element ? parse(getComputedStyle(element).backgroundColor) : { rgb: [255, 255, 255], a: 1 };
            return own.a === 1 ? own.rgb : over(own, behind(element.parentElement));
        };
        const luminance = (rgb) => {
            const [r, g, b] = rgb.map((part) =>
                part / 255 <= 0.04045 ? part / 255 / 12.92 : ((part / 255 + 0.055) / 1.055) ** 2.4,
            );
            return 0.2126 * r + 0.7152 * g + 0.0722 * b;
        };
        const withText = [...document.querySelectorAll("body *")].filter(
            (element) =>
                element.checkVisibility() &&
                (["INPUT", "SELECT"].includes(element.tagName) ||
                    [...element.childNodes].some(
                        (node) => node.nodeType === Node.TEXT_NODE && node.data.trim() !== "",
                    )),
        );
        const poor = [];
        for (const element of withText) {
            const back = behind(element);
            const front = over(parse(getComputedStyle(element).color), back);
            const [light, dark] = [luminance(front), luminance(back)].sort((one, other) => other - one);
            const contrast = (light + 0.05) / (dark + 0.05);
            if (contrast < 4.5) {
                const { tagName, className, textContent } = element;
                poor.push(`${tagName}.${className} "${textContent.slice(0, 20)}": ${contrast.toFixed(2)}`);
            }
        }
        return { poor, count: withText.length, page: getComputedStyle(document.documentElement).backgroundColor };
    });
for (const colorScheme of ["light", "dark"]) {
    test(`text has enough contrast in the ${colorScheme} scheme`, async () => {
        service.activeFaults = [{ kind: "empty", count: 1 }];
        await open(busyState(), { colorScheme, allowsFailures: true });
        await openAllDetails();
        await waitForPoll();
        const { poor, count, page: back } = await poorContrasts();
        assert.deepEqual(poor, []);
        assert.ok(count > 250, `${count} elements`);
        assert.equal(Number(/\d+/.exec(back)[0]) < 128, colorScheme === "dark", back);
        await service.stop();
        await watched.advance(1000);
        await page.locator("#connection-lost").waitFor();
        assert.deepEqual((await poorContrasts()).poor, []);
        await service.start();
    });
}

test("all controls can be reached with the keyboard and are named for screen readers", async () => {
    await open(busyState(), { allowsFailures: true });
    const nameless = await page.evaluate(() =>
        [...document.querySelectorAll("button, input, select, a, summary")]
            .filter(
                (control) =>
                    !(
                        control.getAttribute("aria-label") ||
                        control.labels?.[0]?.textContent.trim() ||
                        control.textContent.trim()
                    ),
            )
            .map((control) => control.outerHTML),
    );
    assert.deepEqual(nameless, []);
    const last = page.locator(".request").last();
    await last.locator("summary").focus();
    await page.keyboard.press("Enter");
    assert.ok(await last.evaluate((element) => element.open));
    await page.locator("[data-kind=status]").getByRole("spinbutton").focus();
    await page.keyboard.press("Enter");
    await eventually(async () => service.activeFaults.map(({ kind }) => kind), ["status"]);
    await eventually(() => text("#announcement"), "Fault added: status.");
    for (const [role, count] of [
        ["table", 2],
        ["status", 1],
        ["navigation", 1],
        ["main", 1],
        ["radio", 3],
    ]) {
        assert.equal(await page.getByRole(role).count(), count, role);
    }
    // The focused element is outlined.
    await page.keyboard.press("Tab");
    const outline = await page.evaluate(() => getComputedStyle(document.activeElement).outlineStyle);
    assert.equal(outline, "solid");
});
