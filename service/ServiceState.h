// What the service knows: the relays, the mixes and the latest requests. Any thread may call any member.
//
// Used by LiveService. All of it is bounded.

#ifndef VEXALIVE_SERVICE_SERVICE_STATE_H
#define VEXALIVE_SERVICE_SERVICE_STATE_H

#include <cstddef>
#include <deque>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "base/Mutex.h"
#include "service/RequestCheck.h"

namespace vexalive {

// One request with its answer, as the state shows it.
struct RequestRecord {
    std::string interfaceName;
    std::string query;  // masked
    std::string body;
    int httpStatus = 0;
    std::string answer;
    std::string refusedField;
    std::string fault;
};

class ServiceState {
public:
    static constexpr size_t kMaxRelays = 1000;
    static constexpr size_t kMaxMixes = 1000;  // those that have ended included; the one that ended first makes room
    static constexpr size_t kMaxUpdates = 50;  // of one mix that are remembered
    static constexpr size_t kMaxRequests = 200;
    static constexpr size_t kMaxBodyBytes = 8192;  // of a remembered body

    // Carries out a request: "add", "remove", "start", "update" or "cancel", or why that is not possible now.
    std::variant<std::string, Refusal> apply(const AcceptedRequest& request);

    void remember(RequestRecord record);

    // The relays and mixes that run, each as the request that made it what it is.
    std::vector<AcceptedRequest> running() const;

    nlohmann::ordered_json toFields() const;

private:
    struct Relay {
        AcceptedRequest latest;
        std::string since;
        int requests = 0;
    };
    struct Update {
        std::string time;
        std::string operation;
        AcceptedRequest request;
    };
    struct Mix {
        bool isRunning = false;
        uint64_t ended = 0;      // counts the mixes that ended
        std::string since;       // of the running or last run
        AcceptedRequest latest;  // start or update
        int updates = 0;         // all operations ever
        std::deque<Update> history;
    };
    struct Remembered {
        std::string time;
        size_t bodyBytes;
        RequestRecord record;
    };

    std::variant<std::string, Refusal> addRelay(const AcceptedRequest& request) KST_REQUIRES(mMutex);
    std::variant<std::string, Refusal> removeRelay(const AcceptedRequest& request) KST_REQUIRES(mMutex);
    std::variant<std::string, Refusal> startMix(const AcceptedRequest& request) KST_REQUIRES(mMutex);
    std::variant<std::string, Refusal> cancelMix(const AcceptedRequest& request) KST_REQUIRES(mMutex);
    bool makeRoomForMix() KST_REQUIRES(mMutex);

    mutable KstMutex mMutex;
    std::map<std::string, Relay> mRelays KST_GUARDED_BY(mMutex);  // by stream id
    std::map<std::string, Mix> mMixes KST_GUARDED_BY(mMutex);     // by output stream id
    uint64_t mEndedMixes KST_GUARDED_BY(mMutex) = 0;
    std::deque<Remembered> mRequests KST_GUARDED_BY(mMutex);  // the latest last
};

}  // namespace vexalive

#endif
