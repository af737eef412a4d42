#include <gtest/gtest.h>

#include "tools/Text.h"

namespace {

using vexalive::clipped;
using vexalive::printable;
using vexalive::Secrets;

TEST(Printable, LeavesUtf8AsItStands) {
    EXPECT_EQ(printable("plain, é, 漢字, 😀"), "plain, é, 漢字, 😀");
}

TEST(Printable, ShowsWhatSteersATerminal) {
    EXPECT_EQ(printable("a\x1b[2Jb\r\n\x7f"), "a\\x1b[2Jb\\x0d\\x0a\\x7f");
    EXPECT_EQ(printable("\u009b2J"), "\\xc2\\x9b2J");
    EXPECT_EQ(printable("\u202e"), "\\xe2\\x80\\xae");
    EXPECT_EQ(printable(std::string_view("\0", 1)), "\\x00");
}

TEST(Printable, ShowsBytesThatAreNotUtf8) {
    EXPECT_EQ(printable("\xff"), "\\xff");
    EXPECT_EQ(printable("\xc0\x80"), "\\xc0\\x80");           // overlong
    EXPECT_EQ(printable("\xed\xa0\x80"), "\\xed\\xa0\\x80");  // a surrogate
    EXPECT_EQ(printable("\xe6\xbc"), "\\xe6\\xbc");           // cut off
}

TEST(Clipped, LeavesATextThatFits) {
    EXPECT_EQ(clipped("12345", 5), "12345");
}

TEST(Clipped, EndsALongerOneWithDots) {
    EXPECT_EQ(clipped("123456", 5), "12...");
    EXPECT_EQ(clipped("123456", 2), "..");
    EXPECT_EQ(clipped("123456", 0), "");
}

TEST(Clipped, CountsACharacterThatIsNotAsciiAsTwoColumnsAndNeverCutsIt) {
    EXPECT_EQ(clipped("漢字漢字", 8), "漢字漢字");
    EXPECT_EQ(clipped("漢字漢字", 7), "漢字...");
    EXPECT_EQ(clipped("漢字漢字", 6), "漢...");
}

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

TEST(IsoTime, IsUtcWithMilliseconds) {
    EXPECT_EQ(vexalive::isoTime(0), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(vexalive::isoTime(1767225600007), "2026-01-01T00:00:00.007Z");
}

}  // namespace
