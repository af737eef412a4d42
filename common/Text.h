#ifndef VEXALIVE_COMMON_TEXT_H
#define VEXALIVE_COMMON_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vexalive {

/// The length in bytes of the UTF-8 character at the front of `text`; 0 if the text is empty or does not begin with
/// one.
size_t utf8Length(std::string_view text);

/// The longest beginning of `text` that has at most `maxBytes` bytes and splits no UTF-8 character.
std::string_view utf8Prefix(std::string_view text, size_t maxBytes);

/// Whether a code point must be escaped before it is shown: it controls a terminal, ends a line, changes the direction
/// of the text around it, or is a noncharacter (U+FFFE, U+FFFF and their counterparts in the other planes).
bool isUnprintable(char32_t codePoint);

/// `text` with each byte of an unprintable character, and each byte that is not UTF-8, as "\xNN". The result is one
/// line without control sequences of a terminal.
std::string printable(std::string_view text);

/// The beginning of a printable string that fits into `columns`, with "..." if it is truncated. A character that is not
/// ASCII counts as two columns, the maximum width of a character.
std::string clipped(const std::string& text, size_t columns);

/// A UTC time in milliseconds since 1970, as "2026-01-31T12:00:00.000Z".
std::string isoTime(uint64_t utcMilliseconds);

/// The same as the time of day in the local time zone: "12:00:00".
std::string timeOfDay(uint64_t utcMilliseconds);

}  // namespace vexalive

#endif
