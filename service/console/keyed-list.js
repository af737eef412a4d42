// Shows a list of items as the children of an element. While an item's key is in the list, its element is reused, so
// that updates do not change focus, selection and scroll position.
//
// `create(item)` returns {root, update, dispose}: the element, and optional functions. `update(item)` is called if the
// item has changed, `dispose()` after the element has been removed.
export class KeyedList {
    #parent;
    #create;
    #entries = new Map();

    constructor(parent, create) {
        this.#parent = parent;
        this.#create = create;
    }

    show(items, keyOf = (item, index) => index) {
        const keys = items.map(keyOf);
        this.#removeAllBut(new Set(keys));
        let next = this.#parent.firstElementChild;
        items.forEach((item, index) => {
            const entry = this.#entries.get(keys[index]) ?? this.#add(keys[index], item);
            if (entry.root === next) {
                next = next.nextElementSibling;
            } else {
                this.#parent.insertBefore(entry.root, next);
            }
            const content = JSON.stringify(item);
            if (entry.update && entry.content !== content) {
                entry.update(item);
                entry.content = content;
            }
        });
    }

    #removeAllBut(keys) {
        for (const [key, entry] of this.#entries) {
            if (!keys.has(key)) {
                entry.root.remove();
                entry.dispose?.();
                this.#entries.delete(key);
            }
        }
    }

    #add(key, item) {
        const entry = this.#create(item);
        this.#entries.set(key, entry);
        return entry;
    }
}
