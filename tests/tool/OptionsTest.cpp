#include <gtest/gtest.h>

#include "tools/Options.h"

namespace {

using namespace vexalive;

TEST(ReadInteger, AcceptsDecimalIntegersInTheRangeOnly) {
    EXPECT_EQ(readInteger("-5", -5, 5), -5);
    EXPECT_EQ(readInteger("5", -5, 5), 5);
    for (const char* text : {"", " 1", "1 ", "+1", "1x", "0x1", "1.0", "6", "-6", "99999999999999999999"}) {
        EXPECT_EQ(readInteger(text, -5, 5), std::nullopt) << text;
    }
}

TEST(DidYouMean, SuggestsTheNearestOfSimilarCandidates) {
    EXPECT_EQ(didYouMean("--bizid", {"--app-id", "--biz-id"}), "; did you mean --biz-id?");
    EXPECT_EQ(didYouMean("rlay", {"serve", "relay"}), "; did you mean relay?");
    EXPECT_EQ(didYouMean("quit", {"serve", "relay"}), "");
    EXPECT_EQ(didYouMean("x", {"serve"}), "");
}

TEST(DescribeExtras, ShowsNoSecretValue) {
    for (const bool isSecret : {true, false}) {
        EXPECT_EQ(describeExtras({"hush", "--sgi"}, {"--sig"}, isSecret), "unknown option --sgi; did you mean --sig?");
        EXPECT_EQ(describeExtras({"--sgi=hush"}, {"--sig"}, isSecret), "unknown option --sgi; did you mean --sig?");
        EXPECT_EQ(describeExtras({"--sighush"}, {"--sig"}, isSecret),
                  "unknown option --sig...; put a space between --sig and its value");
    }
    EXPECT_EQ(describeExtras({"hush"}, {}, true), "1 unexpected argument. Quote values that contain spaces.");
    EXPECT_EQ(describeExtras({"extra.json", "a\x1b"}, {}, false),
              "2 unexpected arguments: extra.json, a\\x1b. Quote values that contain spaces.");
}

}  // namespace
