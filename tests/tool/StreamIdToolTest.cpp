// `vexalive stream-id` as a child process.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "support/ChildProcess.h"

namespace {

using ::testing::HasSubstr;

const std::map<std::string, std::string> kNoSettings = {
    {"VEXALIVE_BIZ_ID", ""}, {"VEXALIVE_ROOM", ""}, {"VEXALIVE_USER", ""}};

TEST(StreamIdTool, PrintsTheIdAndNothingElse) {
    ChildProcess tool({VEXALIVE_TOOL, "stream-id", "--biz-id", "8888", "--room", "r1", "--user", "u1", "--aux"},
                      kNoSettings);
    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_EQ(tool.output(), "8888_1c55b79b354e05d157fe243e37be6d04\n");  // MD5 of r1_u1_aux
    EXPECT_EQ(tool.errors(), "");
}

TEST(StreamIdTool, TakesTheEnvironmentAndMeansTheMainStream) {
    ChildProcess tool({VEXALIVE_TOOL, "stream-id", "--user", "alice"},
                      {{"VEXALIVE_BIZ_ID", "3891"}, {"VEXALIVE_ROOM", "4711"}, {"VEXALIVE_USER", "bob"}});
    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_EQ(tool.output(), "3891_9e92756edcfadb201e87dddf8172056d\n");  // MD5 of 4711_alice_main
}

TEST(StreamIdTool, NamesWhatIsMissingOrWrong) {
    ChildProcess missing({VEXALIVE_TOOL, "stream-id", "--biz-id", "1", "--room", "r"}, kNoSettings);
    EXPECT_EQ(missing.awaitExit(), 2);
    EXPECT_THAT(missing.errors(), HasSubstr("--user is missing"));
    ChildProcess wrong({VEXALIVE_TOOL, "stream-id", "--biz-id", "0", "--room", "r", "--user", "u"}, kNoSettings);
    EXPECT_EQ(wrong.awaitExit(), 2);
    EXPECT_THAT(wrong.errors(), HasSubstr("--biz-id is \"0\""));
    EXPECT_EQ(wrong.output(), "");
}

}  // namespace
