#include "common/Text.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace vexalive {
namespace {

unsigned char byteAt(std::string_view text, size_t index) {
    return static_cast<unsigned char>(text[index]);
}

// `character` is one whole UTF-8 character.
char32_t codePointOf(std::string_view character) {
    constexpr unsigned char kFirstMask[] = {0, 0x7f, 0x1f, 0x0f, 0x07};
    char32_t codePoint = byteAt(character, 0) & kFirstMask[character.size()];
    for (size_t i = 1; i < character.size(); ++i) {
        codePoint = codePoint << 6 | (byteAt(character, i) & 0x3f);
    }
    return codePoint;
}

std::tm* calendar(uint64_t utcMilliseconds, bool local, std::tm& time) {
    const auto seconds = static_cast<std::time_t>(utcMilliseconds / 1000);
    return local ? localtime_r(&seconds, &time) : gmtime_r(&seconds, &time);
}

}  // namespace

size_t utf8Length(std::string_view text) {
    if (text.empty()) {
        return 0;
    }
    const unsigned char first = byteAt(text, 0);
    const size_t length = first < 0x80   ? 1
                          : first < 0xc2 ? 0
                          : first < 0xe0 ? 2
                          : first < 0xf0 ? 3
                          : first < 0xf5 ? 4
                                         : 0;
    if (length == 0 || length > text.size()) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if ((byteAt(text, i) & 0xc0) != 0x80) {
            return 0;
        }
    }
    const bool isOverlong = (first == 0xe0 && byteAt(text, 1) < 0xa0) || (first == 0xf0 && byteAt(text, 1) < 0x90);
    const bool isNoCodePoint = (first == 0xed && byteAt(text, 1) >= 0xa0) || (first == 0xf4 && byteAt(text, 1) >= 0x90);
    return isOverlong || isNoCodePoint ? 0 : length;
}

std::string_view utf8Prefix(std::string_view text, size_t maxBytes) {
    constexpr size_t kMaxContinuationBytes = 3;
    size_t length = std::min(text.size(), maxBytes);
    for (size_t i = 0; i < kMaxContinuationBytes && length > 0 && length < text.size(); ++i) {
        if ((byteAt(text, length) & 0xc0) != 0x80) {
            break;
        }
        --length;
    }
    return text.substr(0, length);
}

bool isUnprintable(char32_t codePoint) {
    const auto isIn = [codePoint](char32_t first, char32_t last) { return codePoint >= first && codePoint <= last; };
    const bool isControl = codePoint < 0x20 || isIn(0x7f, 0x9f) || isIn(0x2028, 0x2029);
    const bool changesDirection =
        codePoint == 0x061c || isIn(0x200e, 0x200f) || isIn(0x202a, 0x202e) || isIn(0x2066, 0x2069);
    return isControl || changesDirection || (codePoint & 0xfffe) == 0xfffe;
}

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const size_t length = utf8Length(text);
        const std::string_view character = text.substr(0, std::max<size_t>(1, length));
        if (length == 0 || isUnprintable(codePointOf(character))) {
            for (const char byte : character) {
                char escaped[5];
                std::snprintf(escaped, sizeof escaped, "\\x%02x",
                              static_cast<unsigned>(static_cast<unsigned char>(byte)));
                result += escaped;
            }
        } else {
            result += character;
        }
        text.remove_prefix(character.size());
    }
    return result;
}

std::string clipped(const std::string& text, size_t columns) {
    constexpr std::string_view kMore = "...";
    const size_t available = columns < kMore.size() ? 0 : columns - kMore.size();
    size_t width = 0;
    size_t shown = 0;  // number of bytes that fit before kMore
    for (size_t i = 0; i < text.size();) {
        const size_t length = std::max<size_t>(1, utf8Length(std::string_view(text).substr(i)));
        width += length == 1 ? 1 : 2;
        i += length;
        if (width <= available) {
            shown = i;
        }
    }
    return width <= columns ? text : text.substr(0, shown) + std::string(kMore.substr(0, columns));
}

std::string isoTime(uint64_t utcMilliseconds) {
    std::tm time{};
    char seconds[32];
    std::strftime(seconds, sizeof seconds, "%Y-%m-%dT%H:%M:%S", calendar(utcMilliseconds, false, time));
    char text[40];
    std::snprintf(text, sizeof text, "%s.%03uZ", seconds, static_cast<unsigned>(utcMilliseconds % 1000));
    return text;
}

std::string timeOfDay(uint64_t utcMilliseconds) {
    std::tm time{};
    char text[16];
    std::strftime(text, sizeof text, "%H:%M:%S", calendar(utcMilliseconds, true, time));
    return text;
}

}  // namespace vexalive
