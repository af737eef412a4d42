#include "tools/FaultOption.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <sstream>
#include <vector>

#include "common/Text.h"
#include "tools/Options.h"

namespace vexalive {
namespace {

template <class T>
T readNumber(const std::string& key, const std::string& value) {
    using Limits = std::numeric_limits<int32_t>;
    const std::optional<int64_t> number = readInteger(value, Limits::min(), Limits::max());
    if (!number) {
        throw UsageError("--fault: " + key + " is \"" + printable(value) + "\": must be a 32-bit integer");
    }
    return static_cast<T>(*number);  // the service refuses what is out of its range
}

void noValue(const std::string& key, const std::string& value) {
    if (!value.empty()) {
        throw UsageError("--fault: " + key + " takes no value");
    }
}

using Apply = void (*)(Fault&, const std::string& key, const std::string& value);
using Kind = Fault::Kind;

struct Word {
    const char* key;
    Apply apply;
};

// The first word says what to do.
constexpr Word kKinds[] = {
    {"delay",
     [](Fault& m, const std::string& key, const std::string& value) {
         m.kind = Kind::kDelay;
         m.delayMs = readNumber<int>(key, value);
     }},
    {"status",
     [](Fault& m, const std::string& key, const std::string& value) {
         m.kind = Kind::kStatus;
         m.status = readNumber<int>(key, value);
     }},
    {"empty",
     [](Fault& m, const std::string& key, const std::string& value) {
         m.kind = Kind::kEmpty;
         noValue(key, value);
     }},
    {"cut",
     [](Fault& m, const std::string& key, const std::string& value) {
         m.kind = Kind::kCut;
         noValue(key, value);
     }},
    {"garbage",
     [](Fault& m, const std::string& key, const std::string& value) {
         m.kind = Kind::kGarbage;
         noValue(key, value);
     }},
    {"huge",
     [](Fault& m, const std::string& key, const std::string& value) {
         m.kind = Kind::kHuge;
         if (!value.empty()) {
             m.size = readNumber<size_t>(key, value);
         }
     }},
    {"code",
     [](Fault& m, const std::string& key, const std::string& value) {
         m.kind = Kind::kServerCode;
         m.code = readNumber<int>(key, value);
     }},
    {"close",
     [](Fault& m, const std::string& key, const std::string& value) {
         m.kind = Kind::kClose;
         noValue(key, value);
     }},
};

// The others say how.
constexpr Word kParticulars[] = {
    {"count",
     [](Fault& m, const std::string& key, const std::string& value) { m.times = readNumber<int>(key, value); }},
    {"delay",
     [](Fault& m, const std::string& key, const std::string& value) { m.delayMs = readNumber<int>(key, value); }},
    {"interface", [](Fault& m, const std::string&, const std::string& value) { m.interfaceName = value; }},
    {"message", [](Fault& m, const std::string&, const std::string& value) { m.message = value; }},
};

template <size_t size>
void apply(const Word (&words)[size], Fault& fault, const std::string& text) {
    const std::string key = text.substr(0, text.find('='));
    const std::string value = key.size() < text.size() ? text.substr(key.size() + 1) : "";
    std::vector<std::string> keys;
    for (const Word& word : words) {
        if (key == word.key) {
            word.apply(fault, key, value);
            return;
        }
        keys.push_back(word.key);
    }
    std::string known;
    for (const std::string& each : keys) {
        known += (known.empty() ? "" : ", ") + each;
    }
    throw UsageError("--fault: \"" + key + "\" is none of " + known + didYouMean(key, keys));
}

}  // namespace

const char* const kFaultHelp =
    "Inject a fault from the start; repeatable. Each request takes the first queued fault that applies to it. WHAT is "
    "one of "
    "status=CODE, code=CODE, delay=MS, empty, cut, garbage, huge[=BYTES] and close, then any of ,count=N (requests; 0: "
    "all) ,delay=MS ,interface=NAME and ,message=TEXT. For example status=503,count=2";

Fault readFault(const std::string& text) {
    Fault fault;
    std::istringstream words(text);
    std::string word;
    std::getline(words, word, ',');
    apply(kKinds, fault, word);
    while (std::getline(words, word, ',')) {
        apply(kParticulars, fault, word);
    }
    return fault;
}

}  // namespace vexalive
