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

/// The delay before a child that exited unexpectedly is restarted: 0.25, 0.5, 1, 2, 4 and then always 8 seconds.
/// `failures` is the number of failures before this one. The supervisor counts from 0 again if a child fails after it
/// has run for at least 10 seconds.
std::chrono::milliseconds restartDelay(int failures);

/// Runs child processes, each under a key. It starts and configures them, reads their status, restarts those that exit
/// or hang, and stops them. One thread, the supervisor's thread, does all of this.
///
/// A child reads lines of JSON from its standard input, and must exit when this input ends. It writes lines of JSON to
/// its standard output: {"status": …} (common/WorkerStatus.h) at least once per Program::timeout, and responses to the
/// lines that it has read. It writes log lines to its standard error.
class Supervisor {
public:
    struct Program {
        std::vector<std::string> arguments;       ///< the first is the path of the program
        std::chrono::milliseconds timeout{5000};  ///< a child that writes no status for this time counts as hung
        int stopSignal = 0;                       ///< sent to stop a child that does not exit at end of input; 0: none

        /// If set, two children of one key never run at the same time: a new child starts when the stopping child has
        /// exited. The stopping child is killed after this time.
        std::optional<std::chrono::milliseconds> handover = std::nullopt;
    };

    /// The functions are called on the supervisor's thread. They must not block and must not call configure() or
    /// stop().
    struct Listener {
        /// The state or the error of the child has changed.
        std::function<void(const WorkerKey& key, const ProcessStatus&)> onState;
        /// The child wrote a log line.
        std::function<void(const WorkerKey& key, const std::string& line)> onLine;
        /// The child wrote a JSON object that is not a status.
        std::function<void(const WorkerKey& key, const nlohmann::json&)> onMessage;
    };

    explicit Supervisor(Listener listener);
    ~Supervisor();  ///< calls stop()

    Result<void> start();

    /// Stops all children. Kills those that do not exit within 3 seconds.
    void stop();

    // Any thread may call the functions below.

    /// If no child runs under `key`, starts one. Writes `configuration`, one line, to the child's standard input. If a
    /// restart or a handover is pending, returns success, and the child receives the line when it starts. If a new
    /// child cannot be started, returns an error and removes the key.
    Result<void> configure(const WorkerKey& key, const Program& program, const std::string& configuration);
    /// Stops the child.
    void remove(const WorkerKey& key);
    /// Writes a line to the child. The line is lost if the child does not run.
    void send(const WorkerKey& key, const std::string& line);
    /// Has the same effect as a status that the child writes.
    void setStatus(const WorkerKey& key, const WorkerStatus& status);

    std::optional<ProcessStatus> status(const WorkerKey& key) const;
    size_t count() const;  ///< number of children, with those that are stopping

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

    // The next three members are used on the supervisor's thread only.
    std::list<Job> mJobs;
    Clock::time_point mNow;  // when the last wait() ended
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
