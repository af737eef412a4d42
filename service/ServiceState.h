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

/// Stores the relays, the mixes and the latest requests; limits the number of each. Any thread may call any member
/// function.
class ServiceState {
public:
    static constexpr size_t kMaxRelays = 1000;
    static constexpr size_t kMaxMixes = 1000;      ///< with cancelled mixes; at the limit, a new mix replaces the mix
                                                   ///< that was cancelled first
    static constexpr size_t kMaxUpdates = 50;      ///< operations in the history of one mix
    static constexpr size_t kMaxRequests = 200;    ///< recorded requests
    static constexpr size_t kMaxBodyBytes = 8192;  ///< size of a recorded body

    /// Applies a request. Returns the operation: "add", "remove", "start", "update" or "cancel".
    Result<std::string, Refusal> apply(const AcceptedRequest& request);

    /// Adds a record. Sets its time and body size, and truncates its body.
    void record(RequestRecord record);

    /// The running relays and mixes: for each, the latest add, start or update.
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
        uint64_t ended = 0;      // sequence number of the cancel, from mEndedMixes
        uint64_t since = 0;      // when the current or last run was started
        AcceptedRequest latest;  // start or update
        int updates = 0;         // number of starts, updates and cancels so far
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
    uint64_t mEndedMixes KST_GUARDED_BY(mMutex) = 0;              // number of cancels so far
    std::deque<RequestRecord> mRequests KST_GUARDED_BY(mMutex);   // oldest first
};

}  // namespace vexalive

#endif
