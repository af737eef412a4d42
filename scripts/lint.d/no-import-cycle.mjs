// An ESLint rule against import cycles between modules. Follows relative imports only.

import { existsSync, readFileSync } from "node:fs";
import { dirname, resolve } from "node:path";

const importPattern = /^(?:import|export)\b[^;]*?["'](\.{1,2}\/[^"']+)["']/gm;

function importsOf(file) {
    const source = existsSync(file) ? readFileSync(file, "utf8") : "";
    return [...source.matchAll(importPattern)].map((match) => resolve(dirname(file), match[1]));
}

// Returns the modules on an import path from `file` to `target`, both included, or null if there is no such path.
function pathTo(target, file, visited = new Set()) {
    if (file === target) {
        return [file];
    }
    visited.add(file);
    for (const imported of importsOf(file)) {
        const path = visited.has(imported) ? null : pathTo(target, imported, visited);
        if (path) {
            return [file, ...path];
        }
    }
    return null;
}

export const noImportCycle = {
    meta: { type: "problem", schema: [], messages: { cycle: "import cycle: {{path}}" } },
    create(context) {
        return {
            ImportDeclaration(node) {
                if (!node.source.value.startsWith(".")) {
                    return;
                }
                const folder = dirname(context.filename);
                const path = pathTo(context.filename, resolve(folder, node.source.value));
                if (path) {
                    const names = [context.filename, ...path].map((file) => file.slice(folder.length + 1));
                    context.report({ node, messageId: "cycle", data: { path: names.join(" -> ") } });
                }
            },
        };
    },
};
