// What the fuzzing targets share: how a broken rule ends the run, and how bytes become readable steps.

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

// Ends the process, and so makes the input a find, where `rule` does not hold. `seen` is shown with it.
inline void require(bool holds, const char* rule, std::string_view seen = {}) {
    if (holds) {
        return;
    }
    std::fprintf(stderr, "== broken: %s\n%.*s\n", rule, static_cast<int>(std::min<size_t>(seen.size(), 20'000)),
                 seen.data());
    std::abort();
}

// The lines of an input. One that begins with a blank goes on with the line before, so that a line may hold any bytes.
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

// Takes everything up to the first blank away from `line`, and the blank.
inline std::string_view takeWord(std::string_view& line) {
    const std::string_view word = line.substr(0, line.find(' '));
    line.remove_prefix(std::min(word.size() + 1, line.size()));
    return word;
}

// As much of it as is a number; 0 if nothing is, or if it is too large.
template <class Integer>
Integer numberOf(std::string_view text) {
    Integer number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

// As much of it as a C string shows.
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
