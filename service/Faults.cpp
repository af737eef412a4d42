#include "service/Faults.h"

#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "service/JsonFields.h"
#include "service/RequestCheck.h"

namespace vexalive {

using nlohmann::json;
using nlohmann::ordered_json;

namespace {

constexpr int kMaxTimes = 1'000'000;
constexpr int kMaxDelayMs = 600'000;
constexpr int64_t kMinSize = 64;
constexpr int64_t kMaxSize = int64_t{1} << 30;

constexpr std::pair<Fault::Kind, const char*> kKinds[] = {
    {Fault::Kind::kDelay, "delay"}, {Fault::Kind::kStatus, "status"},          {Fault::Kind::kEmpty, "empty"},
    {Fault::Kind::kCut, "cut"},     {Fault::Kind::kGarbage, "garbage"},        {Fault::Kind::kHuge, "huge"},
    {Fault::Kind::kClose, "close"}, {Fault::Kind::kServerCode, "server_code"},
};

ordered_json toFields(const Fault& fault) {
    ordered_json fields;
    fields["kind"] = nameOf(fault.kind);
    if (!fault.interfaceName.empty()) {
        fields["interface"] = fault.interfaceName;
    }
    fields["times"] = fault.times;
    fields["delay_ms"] = fault.delayMs;
    if (fault.kind == Fault::Kind::kStatus) {
        fields["status"] = fault.status;
    }
    if (fault.kind == Fault::Kind::kHuge) {
        fields["size"] = fault.size;
    }
    if (fault.kind == Fault::Kind::kServerCode) {
        fields["code"] = fault.code;
        fields["message"] = fault.message;
        fields["error_code_keys"] = fault.errorCodeKeys;
    }
    return fields;
}

Fault::Kind readKind(Fields& fields) {
    const std::string name = fields.text("kind");
    for (const auto& [kind, kindName] : kKinds) {
        if (name == kindName) {
            return kind;
        }
    }
    refuse(Refusal::kValue, "kind",
           "found " + excerpt(name) + ", must be delay, status, empty, cut, garbage, huge, server_code or close");
}

// The one place that knows the ranges: a struct is judged in its JSON form. Throws Refusal.
Fault fromFields(const json& object) {
    Fields fields(object, "");
    Fault result;
    result.kind = readKind(fields);
    if (fields.has("interface")) {
        result.interfaceName = fields.text("interface");
        if (!isInterface(result.interfaceName)) {
            refuse(Refusal::kValue, "interface",
                   "found " + excerpt(result.interfaceName) + ", must be " + kAddRelayInterface + ", " +
                       kRemoveRelayInterface + " or " + kSetMixInterface);
        }
    }
    const auto number = [&fields](const char* key, int64_t lowest, int64_t highest, auto& field) {
        if (fields.has(key)) {
            field = static_cast<std::decay_t<decltype(field)>>(fields.integer(key, lowest, highest));
        }
    };
    number("times", 0, kMaxTimes, result.times);
    if (result.kind == Fault::Kind::kDelay) {
        result.delayMs = static_cast<int>(fields.integer("delay_ms", 1, kMaxDelayMs));
    }
    number("delay_ms", 0, kMaxDelayMs, result.delayMs);
    if (result.kind == Fault::Kind::kStatus) {
        number("status", 200, 599, result.status);
    }
    if (result.kind == Fault::Kind::kHuge) {
        number("size", kMinSize, kMaxSize, result.size);
    }
    if (result.kind == Fault::Kind::kServerCode) {
        number("code", std::numeric_limits<int>::min(), std::numeric_limits<int>::max(), result.code);
        if (fields.has("message")) {
            result.message = fields.text("message");
        }
        if (fields.has("error_code_keys")) {
            result.errorCodeKeys = fields.flag("error_code_keys");
        }
    }
    fields.refuseOthers();
    return result;
}

}  // namespace

const char* nameOf(Fault::Kind kind) {
    for (const auto& [each, name] : kKinds) {
        if (each == kind) {
            return name;
        }
    }
    return "unknown";
}

std::string Faults::add(const Fault& fault) {
    return addJson(toFields(fault).dump(-1, ' ', false, json::error_handler_t::replace));
}

std::string Faults::addJson(const std::string& text) {
    try {
        Fault fault = fromFields(readObject(text));
        KstMutexLock lock(mMutex);
        if (mWaiting.size() == kMax) {
            return std::to_string(kMax) + " faults are waiting, the most that is held";
        }
        mWaiting.push_back(std::move(fault));
        return "";
    } catch (const Refusal& refusal) {
        return refusal.message;
    }
}

std::optional<Fault> Faults::take(const std::string& interfaceName) {
    KstMutexLock lock(mMutex);
    for (auto each = mWaiting.begin(); each != mWaiting.end(); ++each) {
        if (!each->interfaceName.empty() && each->interfaceName != interfaceName) {
            continue;
        }
        const Fault taken = *each;
        if (each->times > 0 && --each->times == 0) {
            mWaiting.erase(each);
        }
        return taken;
    }
    return std::nullopt;
}

void Faults::clear() {
    KstMutexLock lock(mMutex);
    mWaiting.clear();
}

std::string Faults::toJson() const {
    ordered_json waiting = ordered_json::array();
    KstMutexLock lock(mMutex);
    for (const Fault& fault : mWaiting) {
        waiting.push_back(toFields(fault));
    }
    lock.unlock();
    const ordered_json shown = {{"waiting", waiting}};
    return shown.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace vexalive
