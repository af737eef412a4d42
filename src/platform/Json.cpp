// nlohmann-json's SAX parser calls JsonReader for each token, so the library builds no tree of its own. JsonReader
// bounds the depth. The library also serializes floating-point numbers and the strings that need escaping.

#include "base/Json.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace json {
namespace {

using Library = nlohmann::json;

constexpr size_t kMaxDepth = 512;
constexpr size_t kTypicalSize = 512;  // of a serialized body, in bytes

std::string serializeScalar(const Library& scalar) {
    return scalar.dump(-1, ' ', false, Library::error_handler_t::replace);
}

// Printable ASCII without quotes and backslashes, the usual case, is appended without a call of the library.
void append(std::string& json, const std::string& text) {
    const bool isPlain =
        std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; });
    if (isPlain) {
        json += '"';
        json += text;
        json += '"';
    } else {
        json += serializeScalar(text);
    }
}

void append(std::string& json, const Value& value) {
    const char* separator = "";
    switch (value.type()) {
        case Value::kNull:
            json += "null";
            break;
        case Value::kBool:
            json += *value.asBool() ? "true" : "false";
            break;
        case Value::kInteger:
            json += std::to_string(*value.asInteger());
            break;
        case Value::kReal:
            json += serializeScalar(*value.asReal());
            break;
        case Value::kString:
            append(json, *value.asString());
            break;
        case Value::kArray:
            json += '[';
            for (const Value& item : value.asArray()->items()) {
                json += std::exchange(separator, ",");
                append(json, item);
            }
            json += ']';
            break;
        case Value::kObject:
            json += '{';
            for (const auto& [key, member] : value.asObject()->members()) {
                json += std::exchange(separator, ",");
                append(json, key);
                json += ':';
                append(json, member);
            }
            json += '}';
            break;
    }
}

// The SAX handler. The library prescribes the names of the public functions, except takeRoot().
class JsonReader {
public:
    Value takeRoot() { return std::move(mRoot); }

    bool null() { return add(Value()); }
    bool boolean(bool value) { return add(value); }
    bool number_integer(int64_t value) { return add(value); }
    bool number_unsigned(uint64_t value) {
        return value <= uint64_t{std::numeric_limits<int64_t>::max()} ? add(static_cast<int64_t>(value))
                                                                      : add(static_cast<double>(value));
    }
    bool number_float(double value, const std::string&) { return add(value); }
    bool string(std::string& value) { return add(std::move(value)); }
    bool binary(std::vector<uint8_t>&) { return false; }

    bool start_object(size_t) { return open(true); }
    bool key(std::string& name) {
        mOpen.back().key = std::move(name);
        return true;
    }
    bool end_object() { return close(); }
    bool start_array(size_t) { return open(false); }
    bool end_array() { return close(); }

    bool parse_error(size_t, const std::string&, const nlohmann::detail::exception&) { return false; }

private:
    struct Container {
        bool isObject;
        Object object;
        Array array;
        std::string key;  // of the member whose value is read next
    };

    bool open(bool isObject) {
        if (mOpen.size() == kMaxDepth) {
            return false;
        }
        mOpen.push_back({isObject, {}, {}, {}});
        return true;
    }

    bool close() {
        Container done = std::move(mOpen.back());
        mOpen.pop_back();
        return done.isObject ? add(std::move(done.object)) : add(std::move(done.array));
    }

    bool add(Value value) {
        if (mOpen.empty()) {
            mRoot = std::move(value);
        } else if (mOpen.back().isObject) {
            mOpen.back().object[mOpen.back().key] = std::move(value);
        } else {
            mOpen.back().array.push_back(std::move(value));
        }
        return true;
    }

    std::vector<Container> mOpen;
    Value mRoot;
};

}  // namespace

std::string Serialize(const Value& value) {
    std::string json;
    json.reserve(kTypicalSize);
    append(json, value);
    return json;
}

Value Deserialize(const std::string& text) {
    if (text.find('\0') != std::string::npos) {
        return {};  // the library would stop at the zero byte and accept the value before it
    }
    JsonReader reader;
    return Library::sax_parse(text, &reader) ? reader.takeRoot() : Value();
}

}  // namespace json
