#ifndef VEXALIVE_COMMON_TEXT_H
#define VEXALIVE_COMMON_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vexalive {

/// The length in bytes of the UTF-8 character with which `text` begins; 0 if it begins with none.
size_t utf8Length(std::string_view text);

/// `text` truncated to at most `maxBytes` bytes, without splitting a UTF-8 character.
std::string_view utf8Prefix(std::string_view text, size_t maxBytes);

/// Whether a code point must be escaped before it is shown: it controls a terminal, ends a line, changes the direction
/// of the text around it, or is a noncharacter (U+FFFE, U+FFFF and their counterparts in the other planes).
bool isUnprintable(char32_t codePoint);

/// `text` with "\xNN" for each byte of an unprintable character and for each byte that is not UTF-8. The result is one
/// line without terminal control sequences.
std::string printable(std::string_view text);

/// `text`, which must be printable, truncated to `columns` columns of a terminal. A truncated result ends with "...". A
/// character that is not ASCII counts as two columns, the maximum width of a character.
std::string clipped(const std::string& text, size_t columns);

/// A UTC time in milliseconds since 1970, as "2026-01-31T12:00:00.000Z".
std::string isoTime(uint64_t utcMilliseconds);

/// The time of day in the local time zone, as "12:00:00", of a UTC time in milliseconds since 1970.
std::string timeOfDay(uint64_t utcMilliseconds);

}  // namespace vexalive

#endif
