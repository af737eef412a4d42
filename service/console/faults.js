// The section "Faults": a form for each kind of fault that the service offers, and the list of active faults.

import { send } from "./api.js";
import { announce, byId, createElement, instantiateTemplate, setText } from "./dom.js";
import { formatCount } from "./format.js";
import { KeyedList } from "./keyed-list.js";
import { polling } from "./polling.js";

// How to show and read a field. The key is the field's type in the service's list of kinds. The page does not check the
// values, because the service does. An empty number is sent as null, which the service refuses.
const fieldTypes = {
    integer: { inputType: "number", read: readNumber },
    string: { inputType: "text", read: (input) => input.value },
    boolean: { inputType: "checkbox", read: (input) => input.checked },
};

function readNumber(input) {
    return input.value === "" ? null : Number(input.value);
}

// A field without a default is required. It is initially empty.
function createField({ name, type, default: value = "", minimum, maximum }) {
    const label = createElement("label", `field ${type}`);
    const input = createElement("input");
    input.type = fieldTypes[type].inputType;
    input.name = name;
    if (type === "boolean") {
        input.checked = value;
    } else {
        input.value = value;
    }
    if (type === "integer") {
        input.min = minimum;
        input.max = maximum;
        input.placeholder = `${minimum} to ${maximum}`;
        input.title = input.placeholder;
    }
    label.append(input, ` ${name}`);
    return label;
}

function readCount() {
    const choice = document.querySelector("input[name=count]:checked").value;
    return { once: 1, always: 0, count: readNumber(byId("fault-count")) }[choice];
}

function readFault({ kind, fields }, form) {
    const fault = { kind, count: readCount() };
    const interfaceName = byId("fault-interface").value;
    if (interfaceName !== "") {
        fault.interface = interfaceName;
    }
    for (const { name, type } of fields) {
        fault[name] = fieldTypes[type].read(form.elements.namedItem(name));
    }
    return fault;
}

function createKind(kind) {
    const { root, form, title, description, fields, add, error } = instantiateTemplate("kind");
    root.dataset.kind = kind.kind;
    setText(title, kind.kind);
    setText(description, kind.description);
    fields.append(...kind.fields.map(createField));
    add.setAttribute("aria-label", `Add fault: ${kind.kind}`);
    form.addEventListener("submit", async (event) => {
        event.preventDefault();
        const message = await send("POST", "/faults", readFault(kind, form));
        setText(error, message);
        if (!message) {
            announce(`Fault added: ${kind.kind}.`);
            polling.pollNow();
        }
    });
    return { root };
}

// Describes a fault like the option --fault of `vexalive serve`: the value of the kind's first field follows the kind.
// `mainField` is the name of that field.
function describeFault(fault, mainField) {
    const { kind, interface: _interface, count: _count, [mainField]: mainValue, ...others } = fault;
    const isSet = ([name, value]) => value !== false && !(name === "delay_ms" && value === 0);
    const values = Object.entries(others).filter(isSet);
    const head = mainValue === undefined ? kind : `${kind}=${mainValue}`;
    return [head, ...values.map(([name, value]) => `${name}=${JSON.stringify(value)}`)].join(", ");
}

function describeScope({ interface: interfaceName, count }) {
    const repetitions = count === 0 ? "until cleared" : count === 1 ? "once" : `${formatCount(count)} times`;
    return `${interfaceName ?? "any interface"}, ${repetitions}`;
}

function createActiveFault() {
    const root = createElement("li");
    const description = createElement("code");
    const scope = createElement("span", "secondary");
    root.append(description, " ", scope);
    return {
        root,
        update({ fault, mainField }) {
            setText(description, describeFault(fault, mainField));
            setText(scope, describeScope(fault));
        },
    };
}

const kindList = new KeyedList(byId("fault-kinds"), createKind);
const activeFaults = new KeyedList(byId("active-faults"), createActiveFault);

byId("fault-count").addEventListener("input", () => {
    document.querySelector("input[name=count][value=count]").checked = true;
});

byId("clear-faults").addEventListener("click", async () => {
    const message = await send("DELETE", "/faults");
    setText(byId("clear-error"), message);
    if (!message) {
        announce("All faults cleared.");
        polling.pollNow();
    }
});

export function showFaults({ active, kinds }) {
    kindList.show(kinds, (kind) => JSON.stringify(kind));
    const mainFields = new Map(kinds.map(({ kind, fields }) => [kind, fields[0]?.name]));
    activeFaults.show(active.map((fault) => ({ fault, mainField: mainFields.get(fault.kind) })));
    byId("faults-empty").hidden = active.length > 0;
    byId("clear-faults").hidden = active.length === 0;
    setText(byId("fault-total"), String(active.length));
}
