#include "service/Fault.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <type_traits>
#include <variant>
#include <vector>

#include "common/Text.h"
#include "service/JsonFields.h"
#include "service/RequestCheck.h"

namespace vexalive {

using nlohmann::json;
using nlohmann::ordered_json;

namespace {

using Kind = Fault::Kind;

struct Field {
    const char* name;
    std::variant<int Fault::*, size_t Fault::*, std::string Fault::*, bool Fault::*> member;
    int64_t min = 0;  // min and max are used for numbers only
    int64_t max = 0;
};

struct KindRow {
    Kind kind;
    const char* name;
    const char* description;
    std::vector<Field> fields;  // specific to this kind; the VALUE of an option KIND=VALUE sets the first
};

constexpr int64_t kMaxDelayMs = 600'000;
constexpr int64_t kMinCode = std::numeric_limits<int>::min();
constexpr int64_t kMaxCode = std::numeric_limits<int>::max();
constexpr const char* kInterfaceField = "interface";

const std::vector<KindRow>& kinds() {
    static const std::vector<KindRow> rows = {
        {Kind::kDelay, "delay", "The normal response after a delay.", {{"delay_ms", &Fault::delayMs, 1, kMaxDelayMs}}},
        {Kind::kStatus, "status", "Another HTTP status, with an empty body.", {{"status", &Fault::status, 200, 599}}},
        {Kind::kEmpty, "empty", "HTTP 200 without a body.", {}},
        {Kind::kCut, "cut", "Half of the announced body, then the connection is closed.", {}},
        {Kind::kGarbage, "garbage", "HTTP 200 with a body that is not JSON.", {}},
        {Kind::kHuge,
         "huge",
         "HTTP 200 with a JSON body of this many bytes.",
         {{"size", &Fault::size, 64, int64_t{1} << 30}}},
        {Kind::kCode,
         "code",
         "HTTP 200 with this code and message.",
         {{"code", &Fault::code, kMinCode, kMaxCode},
          {"message", &Fault::message},
          {"error_code_keys", &Fault::errorCodeKeys}}},
        {Kind::kClose, "close", "The connection is closed without a response.", {}},
    };
    return rows;
}

const KindRow& rowOf(Kind kind) {
    return *std::find_if(kinds().begin(), kinds().end(), [kind](const KindRow& row) { return row.kind == kind; });
}

const KindRow* findKind(const std::string& name) {
    const auto found =
        std::find_if(kinds().begin(), kinds().end(), [&name](const KindRow& row) { return row.name == name; });
    return found == kinds().end() ? nullptr : &*found;
}

// All fields that a kind uses. Fields of the kind come last and override common ones, since the kind "delay" has its
// own range of delay_ms.
std::vector<Field> fieldsOf(const KindRow& row) {
    std::vector<Field> fields = {{kInterfaceField, &Fault::interfaceName},
                                 {"count", &Fault::count, 0, 1'000'000},
                                 {"delay_ms", &Fault::delayMs, 0, kMaxDelayMs}};
    for (const Field& own : row.fields) {
        fields.erase(std::remove_if(fields.begin(), fields.end(),
                                    [&own](const Field& field) { return std::string(field.name) == own.name; }),
                     fields.end());
        fields.push_back(own);
    }
    return fields;
}

// Joins names for a message: "delay, status or close".
template <class Names>
std::string joinNames(const Names& names) {
    std::string list;
    for (size_t i = 0; i < names.size(); ++i) {
        list += (i == 0 ? "" : i + 1 < names.size() ? ", " : " or ") + std::string(names[i]);
    }
    return list;
}

std::string unknownKind(const std::string& name) {
    std::vector<const char*> names;
    for (const KindRow& row : kinds()) {
        names.push_back(row.name);
    }
    return "kind: found " + excerpt(name) + ", must be " + joinNames(names);
}

Result<void> checkField(const Fault& fault, const Field& field) {
    return std::visit(
        [&](const auto member) -> Result<void> {
            const auto& value = fault.*member;
            using Value = std::decay_t<decltype(value)>;
            if constexpr (std::is_integral_v<Value> && !std::is_same_v<Value, bool>) {
                const auto number = static_cast<int64_t>(value);
                if (number < field.min || number > field.max) {
                    return failure(std::string(field.name) + ": found " + std::to_string(value) + ", must be " +
                                   allowedRange(field.min, field.max));
                }
            } else if constexpr (std::is_same_v<Value, std::string>) {
                if (field.name == kInterfaceField && !value.empty() && !isInterface(value)) {
                    return failure("interface: found " + excerpt(value) + ", must be " +
                                   joinNames(std::vector<const char*>(std::begin(kInterfaces), std::end(kInterfaces))));
                }
            }
            return {};
        },
        field.member);
}

void readField(Fields& object, const Field& field, Fault& fault) {
    if (!object.has(field.name)) {
        return;
    }
    std::visit(
        [&](const auto member) {
            using Value = std::decay_t<decltype(fault.*member)>;
            if constexpr (std::is_same_v<Value, std::string>) {
                fault.*member = object.text(field.name);
            } else if constexpr (std::is_same_v<Value, bool>) {
                fault.*member = object.flag(field.name);
            } else {
                fault.*member = static_cast<Value>(object.integer(field.name, field.min, field.max));
            }
        },
        field.member);
}

std::string allowedValues(const Field& field) {
    return std::holds_alternative<bool Fault::*>(field.member) ? "true or false" : allowedRange(field.min, field.max);
}

// Sets the field from the value of an option. `name` is the field's name in an error.
Result<void> readOption(const std::string& text, const Field& field, const char* name, Fault& fault) {
    const bool isAllowed = std::visit(
        [&](const auto member) {
            using Value = std::decay_t<decltype(fault.*member)>;
            if constexpr (std::is_same_v<Value, std::string>) {
                fault.*member = text;
            } else if constexpr (std::is_same_v<Value, bool>) {
                fault.*member = text == "true";
                return text == "true" || text == "false";
            } else {
                int64_t number = 0;
                const char* const end = text.data() + text.size();
                const auto [stop, error] = std::from_chars(text.data(), end, number);
                if (error != std::errc() || stop != end || number < field.min || number > field.max) {
                    return false;
                }
                fault.*member = static_cast<Value>(number);
            }
            return true;
        },
        field.member);
    if (!isAllowed) {
        return failure(std::string(name) + ": found " + excerpt(text) + ", must be " + allowedValues(field));
    }
    return {};
}

void addTo(ordered_json& object, const Field& field, const Fault& fault) {
    std::visit([&](const auto member) { object[field.name] = fault.*member; }, field.member);
}

}  // namespace

const char* nameOf(Fault::Kind kind) {
    return rowOf(kind).name;
}

Result<void> checkFault(const Fault& fault) {
    for (const Field& field : fieldsOf(rowOf(fault.kind))) {
        if (Result<void> checked = checkField(fault, field); !checked) {
            return checked;
        }
    }
    return {};
}

Result<Fault> parseFaultJson(const std::string& text) {
    Validation validation;
    const json object = readObject(text, validation);
    Fields fields(object, "", validation);
    const std::string name = fields.text("kind");
    if (validation.hasFailed()) {
        return failure(validation.refusal()->message);
    }
    const KindRow* const row = findKind(name);
    if (!row) {
        return failure(unknownKind(name));
    }
    Fault fault;
    fault.kind = row->kind;
    for (const Field& field : fieldsOf(*row)) {
        readField(fields, field, fault);
    }
    if (row->kind == Kind::kDelay) {
        fields.require("delay_ms");
    }
    fields.refuseOthers();
    if (validation.hasFailed()) {
        return failure(validation.refusal()->message);
    }
    return checkFault(fault).map([&fault] { return fault; });
}

Result<Fault> parseFaultOption(const std::string& text) {
    std::istringstream words(text);
    std::string word;
    std::getline(words, word, ',');
    const size_t mark = std::min(word.find('='), word.size());
    const KindRow* const row = findKind(word.substr(0, mark));
    if (!row) {
        return failure(unknownKind(word.substr(0, mark)));
    }
    Fault fault;
    fault.kind = row->kind;
    if (mark < word.size() && row->fields.empty()) {
        return failure(std::string(row->name) + ": found a value, must be without one");
    }
    const std::vector<Field> fields = fieldsOf(*row);
    if (mark < word.size()) {
        if (Result<void> done = readOption(word.substr(mark + 1), row->fields.front(), row->name, fault); !done) {
            return tl::unexpected(done.error());
        }
    }
    while (std::getline(words, word, ',')) {
        const std::string name = word.substr(0, word.find('='));
        const auto found =
            std::find_if(fields.begin(), fields.end(), [&name](const Field& field) { return field.name == name; });
        if (found == fields.end() || name.size() == word.size()) {
            std::vector<const char*> names;
            names.reserve(fields.size());
            for (const Field& field : fields) {
                names.push_back(field.name);
            }
            return failure(std::string(row->name) + ": found " + excerpt(word) + ", must be " + joinNames(names) +
                           ", each with \"=\" and a value");
        }
        if (Result<void> done = readOption(word.substr(name.size() + 1), *found, found->name, fault); !done) {
            return tl::unexpected(done.error());
        }
    }
    return checkFault(fault).map([&fault] { return fault; });
}

ordered_json toJson(const Fault& fault) {
    ordered_json object = {{"kind", nameOf(fault.kind)}};
    for (const Field& field : fieldsOf(rowOf(fault.kind))) {
        if (field.name != kInterfaceField || !fault.interfaceName.empty()) {
            addTo(object, field, fault);
        }
    }
    return object;
}

ordered_json faultKindsJson() {
    ordered_json list = ordered_json::array();
    for (const KindRow& row : kinds()) {
        ordered_json fields = ordered_json::array();
        for (const Field& field : row.fields) {
            const bool isText = std::holds_alternative<std::string Fault::*>(field.member);
            const bool isFlag = std::holds_alternative<bool Fault::*>(field.member);
            ordered_json shown = {{"name", field.name}, {"type", isText ? "string" : isFlag ? "boolean" : "integer"}};
            if (!isText && !isFlag) {
                shown["minimum"] = field.min;
                shown["maximum"] = field.max;
            }
            // A field whose initial value is out of range has no default: the user must set it.
            if (checkField(Fault(), field)) {
                ordered_json defaults;
                addTo(defaults, field, Fault());
                shown["default"] = defaults[field.name];
            }
            fields.push_back(std::move(shown));
        }
        list.push_back({{"kind", row.name}, {"description", row.description}, {"fields", std::move(fields)}});
    }
    return list;
}

}  // namespace vexalive
