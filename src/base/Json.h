/// @file
/// The JSON values that the adapter needs.
///
/// This header implements the values. The default implementation of Serialize() and Deserialize() is platform/Json.cpp.

#ifndef VEXALIVE_BASE_JSON_H
#define VEXALIVE_BASE_JSON_H

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace json {

class Value;
class Object;
class Array;

/// Serializes `value` without white space: object keys in ascending byte order, UTF-8 unescaped. Bytes that are not
/// UTF-8 become U+FFFD. Any thread may call.
std::string Serialize(const Value& value);

/// Parses `text`. Returns null if it is not JSON, not UTF-8, or nested more than 512 levels deep. Never throws and
/// never overflows the stack, for any bytes. Any thread may call.
Value Deserialize(const std::string& text);

/// An immutable JSON value. Copies share their contents, so copying is cheap and threads may read a value at the same
/// time.
class Value {
public:
    /// The type of a value. A number without fraction and exponent is kInteger if it fits into 64 bits, otherwise
    /// kReal.
    enum Type { kNull = 0, kBool, kInteger, kReal, kString, kArray, kObject };

    /// Null.
    Value() = default;

    /// @{
    /// A value of the argument's type. The value owns a copy. Strings may contain any bytes; `text` must not be null.
    Value(bool value) : mData(value) {}
    Value(int value) : mData(int64_t{value}) {}
    Value(int64_t value) : mData(value) {}
    Value(double value) : mData(value) {}
    Value(const char* text) : mData(std::make_shared<const std::string>(text)) {}
    Value(std::string text) : mData(std::make_shared<const std::string>(std::move(text))) {}
    Value(Array array);
    Value(Object object);
    /// @}

    /// The type of the value.
    Type type() const { return static_cast<Type>(mData.index()); }
    /// Whether the value is null.
    bool isNull() const { return type() == kNull; }

    /// True if this is an object that has the key.
    bool HasKey(const std::string& key) const;

    /// True if this is an object that has all of the keys.
    bool HasKeys(const std::vector<std::string>& keys) const;

    /// The member of that name; null if it is missing or this is not an object. Valid as long as a copy of this value
    /// lives.
    const Value& operator[](const char* key) const;

    /// Converts to a 32-bit integer: an integer is clamped; a fraction is truncated towards zero and clamped; a string
    /// that is a decimal integer becomes that integer, clamped; true is 1 and false 0. Anything else is -1, so that an
    /// unreadable code never counts as success.
    int ToInt() const;

    /// A string unchanged; null as the empty string; anything else serialized.
    std::string ToString() const;

    /// @{
    /// The contents, for a serializer. Null if the value has another type. Valid as long as a copy of this value lives.
    const bool* asBool() const { return std::get_if<bool>(&mData); }
    const int64_t* asInteger() const { return std::get_if<int64_t>(&mData); }
    const double* asReal() const { return std::get_if<double>(&mData); }
    const std::string* asString() const { return pointee<std::string>(); }
    const Array* asArray() const { return pointee<Array>(); }
    const Object* asObject() const { return pointee<Object>(); }
    /// @}

private:
    template <class T>
    const T* pointee() const {
        const auto* held = std::get_if<std::shared_ptr<const T>>(&mData);
        return held ? held->get() : nullptr;
    }

    // The alternatives are in the order of Type.
    std::variant<std::monostate, bool, int64_t, double, std::shared_ptr<const std::string>,
                 std::shared_ptr<const Array>, std::shared_ptr<const Object>>
        mData;
};

/// Builds an array. Not thread-safe.
class Array {
public:
    /// Appends a value.
    void push_back(Value value) { mItems.push_back(std::move(value)); }
    /// The values in order. Valid as long as the array lives and is not changed.
    const std::vector<Value>& items() const { return mItems; }

private:
    std::vector<Value> mItems;
};

/// Builds an object. Not thread-safe.
class Object {
public:
    /// @{
    /// The member of that name; inserts null if it is missing.
    Value& operator[](const char* key) { return mMembers[key]; }
    Value& operator[](const std::string& key) { return mMembers[key]; }
    /// @}

    /// The members by name, in ascending byte order. Valid as long as the object lives and is not changed.
    const std::map<std::string, Value>& members() const { return mMembers; }

private:
    std::map<std::string, Value> mMembers;
};

inline Value::Value(Array array) : mData(std::make_shared<const Array>(std::move(array))) {}
inline Value::Value(Object object) : mData(std::make_shared<const Object>(std::move(object))) {}

inline bool Value::HasKey(const std::string& key) const {
    const Object* object = asObject();
    return object && object->members().count(key) != 0;
}

inline bool Value::HasKeys(const std::vector<std::string>& keys) const {
    for (const std::string& key : keys) {
        if (!HasKey(key)) {
            return false;
        }
    }
    return asObject() != nullptr;
}

inline const Value& Value::operator[](const char* key) const {
    static const Value& null = *new Value();
    const Object* object = asObject();
    if (!object) {
        return null;
    }
    const auto found = object->members().find(key);
    return found == object->members().end() ? null : found->second;
}

inline int Value::ToInt() const {
    constexpr int kLowest = std::numeric_limits<int>::min();
    constexpr int kHighest = std::numeric_limits<int>::max();
    constexpr int kUnreadable = -1;
    const auto clamp = [](auto number) {
        return number <= kLowest ? kLowest : number >= kHighest ? kHighest : static_cast<int>(number);
    };
    if (const int64_t* integer = asInteger()) {
        return clamp(*integer);
    }
    if (const double* real = asReal()) {
        return *real == *real ? clamp(*real) : kUnreadable;
    }
    if (const std::string* text = asString()) {
        const size_t digits = text->find_first_not_of("+-") == 1 ? 1 : 0;
        if (digits == text->size() || text->find_first_not_of("0123456789", digits) != std::string::npos) {
            return kUnreadable;
        }
        return clamp(std::strtoll(text->c_str(), nullptr, 10));  // saturates at 64 bits
    }
    if (const bool* flag = asBool()) {
        return *flag ? 1 : 0;
    }
    return kUnreadable;
}

inline std::string Value::ToString() const {
    if (const std::string* text = asString()) {
        return *text;
    }
    return isNull() ? std::string() : Serialize(*this);
}

}  // namespace json

#endif
