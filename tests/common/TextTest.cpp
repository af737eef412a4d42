#include <gtest/gtest.h>

#include "common/Text.h"

namespace {

using vexalive::clipped;
using vexalive::printable;
using vexalive::utf8Prefix;

TEST(Printable, EscapesAllThatIsNotAVisibleCharacter) {
    const std::pair<std::string_view, std::string_view> rows[] = {
        {"plain, é, 漢字, 😀", "plain, é, 漢字, 😀"},
        {"a\x1b[2Jb\r\n\x7f", "a\\x1b[2Jb\\x0d\\x0a\\x7f"},
        {"\u009b2J", "\\xc2\\x9b2J"},
        {"\u2028", "\\xe2\\x80\\xa8"},
        {std::string_view("\0", 1), "\\x00"},
        {"\u202a\u202e", "\\xe2\\x80\\xaa\\xe2\\x80\\xae"},  // direction of writing
        {"\u2066\u2069", "\\xe2\\x81\\xa6\\xe2\\x81\\xa9"},
        {"\u200e\u200f\u061c", "\\xe2\\x80\\x8e\\xe2\\x80\\x8f\\xd8\\x9c"},
        {"\u200d\u2010\u2065\u206a", "\u200d\u2010\u2065\u206a"},  // the adjacent code points
        {"\xff", "\\xff"},
        {"\xc0\x80", "\\xc0\\x80"},           // overlong
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},  // a surrogate
        {"\xe6\xbc", "\\xe6\\xbc"},           // incomplete
        {"\uffff\U0001fffe", "\\xef\\xbf\\xbf\\xf0\\x9f\\xbf\\xbe"},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(expected, printable(text));
    }
}

TEST(Clipped, EndsALongerStringWithDots) {
    EXPECT_EQ(clipped("12345", 5), "12345");
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
