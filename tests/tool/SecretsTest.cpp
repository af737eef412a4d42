#include <gtest/gtest.h>

#include "tools/Secrets.h"

namespace {

using vexalive::Secrets;

std::string hide(const std::vector<std::string>& values, const std::string& text) {
    Secrets secrets;
    for (const std::string& value : values) {
        secrets.add(value);
    }
    return secrets.hide(text);
}

TEST(SecretsTest, EachOccurrenceIsHidden) {
    EXPECT_EQ(hide({"hush-hush"}, "a hush-hush b hush-hushhush-hush"), "a [hidden] b [hidden][hidden]");
}

TEST(SecretsTest, TheLongerValueIsHiddenFirst) {
    EXPECT_EQ(hide({"abcd", "abcdefgh"}, "abcdefgh abcd"), "[hidden] [hidden]");
}

TEST(SecretsTest, ValuesShorterThanFourBytesAreIgnored) {
    EXPECT_EQ(hide({"", "abc"}, "abc"), "abc");
}

}  // namespace
