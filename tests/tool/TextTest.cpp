#include <gtest/gtest.h>

#include "tools/Text.h"

namespace {

using vexalive::Secrets;

TEST(SecretsTest, AreHiddenWhereverTheyStand) {
    Secrets secrets;
    secrets.add("hush-hush");
    EXPECT_EQ(secrets.hide("a hush-hush b hush-hushhush-hush"), "a [hidden] b [hidden][hidden]");
}

TEST(SecretsTest, HideTheLongerFirstSoThatNoPieceIsLeft) {
    Secrets secrets;
    secrets.add("abcd");
    secrets.add("abcdefgh");
    EXPECT_EQ(secrets.hide("abcdefgh abcd"), "[hidden] [hidden]");
}

TEST(SecretsTest, AreNotLookedForIfTheyAreOnlyAFewBytes) {
    Secrets secrets;
    secrets.add("");
    secrets.add("abc");
    EXPECT_EQ(secrets.hide("abc"), "abc");
}

}  // namespace
