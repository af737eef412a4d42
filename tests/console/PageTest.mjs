// Runs all suites that use the mock service in one browser. Each suite can also be run alone.

import "./AppearanceTest.mjs";
import "./ConnectionTest.mjs";
import "./FaultsTest.mjs";
import "./HostileTest.mjs";
import "./MixesTest.mjs";
import "./RelaysTest.mjs";
import "./RequestsTest.mjs";
import "./SnapshotTest.mjs";
