#include "tools/MisbehaviourOption.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <sstream>
#include <vector>

#include "tools/Options.h"
#include "tools/Text.h"

namespace vexalive {
namespace {

template <class T>
T readNumber(const std::string& key, const std::string& value) {
    using Limits = std::numeric_limits<int32_t>;
    const std::optional<int64_t> number = readInteger(value, Limits::min(), Limits::max());
    if (!number) {
        throw UsageError("--misbehave: " + key + " is \"" + printable(value) + "\": must be a 32-bit integer");
    }
    return static_cast<T>(*number);  // the service refuses what is out of its range
}

void noValue(const std::string& key, const std::string& value) {
    if (!value.empty()) {
        throw UsageError("--misbehave: " + key + " takes no value");
    }
}

using Apply = void (*)(Misbehaviour&, const std::string& key, const std::string& value);
using Kind = Misbehaviour::Kind;

struct Word {
    const char* key;
    Apply apply;
};

// The first word says what to do.
constexpr Word kKinds[] = {
    {"delay",
     [](Misbehaviour& m, const std::string& key, const std::string& value) {
         m.kind = Kind::kDelay;
         m.delayMs = readNumber<int>(key, value);
     }},
    {"status",
     [](Misbehaviour& m, const std::string& key, const std::string& value) {
         m.kind = Kind::kStatus;
         m.status = readNumber<int>(key, value);
     }},
    {"empty",
     [](Misbehaviour& m, const std::string& key, const std::string& value) {
         m.kind = Kind::kEmpty;
         noValue(key, value);
     }},
    {"cut",
     [](Misbehaviour& m, const std::string& key, const std::string& value) {
         m.kind = Kind::kCut;
         noValue(key, value);
     }},
    {"garbage",
     [](Misbehaviour& m, const std::string& key, const std::string& value) {
         m.kind = Kind::kGarbage;
         noValue(key, value);
     }},
    {"huge",
     [](Misbehaviour& m, const std::string& key, const std::string& value) {
         m.kind = Kind::kHuge;
         if (!value.empty()) {
             m.size = readNumber<size_t>(key, value);
         }
     }},
    {"code",
     [](Misbehaviour& m, const std::string& key, const std::string& value) {
         m.kind = Kind::kServerCode;
         m.code = readNumber<int>(key, value);
     }},
    {"close",
     [](Misbehaviour& m, const std::string& key, const std::string& value) {
         m.kind = Kind::kClose;
         noValue(key, value);
     }},
};

// The others say how.
constexpr Word kParticulars[] = {
    {"count",
     [](Misbehaviour& m, const std::string& key, const std::string& value) { m.times = readNumber<int>(key, value); }},
    {"delay", [](Misbehaviour& m, const std::string& key,
                 const std::string& value) { m.delayMs = readNumber<int>(key, value); }},
    {"interface", [](Misbehaviour& m, const std::string&, const std::string& value) { m.interfaceName = value; }},
    {"message", [](Misbehaviour& m, const std::string&, const std::string& value) { m.message = value; }},
};

template <size_t size>
void apply(const Word (&words)[size], Misbehaviour& misbehaviour, const std::string& text) {
    const std::string key = text.substr(0, text.find('='));
    const std::string value = key.size() < text.size() ? text.substr(key.size() + 1) : "";
    std::vector<std::string> keys;
    for (const Word& word : words) {
        if (key == word.key) {
            word.apply(misbehaviour, key, value);
            return;
        }
        keys.push_back(word.key);
    }
    std::string known;
    for (const std::string& each : keys) {
        known += (known.empty() ? "" : ", ") + each;
    }
    throw UsageError("--misbehave: \"" + key + "\" is none of " + known + didYouMean(key, keys));
}

}  // namespace

const char* const kMisbehaviourHelp =
    "Misbehave from the start; may be given several times, and each request takes the first that waits. WHAT is one of "
    "status=CODE, code=CODE, delay=MS, empty, cut, garbage, huge[=BYTES] and close, then any of ,count=N (requests; 0: "
    "all) ,delay=MS ,interface=NAME and ,message=TEXT. For example status=503,count=2";

Misbehaviour readMisbehaviour(const std::string& text) {
    Misbehaviour misbehaviour;
    std::istringstream words(text);
    std::string word;
    std::getline(words, word, ',');
    apply(kKinds, misbehaviour, word);
    while (std::getline(words, word, ',')) {
        apply(kParticulars, misbehaviour, word);
    }
    return misbehaviour;
}

}  // namespace vexalive
