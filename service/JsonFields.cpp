#include "service/JsonFields.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

namespace vexalive {

using nlohmann::json;

namespace {

constexpr size_t kExcerptBytes = 48;  // a stream id fits
constexpr size_t kDeepest = 16;

// A key as paths show it: cut short, ASCII, and in quotes only if nothing is left of it.
std::string shownKey(const std::string& key) {
    const std::string quoted = excerpt(key);
    return quoted.size() == 2 ? quoted : quoted.substr(1, quoted.size() - 2);
}

// Walks over a text before it becomes a value, and stops at what is not allowed: the cost of a hostile text is bounded,
// and of two equal keys neither is lost unseen.
class Survey final : public nlohmann::json_sax<json> {
public:
    bool null() override { return value(); }
    bool boolean(bool) override { return value(); }
    bool number_integer(number_integer_t) override { return value(); }
    bool number_unsigned(number_unsigned_t) override { return value(); }
    bool number_float(number_float_t, const string_t&) override { return value(); }
    bool string(string_t&) override { return value(); }
    bool binary(binary_t&) override { return value(); }
    bool start_object(size_t) override { return open(false); }
    bool start_array(size_t) override { return open(true); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }

    bool key(string_t& name) override {
        Level& level = mLevels.back();
        level.at = name;
        if (level.keys.insert(name).second) {
            return true;
        }
        const std::string field = path();
        refuse(Refusal::kUnreadable, field, "found it twice, must be there once");
    }

    bool parse_error(size_t position, const std::string&, const json::exception&) override {
        refuse(Refusal::kUnreadable, "body", "found what is not JSON at byte " + std::to_string(position));
    }

private:
    struct Level {
        bool isArray = false;
        std::set<std::string> keys;
        std::string at;    // the key being read
        size_t index = 0;  // the element being read
    };

    bool open(bool isArray) {
        if (mLevels.size() == kDeepest) {
            refuse(Refusal::kUnreadable, "body",
                   "found nesting deeper than " + std::to_string(kDeepest) + " levels, the most that is read");
        }
        Level level;
        level.isArray = isArray;
        mLevels.push_back(std::move(level));
        return true;
    }

    bool close() {
        mLevels.pop_back();
        return value();
    }

    bool value() {
        if (!mLevels.empty() && mLevels.back().isArray) {
            ++mLevels.back().index;
        }
        return true;
    }

    std::string path() const {
        std::string result;
        for (const Level& level : mLevels) {
            if (level.isArray) {
                result += "[" + std::to_string(level.index) + "]";
                continue;
            }
            result += (result.empty() ? "" : ".") + shownKey(level.at);
        }
        return result;
    }

    std::vector<Level> mLevels;
};

std::string allowedRange(int64_t lowest, int64_t highest) {
    if (lowest == highest) {
        return "the integer " + std::to_string(lowest);
    }
    return "an integer from " + std::to_string(lowest) + " to " + std::to_string(highest);
}

}  // namespace

void refuse(int code, const std::string& field, const std::string& reason) {
    throw Refusal{code, field, field + ": " + reason};
}

std::string excerpt(std::string_view text) {
    const bool isCut = text.size() > kExcerptBytes;
    size_t length = std::min(text.size(), kExcerptBytes);
    for (int i = 0; i < 3 && isCut && (text[length] & 0xc0) == 0x80; ++i) {
        --length;  // a character of UTF-8 stays whole
    }
    const json shown = std::string(text.substr(0, length));
    std::string result = shown.dump(-1, ' ', true, json::error_handler_t::replace);
    if (isCut) {
        result.insert(result.size() - 1, "...");
    }
    return result;
}

std::string excerptOf(const json& value) {
    if (value.is_string()) {
        return excerpt(value.get_ref<const std::string&>());
    }
    if (value.is_structured()) {
        return value.is_object() ? "an object" : "an array";
    }
    return value.dump();
}

json readObject(const std::string& text) {
    Survey survey;
    json::sax_parse(text, &survey);
    json value = json::parse(text, nullptr, false);
    if (!value.is_object()) {
        refuse(Refusal::kUnreadable, "body", "found " + excerptOf(value) + ", must be a JSON object");
    }
    return value;
}

Fields::Fields(const json& object, std::string path) : mObject(object), mPath(std::move(path)) {
    if (!mObject.is_object()) {
        refuse(Refusal::kType, mPath, "found " + excerptOf(mObject) + ", must be an object");
    }
}

bool Fields::has(const char* key) const {
    return mObject.contains(key);
}

size_t Fields::count() const {
    return mObject.size();
}

std::string Fields::path(const char* key) const {
    return mPath.empty() ? key : mPath + "." + key;
}

const json& Fields::need(const char* key) {
    mKnown.insert(key);
    const auto found = mObject.find(key);
    if (found == mObject.end()) {
        refuse(Refusal::kMissing, path(key), "missing");
    }
    return *found;
}

std::string Fields::text(const char* key) {
    const json& value = need(key);
    if (!value.is_string()) {
        refuse(Refusal::kType, path(key), "found " + excerptOf(value) + ", must be a string");
    }
    return value.get<std::string>();
}

int64_t Fields::integer(const char* key, int64_t lowest, int64_t highest) {
    const json& value = need(key);
    if (!value.is_number_integer()) {
        refuse(Refusal::kType, path(key), "found " + excerptOf(value) + ", must be " + allowedRange(lowest, highest));
    }
    const bool isTooLarge = value.is_number_unsigned() && value.get<uint64_t>() > static_cast<uint64_t>(INT64_MAX);
    const int64_t number = isTooLarge ? INT64_MAX : value.get<int64_t>();
    if (isTooLarge || number < lowest || number > highest) {
        refuse(Refusal::kValue, path(key), "found " + excerptOf(value) + ", must be " + allowedRange(lowest, highest));
    }
    return number;
}

bool Fields::flag(const char* key) {
    const json& value = need(key);
    if (!value.is_boolean()) {
        refuse(Refusal::kType, path(key), "found " + excerptOf(value) + ", must be true or false");
    }
    return value.get<bool>();
}

Fields Fields::object(const char* key) {
    return Fields(need(key), path(key));
}

const json& Fields::array(const char* key) {
    const json& value = need(key);
    if (!value.is_array()) {
        refuse(Refusal::kType, path(key), "found " + excerptOf(value) + ", must be an array");
    }
    return value;
}

void Fields::refuseOthers() const {
    for (const auto& item : mObject.items()) {
        if (mKnown.count(item.key()) == 0) {
            refuse(Refusal::kUnknown, path(shownKey(item.key()).c_str()), "found a field that is not known here");
        }
    }
}

}  // namespace vexalive
