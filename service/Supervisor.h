#ifndef VEXALIVE_SERVICE_SUPERVISOR_H
#define VEXALIVE_SERVICE_SUPERVISOR_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/Mutex.h"
#include "common/Descriptor.h"
#include "common/Result.h"
#include "service/Child.h"
#include "service/LineReader.h"
#include "service/ServiceSnapshot.h"
#include "service/WorkerKey.h"

struct pollfd;

namespace vexalive {

/// The delay before a child that exited unexpectedly is restarted: 0.25, 0.5, 1, 2, 4 and then 8 seconds. `failures` is
/// the number of consecutive failures before this one; it restarts at 0 after 10 seconds without a failure.
std::chrono::milliseconds restartDelay(int failures);

/// Runs child processes, each under a key: starts and configures them, reads their status, restarts those that exit or
/// hang, and stops them. One thread does all of it.
///
/// A child reads lines of JSON. It writes lines of JSON: {"status": …} (common/WorkerStatus.h), at least one in each
/// timeout, and responses. It writes log lines to its standard error. It has to exit when its input ends.
class Supervisor {
public:
    struct Program {
        std::vector<std::string> arguments;       ///< the first is a path
        std::chrono::milliseconds timeout{5000};  ///< without a status, after which the child counts as hung
        int stopSignal = 0;                       ///< for a child that does not exit at the end of its input; 0: none

        /// If set, two children of one key never run at the same time: the new one starts when the stopping one has
        /// exited, and the stopping one is killed after this time.
        std::optional<std::chrono::milliseconds> handover = std::nullopt;
    };

    /// Called on the supervisor's thread. They must not block, and must not call configure() or stop().
    struct Listener {
        /// The state or its error has changed.
        std::function<void(const WorkerKey& key, const ProcessStatus&)> onState;
        /// The child wrote a log line.
        std::function<void(const WorkerKey& key, const std::string& line)> onLine;
        /// The child wrote a JSON object that is not a status.
        std::function<void(const WorkerKey& key, const nlohmann::json&)> onMessage;
    };

    explicit Supervisor(Listener listener);
    ~Supervisor();  ///< stops

    Result<void> start();

    /// Stops all children: those that exit by themselves within 3 seconds, the others by SIGKILL.
    void stop();

    // Any thread may call these.

    /// Starts a child and writes its configuration, one line, to it; or writes the configuration to the running child.
    /// Succeeds also if a restart or a handover is pending. Fails if the child cannot be started; the key is then
    /// removed.
    Result<void> configure(const WorkerKey& key, const Program& program, const std::string& configuration);
    void remove(const WorkerKey& key);                                 ///< stops the child
    void send(const WorkerKey& key, const std::string& line);          ///< lost if the child is not running
    void setStatus(const WorkerKey& key, const WorkerStatus& status);  ///< as if the child had written it

    std::optional<ProcessStatus> status(const WorkerKey& key) const;
    size_t count() const;  ///< of children, stopping ones included

private:
    using Clock = std::chrono::steady_clock;
    struct Job;

    bool post(std::function<void()> command);
    void run();
    bool runCommands();
    void wait();
    void extendTimeouts(Clock::time_point before);
    void handleEvents(Job& job, const pollfd* slots);

    Result<void> applyConfiguration(const WorkerKey& key, const Program& program, const std::string& configuration);
    Job* find(const WorkerKey& key);
    Job* findBlocker(const Job& job);
    Result<void> launch(Job& job);
    void beginStop(Job& job);
    void writeLine(Job& job, const std::string& line);
    void write(Job& job);
    void readOutput(Job& job);
    void readErrors(Job& job);
    void handleLine(Job& job, const std::string& line);
    void update(Job& job, WorkerStatus status);
    void kill(Job& job, const std::string& reason);
    void reap(Job& job);
    void reportOmissions(Job& job);
    void publish(Job& job);

    const Listener mListener;
    Descriptor mWake;
    std::thread mThread;

    // Used on the supervisor's thread only.
    std::list<Job> mJobs;
    Clock::time_point mNow;  // when the last wait ended
    bool mIsShuttingDown = false;

    mutable KstMutex mMutex;
    KstCondition mApplied;
    bool mIsRunning KST_GUARDED_BY(mMutex) = false;
    bool mIsStopping KST_GUARDED_BY(mMutex) = false;
    std::deque<std::function<void()>> mCommands KST_GUARDED_BY(mMutex);
    std::map<WorkerKey, ProcessStatus> mStatuses KST_GUARDED_BY(mMutex);
    size_t mCount KST_GUARDED_BY(mMutex) = 0;
};

}  // namespace vexalive

#endif
