// ESLint's rules for the console, its tests and the Node.js programs of the benchmark. scripts/lint copies this file to
// the folder with the packages that it imports, and runs ESLint in the top folder of the repository.

import js from "@eslint/js";
import globals from "globals";

import { noImportCycle } from "./no-import-cycle.mjs";

export default [
    js.configs.recommended,
    {
        files: ["**/*.{js,mjs}"],
        languageOptions: { ecmaVersion: 2023, sourceType: "module" },
        linterOptions: { reportUnusedDisableDirectives: "error" },
        plugins: { local: { rules: { "no-import-cycle": noImportCycle } } },
        rules: {
            eqeqeq: "error",
            "local/no-import-cycle": "error",
            "no-duplicate-imports": "error",
            "no-shadow": "error",
            "no-unused-vars": ["error", { ignoreRestSiblings: true, varsIgnorePattern: "^_" }],
            "no-use-before-define": ["error", { functions: false, classes: false, variables: false }],
            "no-var": "error",
            "prefer-const": "error",
        },
    },
    { files: ["service/console/*.js"], languageOptions: { globals: globals.browser } },
    // Some functions in the tests run in the browser.
    { files: ["tests/console/*.mjs"], languageOptions: { globals: { ...globals.node, ...globals.browser } } },
    { files: ["bench/npm/*.mjs", "scripts/**/*.mjs"], languageOptions: { globals: globals.node } },
];
