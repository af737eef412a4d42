#ifndef VEXALIVE_SERVICE_WORKER_POOL_H
#define VEXALIVE_SERVICE_WORKER_POOL_H

#include <chrono>
#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "base/Mutex.h"
#include "common/Result.h"
#include "service/Origin.h"
#include "service/Refusal.h"
#include "service/RequestCheck.h"
#include "service/ServiceOptions.h"
#include "service/ServiceSnapshot.h"
#include "service/Supervisor.h"
#include "service/WorkerKey.h"

namespace vexalive {

/// The media of the service: the origin, and a worker process for each relay and each mix.
///
/// Any thread may call any member function. Call prepare(), start() and stop() from one thread at a time.
class WorkerPool {
public:
    static constexpr size_t kMaxWorkers = 64;

    explicit WorkerPool(const LiveServiceOptions& options);  ///< `options` must outlive the pool
    ~WorkerPool();                                           ///< calls stop()

    /// Finds the worker program. Finds nginx and reserves its port, or checks the address of a remote origin.
    Result<void> prepare();

    /// Starts the origin, and a worker for each relay and mix of `running`.
    Result<void> start(uint16_t consolePort, const std::vector<AcceptedRequest>& running);
    void endWaits();  ///< makes all running calls of snapshotJpeg() return
    void stop();

    /// Starts or reconfigures the worker of a relay or mix.
    Result<void, Refusal> begin(const AcceptedRequest& request);
    void end(const AcceptedRequest& request);  ///< a kRemoveRelay or kCancelMix

    OriginAddress address() const;  ///< of the origin

    /// Adds the state of the media to a snapshot.
    void addTo(ServiceSnapshot& snapshot) const;

    /// The output of the mix as a JPEG, at most 250 ms old. Blocks for at most 1 s; empty if there is no JPEG by then.
    std::string snapshotJpeg(const std::string& streamId);

    /// Whether nginx may accept the publisher that it describes in `form` (MediaRules.h).
    bool allowsPublish(const std::string& form);

private:
    // The last video frame that was requested from the worker of a mix.
    struct Snapshot {
        std::string jpeg;
        std::chrono::steady_clock::time_point received;
        std::chrono::steady_clock::time_point requested;
    };

    Result<void> findWorker();
    void notifyState(const WorkerKey& key, const ProcessStatus& status);
    void notifyLine(const WorkerKey& key, const std::string& line);
    void notify(const LiveMediaEvent& event) const;
    void handleMessage(const WorkerKey& key, const nlohmann::json& message);
    void handleCheck(const OriginCheck& check);
    std::optional<ProcessStatus> originStatus() const;

    const LiveServiceOptions& mOptions;
    std::string mWorker;  // path of the worker program
    Origin mOrigin;       // unused with a remote origin

    mutable KstMutex mMutex;
    KstCondition mSnapshotChanged;
    OriginAddress mAddress KST_GUARDED_BY(mMutex);
    ProcessStatus mRemoteStatus KST_GUARDED_BY(mMutex);               // of a remote origin
    std::map<WorkerKey, Snapshot> mSnapshots KST_GUARDED_BY(mMutex);  // one for each running relay and mix

    Supervisor mSupervisor;
    OriginMonitor mMonitor;  // the last member, since its thread uses all members above
};

}  // namespace vexalive

#endif
