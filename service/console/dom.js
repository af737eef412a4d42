// Helpers for the page's elements. They set strings from requests and media as text, never as markup.

export const byId = (id) => document.getElementById(id);

export function createElement(tag, className = "", text = "") {
    const element = document.createElement(tag);
    element.className = className;
    element.textContent = text;
    return element;
}

// Changes the element only if the text differs. Otherwise the element would lose the user's selection.
export function setText(element, text) {
    if (element.textContent !== text) {
        element.textContent = text;
    }
}

// Hides the element if the text is empty.
export function setOptionalText(element, text) {
    setText(element, text);
    element.hidden = text === "";
}

// The style sheet chooses a symbol and a colour by `state`.
export function setState(element, state, text = state) {
    element.dataset.state = state;
    setText(element, text);
}

// Returns a copy of a template: its root element as `root`, and each part under the value of its attribute data-part.
export function instantiateTemplate(name) {
    const root = byId(`${name}-template`).content.firstElementChild.cloneNode(true);
    const parts = { root };
    for (const part of root.querySelectorAll("[data-part]")) {
        parts[part.dataset.part] = part;
    }
    return parts;
}

// Makes screen readers read the text aloud.
export function announce(text) {
    byId("announcement").textContent = text;
}
