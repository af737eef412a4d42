// The rules of the adapter for requests and responses, implemented a second time without code of the adapter. Tests
// compare the adapter's behaviour with these rules. All functions are thread-safe.

#ifndef VEXALIVE_TESTS_SUPPORT_ORACLE_H
#define VEXALIVE_TESTS_SUPPORT_ORACLE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace oracle {

enum Family { kRelay, kMix };
enum Kind { kAddRelay, kRemoveRelay, kStartMix, kCancelMix };

struct KindRules {
    const char* name;           // short name of the kind, also used for its listener function
    const char* interfaceName;  // name of the HTTP interface
    Family family;
    int transportCode;  // listener codes
    int unreadableCode;
    int64_t serverBase;
    int event;             // event number of the report
    Kind tracedCounter;    // the kind whose retry counter the trace prints
    bool dropsStaleRetry;  // whether stale responses to retries are dropped; stale responses to first sends always are
    bool sendsStaleRetry;  // whether a retry is sent even if a newer operation has superseded the request
    std::vector<int> retried;  // absolute values of the service's codes that cause a retry
};

const KindRules& rulesOf(Kind kind);

constexpr Family familyOf(Kind kind) {
    return kind == kAddRelay || kind == kRemoveRelay ? kRelay : kMix;
}

// The start of the kind's family: a stop or cancel is sent only after a request of this kind.
constexpr Kind startOf(Kind kind) {
    return familyOf(kind) == kRelay ? kAddRelay : kStartMix;
}

constexpr int kMaxRetries = 10;  // for each request, after its first send
constexpr const char* kNotInRoom = "not enterRoom status";

// Milliseconds before retry 1, 2, … kMaxRetries.
int retryPause(int retry);

// One call of the listener.
struct Notification {
    std::string operation;
    int code = 0;
    std::optional<std::string> message;  // none: every message matches
    bool operator==(const Notification& other) const {
        return operation == other.operation && code == other.code &&
               (!message || !other.message || message == other.message);
    }
};

inline void PrintTo(const Notification& call, std::ostream* out) {
    *out << call.operation << "(" << call.code << ", \"" << call.message.value_or("any") << "\")";
}

struct Evaluation {
    bool isRetryable = false;
    std::vector<Notification> notifications;  // the listener calls if this response is the final one
};

Evaluation evaluate(Kind kind, int retCode, const std::string& response);

// The string that a response adds to the trace.
std::string traceSegment(int attemptsLeft, int retCode, const std::string& response);

}  // namespace oracle

#endif
