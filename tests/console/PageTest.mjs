// All suites that need no service, in one browser. Each suite can also run alone.

import "./AppearanceTest.mjs";
import "./ConnectionTest.mjs";
import "./FaultsTest.mjs";
import "./HostileTest.mjs";
import "./MixesTest.mjs";
import "./RelaysTest.mjs";
import "./RequestsTest.mjs";
import "./SnapshotTest.mjs";
