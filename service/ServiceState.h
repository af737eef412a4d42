#ifndef VEXALIVE_SERVICE_SERVICE_STATE_H
#define VEXALIVE_SERVICE_SERVICE_STATE_H

#include <cstddef>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "base/Mutex.h"
#include "common/Result.h"
#include "service/RequestCheck.h"
#include "service/ServiceSnapshot.h"

namespace vexalive {

/// The relays, the mixes and the latest requests, all bounded. Any thread may call any member.
class ServiceState {
public:
    static constexpr size_t kMaxRelays = 1000;
    static constexpr size_t kMaxMixes = 1000;  ///< includes cancelled ones; a new mix replaces the oldest cancelled one
    static constexpr size_t kMaxUpdates = 50;  ///< in the history of one mix
    static constexpr size_t kMaxRequests = 200;
    static constexpr size_t kMaxBodyBytes = 8192;  ///< of a recorded body

    /// Applies a request. Returns the operation: "add", "remove", "start", "update" or "cancel".
    Result<std::string, Refusal> apply(const AcceptedRequest& request);

    /// Adds a record. Sets its time and body size, and truncates its body.
    void record(RequestRecord record);

    /// The running relays and mixes, each as its latest add, start or update.
    std::vector<AcceptedRequest> running() const;

    /// Everything except the state of the media.
    ServiceSnapshot snapshot() const;

private:
    struct Relay {
        AcceptedRequest latest;
        uint64_t since = 0;
        int requests = 0;
    };
    struct Mix {
        bool isRunning = false;
        uint64_t ended = 0;      // order of the cancels: a lower number was cancelled earlier
        uint64_t since = 0;      // of the running or last run
        AcceptedRequest latest;  // start or update
        int updates = 0;         // all operations ever
        std::deque<MixUpdate> history;
    };
    Result<std::string, Refusal> addRelay(const AcceptedRequest& request) KST_REQUIRES(mMutex);
    Result<std::string, Refusal> removeRelay(const AcceptedRequest& request) KST_REQUIRES(mMutex);
    Result<std::string, Refusal> startMix(const AcceptedRequest& request) KST_REQUIRES(mMutex);
    Result<std::string, Refusal> cancelMix(const AcceptedRequest& request) KST_REQUIRES(mMutex);
    bool makeSpaceForMix() KST_REQUIRES(mMutex);

    mutable KstMutex mMutex;
    std::map<std::string, Relay> mRelays KST_GUARDED_BY(mMutex);  // by stream id
    std::map<std::string, Mix> mMixes KST_GUARDED_BY(mMutex);     // by output stream id
    uint64_t mEndedMixes KST_GUARDED_BY(mMutex) = 0;
    std::deque<RequestRecord> mRequests KST_GUARDED_BY(mMutex);  // the latest last
};

}  // namespace vexalive

#endif
