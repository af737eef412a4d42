// Texts from outside, made fit to be shown: nothing in them can steer the terminal, fill it, or give a secret away.

#ifndef VEXALIVE_TOOLS_TEXT_H
#define VEXALIVE_TOOLS_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vexalive {

// The text with each control character, and each byte that is not UTF-8, as "\xNN". "\n" too: the result is one line.
std::string printable(std::string_view text);

// As much of a printable text as fits into `columns`, with "..." if something is left out. A character that is not
// ASCII counts as two columns, which is the most it can take.
std::string clipped(const std::string& text, size_t columns);

// Values that are never to be shown. One shorter than four bytes is not looked for: it would be found everywhere.
class Secrets {
public:
    void add(const std::string& value);

    // The text with "[hidden]" wherever one of the values stands.
    std::string hide(std::string text) const;

private:
    std::vector<std::string> mValues;  // the longest first, so that none leaves a piece of another
};

// A UTC time in milliseconds since 1970, as "2026-01-31T12:00:00.000Z".
std::string isoTime(uint64_t utcMilliseconds);

// The same as the time of day here: "12:00:00".
std::string timeOfDay(uint64_t utcMilliseconds);

}  // namespace vexalive

#endif
