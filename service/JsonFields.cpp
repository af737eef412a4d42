#include "service/JsonFields.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "common/Text.h"

namespace vexalive {

using nlohmann::json;

namespace {

constexpr size_t kExcerptBytes = 48;  // enough for a stream id
constexpr size_t kMaxDepth = 16;

const json kEmptyObject = json::object();
const json kEmptyArray = json::array();
const json kNull;

// Formats a key for the path of a field: truncated and escaped to ASCII. Only an empty key is put in quotes.
std::string formatKey(const std::string& key) {
    const std::string quoted = excerpt(key);
    return quoted.size() == 2 ? quoted : quoted.substr(1, quoted.size() - 2);
}

// Checks syntax, depth and duplicate keys without building a value, and stops at the first error. This bounds the cost
// of hostile input. A parsed value would not show duplicate keys: it has only the last of them.
class StructureCheck final : public nlohmann::json_sax<json> {
public:
    explicit StructureCheck(Validation& validation) : mValidation(validation) {}

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
        mValidation.refuse(Refusal::kUnreadable, path(), "found it twice, must be there once");
        return false;
    }

    bool parse_error(size_t position, const std::string&, const json::exception&) override {
        mValidation.refuse(Refusal::kUnreadable, "body", "found invalid JSON at byte " + std::to_string(position));
        return false;
    }

private:
    struct Level {
        bool isArray = false;
        std::set<std::string> keys;
        std::string at;    // the key being read
        size_t index = 0;  // the element being read
    };

    bool open(bool isArray) {
        if (mLevels.size() == kMaxDepth) {
            mValidation.refuse(Refusal::kUnreadable, "body",
                               "found nesting deeper than " + std::to_string(kMaxDepth) + " levels, the maximum");
            return false;
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
            result += (result.empty() ? "" : ".") + formatKey(level.at);
        }
        return result;
    }

    Validation& mValidation;
    std::vector<Level> mLevels;
};

}  // namespace

void Validation::refuse(int code, const std::string& field, const std::string& reason) {
    if (!mRefusal) {
        mRefusal = Refusal{code, field, field + ": " + reason};
    }
}

std::string allowedRange(int64_t lowest, int64_t highest) {
    if (lowest == highest) {
        return "the integer " + std::to_string(lowest);
    }
    return "an integer from " + std::to_string(lowest) + " to " + std::to_string(highest);
}

std::string excerpt(std::string_view text) {
    const bool isCut = text.size() > kExcerptBytes;
    const json shown = std::string(utf8Prefix(text, kExcerptBytes));
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

json readObject(const std::string& text, Validation& validation) {
    StructureCheck check(validation);
    if (!json::sax_parse(text, &check)) {
        return kEmptyObject;
    }
    json value = json::parse(text, nullptr, false);
    if (!value.is_object()) {
        validation.refuse(Refusal::kUnreadable, "body", "found " + excerptOf(value) + ", must be a JSON object");
        return kEmptyObject;
    }
    return value;
}

Fields::Fields(const json& object, std::string path, Validation& validation)
    : mObject(object.is_object() ? object : kEmptyObject), mPath(std::move(path)), mValidation(validation) {
    if (!object.is_object()) {
        mValidation.refuse(Refusal::kType, mPath, "found " + excerptOf(object) + ", must be an object");
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

void Fields::refuse(int code, const char* key, const std::string& reason) {
    mValidation.refuse(code, path(key), reason);
}

const json& Fields::require(const char* key) {
    mKnown.insert(key);
    const auto found = mObject.find(key);
    if (found == mObject.end()) {
        refuse(Refusal::kMissing, key, "missing");
        return kNull;
    }
    return *found;
}

std::string Fields::text(const char* key) {
    const json& value = require(key);
    if (!value.is_string()) {
        refuse(Refusal::kType, key, "found " + excerptOf(value) + ", must be a string");
        return "";
    }
    return value.get<std::string>();
}

int64_t Fields::integer(const char* key, int64_t lowest, int64_t highest) {
    const json& value = require(key);
    const std::string allowed = ", must be " + allowedRange(lowest, highest);
    if (!value.is_number_integer()) {
        refuse(Refusal::kType, key, "found " + excerptOf(value) + allowed);
        return lowest;
    }
    const bool isTooLarge = value.is_number_unsigned() && value.get<uint64_t>() > static_cast<uint64_t>(INT64_MAX);
    const int64_t number = isTooLarge ? INT64_MAX : value.get<int64_t>();
    if (isTooLarge || number < lowest || number > highest) {
        refuse(Refusal::kValue, key, "found " + excerptOf(value) + allowed);
        return lowest;
    }
    return number;
}

bool Fields::flag(const char* key) {
    const json& value = require(key);
    if (!value.is_boolean()) {
        refuse(Refusal::kType, key, "found " + excerptOf(value) + ", must be true or false");
        return false;
    }
    return value.get<bool>();
}

Fields Fields::object(const char* key) {
    return Fields(require(key), path(key), mValidation);
}

const json& Fields::array(const char* key) {
    const json& value = require(key);
    if (!value.is_array()) {
        refuse(Refusal::kType, key, "found " + excerptOf(value) + ", must be an array");
        return kEmptyArray;
    }
    return value;
}

void Fields::refuseOthers() const {
    for (const auto& item : mObject.items()) {
        if (mKnown.count(item.key()) == 0) {
            mValidation.refuse(Refusal::kUnknown, path(formatKey(item.key()).c_str()), "found an unknown field");
        }
    }
}

}  // namespace vexalive
