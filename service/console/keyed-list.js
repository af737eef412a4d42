// Keeps the children of an element in step with a list of items. An item's element persists while its key is in the
// list, so that focus, selection and scroll position survive updates.
//
// `create(item)` returns {root, update, dispose}; the last two are optional.
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
