import { announce } from "./dom.js";

// Returns whether the browser allowed the page to copy the text.
export async function copyText(text) {
    try {
        await navigator.clipboard.writeText(text);
        announce("Copied.");
        return true;
    } catch {
        announce("The browser does not allow this page to copy. Select the text and copy it yourself.");
        return false;
    }
}
