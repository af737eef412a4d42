#include "service/Misbehaviours.h"

#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "service/JsonFields.h"
#include "service/RequestCheck.h"

namespace vexalive {

using nlohmann::json;
using nlohmann::ordered_json;

namespace {

constexpr int kMostTimes = 1'000'000;
constexpr int kLongestDelayMs = 600'000;
constexpr int64_t kLeastSize = 64;
constexpr int64_t kMostSize = int64_t{1} << 30;

constexpr std::pair<Misbehaviour::Kind, const char*> kKinds[] = {
    {Misbehaviour::Kind::kDelay, "delay"},     {Misbehaviour::Kind::kStatus, "status"},
    {Misbehaviour::Kind::kEmpty, "empty"},     {Misbehaviour::Kind::kCut, "cut"},
    {Misbehaviour::Kind::kGarbage, "garbage"}, {Misbehaviour::Kind::kHuge, "huge"},
    {Misbehaviour::Kind::kClose, "close"},     {Misbehaviour::Kind::kServerCode, "server_code"},
};

ordered_json toFields(const Misbehaviour& misbehaviour) {
    ordered_json fields;
    fields["kind"] = nameOf(misbehaviour.kind);
    if (!misbehaviour.interfaceName.empty()) {
        fields["interface"] = misbehaviour.interfaceName;
    }
    fields["times"] = misbehaviour.times;
    fields["delay_ms"] = misbehaviour.delayMs;
    if (misbehaviour.kind == Misbehaviour::Kind::kStatus) {
        fields["status"] = misbehaviour.status;
    }
    if (misbehaviour.kind == Misbehaviour::Kind::kHuge) {
        fields["size"] = misbehaviour.size;
    }
    if (misbehaviour.kind == Misbehaviour::Kind::kServerCode) {
        fields["code"] = misbehaviour.code;
        fields["message"] = misbehaviour.message;
        fields["error_code_keys"] = misbehaviour.errorCodeKeys;
    }
    return fields;
}

Misbehaviour::Kind readKind(Fields& fields) {
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
Misbehaviour fromFields(const json& object) {
    Fields fields(object, "");
    Misbehaviour result;
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
    number("times", 0, kMostTimes, result.times);
    if (result.kind == Misbehaviour::Kind::kDelay) {
        result.delayMs = static_cast<int>(fields.integer("delay_ms", 1, kLongestDelayMs));
    }
    number("delay_ms", 0, kLongestDelayMs, result.delayMs);
    if (result.kind == Misbehaviour::Kind::kStatus) {
        number("status", 200, 599, result.status);
    }
    if (result.kind == Misbehaviour::Kind::kHuge) {
        number("size", kLeastSize, kMostSize, result.size);
    }
    if (result.kind == Misbehaviour::Kind::kServerCode) {
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

const char* nameOf(Misbehaviour::Kind kind) {
    for (const auto& [each, name] : kKinds) {
        if (each == kind) {
            return name;
        }
    }
    return "unknown";
}

std::string Misbehaviours::add(const Misbehaviour& misbehaviour) {
    return addJson(toFields(misbehaviour).dump(-1, ' ', false, json::error_handler_t::replace));
}

std::string Misbehaviours::addJson(const std::string& text) {
    try {
        Misbehaviour misbehaviour = fromFields(readObject(text));
        KstMutexLock lock(mMutex);
        if (mWaiting.size() == kMost) {
            return std::to_string(kMost) + " misbehaviours are waiting, the most that is held";
        }
        mWaiting.push_back(std::move(misbehaviour));
        return "";
    } catch (const Refusal& refusal) {
        return refusal.message;
    }
}

std::optional<Misbehaviour> Misbehaviours::take(const std::string& interfaceName) {
    KstMutexLock lock(mMutex);
    for (auto each = mWaiting.begin(); each != mWaiting.end(); ++each) {
        if (!each->interfaceName.empty() && each->interfaceName != interfaceName) {
            continue;
        }
        const Misbehaviour taken = *each;
        if (each->times > 0 && --each->times == 0) {
            mWaiting.erase(each);
        }
        return taken;
    }
    return std::nullopt;
}

void Misbehaviours::clear() {
    KstMutexLock lock(mMutex);
    mWaiting.clear();
}

std::string Misbehaviours::toJson() const {
    ordered_json waiting = ordered_json::array();
    KstMutexLock lock(mMutex);
    for (const Misbehaviour& misbehaviour : mWaiting) {
        waiting.push_back(toFields(misbehaviour));
    }
    lock.unlock();
    const ordered_json shown = {{"waiting", waiting}};
    return shown.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace vexalive
