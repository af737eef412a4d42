#include <gtest/gtest.h>

#include "tools/Options.h"

namespace {

using namespace vexalive;

TEST(ReadInteger, TakesDecimalIntegersInTheRange) {
    EXPECT_EQ(readInteger("-5", -5, 5), -5);
    EXPECT_EQ(readInteger("5", -5, 5), 5);
}

TEST(ReadInteger, RefusesAllElse) {
    for (const char* text : {"", " 1", "1 ", "+1", "1x", "0x1", "1.0", "6", "-6", "99999999999999999999"}) {
        EXPECT_EQ(readInteger(text, -5, 5), std::nullopt) << text;
    }
}

TEST(DidYouMean, SuggestsTheNearest) {
    EXPECT_EQ(didYouMean("--bizid", {"--app-id", "--biz-id"}), "; did you mean --biz-id?");
    EXPECT_EQ(didYouMean("rlay", {"serve", "relay"}), "; did you mean relay?");
}

TEST(DidYouMean, SuggestsNothingThatIsFarOff) {
    EXPECT_EQ(didYouMean("quit", {"serve", "relay"}), "");
    EXPECT_EQ(didYouMean("x", {"serve"}), "");
}

TEST(DescribeExtras, NeverShowsAValue) {
    EXPECT_EQ(describeExtras({"hush"}, {"--sig"}),
              "too many arguments, by 1; does a text with blanks lack its quotes?");
    EXPECT_EQ(describeExtras({"hush", "--sgi"}, {"--sig"}), "there is no option --sgi; did you mean --sig?");
    EXPECT_EQ(describeExtras({"--sgi=hush"}, {"--sig"}), "there is no option --sgi; did you mean --sig?");
    EXPECT_EQ(describeExtras({"--sighush"}, {"--sig"}),
              "there is no option --sig...; did you mean --sig and a value after a blank?");
}

}  // namespace
