#include <gtest/gtest.h>

#include "common/Text.h"

namespace {

using vexalive::clipped;
using vexalive::printable;
using vexalive::utf8Prefix;

TEST(Printable, LeavesUtf8AsItStands) {
    EXPECT_EQ(printable("plain, é, 漢字, 😀"), "plain, é, 漢字, 😀");
}

TEST(Printable, EscapesControlCharacters) {
    EXPECT_EQ(printable("a\x1b[2Jb\r\n\x7f"), "a\\x1b[2Jb\\x0d\\x0a\\x7f");
    EXPECT_EQ(printable("\u009b2J"), "\\xc2\\x9b2J");
    EXPECT_EQ(printable("\u2028"), "\\xe2\\x80\\xa8");
    EXPECT_EQ(printable(std::string_view("\0", 1)), "\\x00");
}

TEST(Printable, EscapesWhatChangesTheDirectionOfWriting) {
    EXPECT_EQ(printable("\u202a\u202e"), "\\xe2\\x80\\xaa\\xe2\\x80\\xae");
    EXPECT_EQ(printable("\u2066\u2069"), "\\xe2\\x81\\xa6\\xe2\\x81\\xa9");
    EXPECT_EQ(printable("\u200e\u200f\u061c"), "\\xe2\\x80\\x8e\\xe2\\x80\\x8f\\xd8\\x9c");
    EXPECT_EQ(printable("\u200d\u2010\u2065\u206a"), "\u200d\u2010\u2065\u206a");  // the neighbours
}

TEST(Printable, EscapesBytesThatAreNoCharacter) {
    EXPECT_EQ(printable("\xff"), "\\xff");
    EXPECT_EQ(printable("\xc0\x80"), "\\xc0\\x80");           // overlong
    EXPECT_EQ(printable("\xed\xa0\x80"), "\\xed\\xa0\\x80");  // a surrogate
    EXPECT_EQ(printable("\xe6\xbc"), "\\xe6\\xbc");           // cut off
    EXPECT_EQ(printable("\uffff\U0001fffe"), "\\xef\\xbf\\xbf\\xf0\\x9f\\xbf\\xbe");
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

TEST(Utf8Prefix, SplitsNoCharacter) {
    EXPECT_EQ(utf8Prefix("abc", 3), "abc");
    EXPECT_EQ(utf8Prefix("abc", 2), "ab");
    EXPECT_EQ(utf8Prefix("a漢", 3), "a");
    EXPECT_EQ(utf8Prefix("a漢", 4), "a漢");
    EXPECT_EQ(utf8Prefix("a😀b", 4), "a");
    EXPECT_EQ(utf8Prefix("漢", 0), "");
}

TEST(IsoTime, IsUtcWithMilliseconds) {
    EXPECT_EQ(vexalive::isoTime(0), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(vexalive::isoTime(1767225600007), "2026-01-01T00:00:00.007Z");
}

}  // namespace
