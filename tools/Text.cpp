#include "tools/Text.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace vexalive {
namespace {

constexpr size_t kMinSecret = 4;

// The length of the UTF-8 character at the front, or 0 if there is none.
size_t characterLength(std::string_view text) {
    const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
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
        if ((byte(i) & 0xc0) != 0x80) {
            return 0;
        }
    }
    const bool tooLong = (first == 0xe0 && byte(1) < 0xa0) || (first == 0xf0 && byte(1) < 0x90);
    const bool noCharacter = (first == 0xed && byte(1) >= 0xa0) || (first == 0xf4 && byte(1) >= 0x90);
    return tooLong || noCharacter ? 0 : length;
}

// U+0000 to U+001F, U+007F to U+009F, and what turns the direction of writing.
bool steersTerminal(std::string_view character) {
    const auto byte = [character](size_t i) { return static_cast<unsigned char>(character[i]); };
    if (character.size() == 1) {
        return byte(0) < 0x20 || byte(0) == 0x7f;
    }
    if (character.size() == 2) {
        return byte(0) == 0xc2 && byte(1) < 0xa0;
    }
    return character >= "\u202a" && character <= "\u202e";
}

std::tm* calendar(uint64_t utcMilliseconds, bool local, std::tm& time) {
    const auto seconds = static_cast<std::time_t>(utcMilliseconds / 1000);
    return local ? localtime_r(&seconds, &time) : gmtime_r(&seconds, &time);
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const size_t length = characterLength(text);
        const std::string_view character = text.substr(0, std::max<size_t>(1, length));
        if (length == 0 || steersTerminal(character)) {
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
    const size_t room = columns < kMore.size() ? 0 : columns - kMore.size();
    size_t width = 0;
    size_t keep = 0;  // bytes that leave room for kMore
    for (size_t i = 0; i < text.size();) {
        const size_t length = std::max<size_t>(1, characterLength(std::string_view(text).substr(i)));
        width += length == 1 ? 1 : 2;
        i += length;
        if (width <= room) {
            keep = i;
        }
    }
    return width <= columns ? text : text.substr(0, keep) + std::string(kMore.substr(0, columns));
}

void Secrets::add(const std::string& value) {
    if (value.size() >= kMinSecret) {
        mValues.push_back(value);
        std::sort(mValues.begin(), mValues.end(),
                  [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
    }
}

std::string Secrets::hide(std::string text) const {
    constexpr std::string_view kHidden = "[hidden]";
    for (const std::string& value : mValues) {
        for (size_t at = text.find(value); at != std::string::npos; at = text.find(value, at + kHidden.size())) {
            text.replace(at, value.size(), kHidden);
        }
    }
    return text;
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
