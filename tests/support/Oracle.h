// The rules of the adapter for requests and responses, written a second time and independently of it: tests compare
// the behaviour of the adapter with these. Functions of values; any thread may call.

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
    const char* name;           // short name of the listener's operation
    const char* interfaceName;  // of the service
    Family family;
    int transportCode;  // listener codes
    int unreadableCode;
    int64_t serverBase;
    int event;                 // of the report
    Kind tracedCounter;        // whose counter the trace contains
    bool dropsStaleRetry;      // whether the response to a retry is dropped if it is stale, as for a first send
    bool sendsStaleRetry;      // whether a retry is sent though a newer operation has replaced it
    std::vector<int> retried;  // absolute values of the service's codes that are retried
};

const KindRules& rulesOf(Kind kind);

constexpr Family familyOf(Kind kind) {
    return kind == kAddRelay || kind == kRemoveRelay ? kRelay : kMix;
}

// The kind that a request of this kind needs to have been sent before: the start of its family.
constexpr Kind startOf(Kind kind) {
    return familyOf(kind) == kRelay ? kAddRelay : kStartMix;
}

constexpr int kMaxRetries = 10;  // of a request
constexpr const char* kNotInRoom = "not enterRoom status";

// Milliseconds before retry 1, 2, … kMaxRetries.
int retryPause(int retry);

// One call of the listener.
struct Notification {
    std::string operation;
    int code = 0;
    std::optional<std::string> message;  // none: any message
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
    std::vector<Notification> notifications;  // of the final response
};

Evaluation evaluate(Kind kind, int retCode, const std::string& response);

// What one response adds to the trace.
std::string traceSegment(int attemptsLeft, int retCode, const std::string& response);

}  // namespace oracle

#endif
