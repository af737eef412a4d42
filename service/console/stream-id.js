// Shows stream ids as buttons with a shortened id. On hover or focus, a tooltip shows the full id. A click copies it.

import { copyText } from "./clipboard.js";
import { byId } from "./dom.js";
import { shortenId } from "./format.js";

const hideDelay = 250; // milliseconds; time to move the pointer from the button to the tooltip

const tooltip = byId("id-tooltip");
let tooltipButton = null; // the button whose id the tooltip shows
let hideTimer = 0;

export function createIdButton() {
    const button = document.createElement("button");
    button.type = "button";
    button.className = "id-button";
    button.addEventListener("click", async () => {
        showTooltip(button);
        tooltip.classList.toggle("copied", await copyText(button.dataset.id));
    });
    button.addEventListener("pointerenter", () => showTooltip(button));
    button.addEventListener("pointerleave", hideTooltipSoon);
    button.addEventListener("focus", () => showTooltip(button));
    button.addEventListener("blur", hideTooltipSoon);
    return button;
}

export function setId(button, id) {
    if (button.dataset.id !== id) {
        button.dataset.id = id;
        button.setAttribute("aria-label", `Copy ${id}`);
        button.textContent = shortenId(id);
    }
}

function showTooltip(button) {
    clearTimeout(hideTimer);
    tooltipButton = button;
    tooltip.textContent = button.dataset.id;
    tooltip.classList.remove("copied");
    tooltip.hidden = false;
    placeTooltip();
}

// Places the tooltip below the button if there is space, otherwise above it, and always inside the window.
function placeTooltip() {
    const anchor = tooltipButton.getBoundingClientRect();
    const { width, height } = tooltip.getBoundingClientRect();
    const { clientWidth, clientHeight } = document.documentElement;
    const fitsBelow = anchor.bottom + height + 8 < clientHeight;
    tooltip.style.left = `${Math.max(8, Math.min(anchor.left, clientWidth - width - 8))}px`;
    tooltip.style.top = `${fitsBelow ? anchor.bottom + 2 : anchor.top - height - 2}px`;
}

function hideTooltipSoon() {
    clearTimeout(hideTimer);
    hideTimer = setTimeout(hideTooltip, hideDelay);
}

function hideTooltip() {
    clearTimeout(hideTimer);
    tooltip.hidden = true;
}

tooltip.addEventListener("pointerenter", () => clearTimeout(hideTimer));
tooltip.addEventListener("pointerleave", hideTooltipSoon);
document.addEventListener("keydown", (event) => event.key === "Escape" && hideTooltip());
document.addEventListener("scroll", () => tooltip.hidden || placeTooltip(), { passive: true });
