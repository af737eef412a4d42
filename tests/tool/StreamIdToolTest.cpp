// Tests of `vexalive stream-id` as a child process.

#include "ToolTest.h"

namespace {

TEST(StreamIdTool, PrintsOnlyTheId) {
    const ToolResult result = runTool({"stream-id", "--biz-id", "8888", "--room", "r1", "--user", "u1", "--aux"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "8888_1c55b79b354e05d157fe243e37be6d04\n");  // MD5 of r1_u1_aux
    EXPECT_EQ(result.errors, "");
}

TEST(StreamIdTool, ReadsTheEnvironmentAndDefaultsToTheMainStream) {
    const ToolResult result =
        runTool({"stream-id", "--user", "alice"},
                {{"VEXALIVE_BIZ_ID", "3891"}, {"VEXALIVE_ROOM", "4711"}, {"VEXALIVE_USER", "bob"}});
    EXPECT_EQ(result.output, "3891_9e92756edcfadb201e87dddf8172056d\n");  // MD5 of 4711_alice_main
}

}  // namespace
