// Helpers of the fuzz targets: report a violated rule, and split an input into lines and words.

#ifndef VEXALIVE_FUZZ_FUZZING_H
#define VEXALIVE_FUZZ_FUZZING_H

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace fuzzing {

// If `holds` is false, prints `rule` and `value` and aborts. The fuzzer then reports the input as a failure.
inline void require(bool holds, const char* rule, std::string_view value = {}) {
    if (holds) {
        return;
    }
    std::fprintf(stderr, "== broken: %s\n%.*s\n", rule, static_cast<int>(std::min<size_t>(value.size(), 20'000)),
                 value.data());
    std::abort();
}

// The lines of an input. A line that begins with a blank continues the previous line, so that a line may contain \n.
inline std::vector<std::string> linesOf(std::string_view input) {
    std::vector<std::string> lines;
    while (!input.empty()) {
        const std::string_view line = input.substr(0, input.find('\n'));
        input.remove_prefix(std::min(line.size() + 1, input.size()));
        if (!lines.empty() && !line.empty() && line.front() == ' ') {
            lines.back().append("\n").append(line.substr(1));
        } else {
            lines.emplace_back(line);
        }
    }
    return lines;
}

// Removes the first word and the blank behind it from `line`.
inline std::string_view takeWord(std::string_view& line) {
    const std::string_view word = line.substr(0, line.find(' '));
    line.remove_prefix(std::min(word.size() + 1, line.size()));
    return word;
}

// The number at the start of the string; 0 if there is none, or if it is too large.
template <class Integer>
Integer parseNumber(std::string_view text) {
    Integer number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

// The part before the first zero byte.
inline std::string upToZero(std::string_view text) {
    return std::string(text.substr(0, text.find('\0')));
}

inline bool startsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

inline bool endsWith(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

inline bool isPlainAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

}  // namespace fuzzing

#endif
