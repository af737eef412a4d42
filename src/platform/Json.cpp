// JSON text on nlohmann-json: its reader calls JsonReader for each token, so no second tree is built and the depth is
// bounded on the way.

#include "base/Json.h"

#include <nlohmann/json.hpp>

namespace json {
namespace {

using Library = nlohmann::json;

constexpr size_t kMaxDepth = 512;

Library toLibrary(const Value& value) {
    switch (value.type()) {
        case Value::kNull:
            return nullptr;
        case Value::kBool:
            return *value.asBool();
        case Value::kInteger:
            return *value.asInteger();
        case Value::kReal:
            return *value.asReal();
        case Value::kString:
            return *value.asString();
        case Value::kArray: {
            Library array = Library::array();
            for (const Value& item : value.asArray()->items()) {
                array.push_back(toLibrary(item));
            }
            return array;
        }
        case Value::kObject: {
            Library object = Library::object();
            for (const auto& [key, member] : value.asObject()->members()) {
                object[key] = toLibrary(member);
            }
            return object;
        }
    }
    return nullptr;
}

// The names of the operations are the library's.
class JsonReader {
public:
    Value take() { return std::move(mRoot); }

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
        std::string key;  // of the member to come
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
    return toLibrary(value).dump(-1, ' ', false, Library::error_handler_t::replace);
}

Value Deserialize(const std::string& text) {
    if (text.find('\0') != std::string::npos) {
        return {};  // no JSON holds one, but the library would end there
    }
    JsonReader reader;
    return Library::sax_parse(text, &reader) ? reader.take() : Value();
}

}  // namespace json
