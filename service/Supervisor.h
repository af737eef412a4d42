// Keeps child processes running, each under a key: starts them, tells them what to do, hears how they are, starts again
// those that end or hang, and stops them.
//
// Used by Media. One thread does it all. A child reads lines of JSON and writes lines of JSON: {"status":…} (see
// WorkerStatus.h) often enough to be known alive, and answers. What it writes to standard error is for people. When its
// input ends it has to end.

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
#include "service/Child.h"
#include "service/LineReader.h"
#include "service/WorkerStatus.h"

struct pollfd;

namespace vexalive {

// Before a child that ended unasked is started again: 0.25, 0.5, 1, 2, 4 and then 8 seconds. `failures` counts those
// before this one in a row; a child that has run for a while begins a new row.
std::chrono::milliseconds restartPause(int failures);

class Supervisor {
public:
    struct Program {
        std::vector<std::string> arguments;        // the first is a path
        std::chrono::milliseconds patience{5000};  // without a sign of life, before it is taken for hung
        int stopSignal = 0;                        // for one that does not heed the end of its input

        // Where two of one key would be in each other's way: a new one starts when the one that leaves has gone, which
        // has so long yet. None: they may be there at the same time.
        std::optional<std::chrono::milliseconds> handover = std::nullopt;
    };

    // Called on the supervisor's thread, which they must not keep waiting; they must not call want() or stop().
    struct Listener {
        std::function<void(const std::string& key, const WorkerStatus&)> onState;     // the state or its error changed
        std::function<void(const std::string& key, const std::string& line)> onLine;  // for people
        std::function<void(const std::string& key, const nlohmann::json&)> onAnswer;  // what is no status
    };

    explicit Supervisor(Listener listener);
    ~Supervisor();  // stops

    bool start(std::string& error);

    // Ends all children: within 3 seconds those that do so by themselves, then by force.
    void stop();

    // Any thread may call these.

    // Starts a child and gives it its configuration, one line; or gives the one that runs another. Returns why it could
    // not be started, in which case it is forgotten; empty if it runs, or is to be started later anyway.
    std::string want(const std::string& key, const Program& program, const std::string& configuration);
    void drop(const std::string& key);                              // stops it
    void tell(const std::string& key, const std::string& line);     // once; lost if it does not run
    void note(const std::string& key, const WorkerStatus& status);  // as if it had said so

    std::optional<WorkerStatus> status(const std::string& key) const;
    size_t count() const;  // those that are being stopped included

private:
    using Clock = std::chrono::steady_clock;
    struct Kept;

    bool post(std::function<void()> wish);
    void run();
    bool takeWishes();
    void await();
    void forgiveAbsence(Clock::time_point before);
    void attend(Kept& kept, const pollfd* slots);

    std::string obey(const std::string& key, const Program& program, const std::string& configuration);
    Kept* find(const std::string& key);
    Kept* findInTheWay(const Kept& kept);
    bool launch(Kept& kept, std::string& error);
    void leave(Kept& kept);
    void send(Kept& kept, const std::string& line);
    void write(Kept& kept);
    void readOutput(Kept& kept);
    void readErrors(Kept& kept);
    void hear(Kept& kept, const std::string& line);
    void take(Kept& kept, WorkerStatus status);
    void killBlaming(Kept& kept, const std::string& reason);
    void bury(Kept& kept);
    void tellOmitted(Kept& kept);
    void publish(Kept& kept);

    const Listener mListener;
    Descriptor mWake;
    std::thread mThread;

    // Of the thread alone.
    std::list<Kept> mKept;
    Clock::time_point mNow;  // when the last wait ended
    bool mIsLeaving = false;

    mutable KstMutex mMutex;
    KstCondition mObeyed;
    bool mIsRunning KST_GUARDED_BY(mMutex) = false;
    bool mIsStopping KST_GUARDED_BY(mMutex) = false;
    std::deque<std::function<void()>> mWishes KST_GUARDED_BY(mMutex);
    std::map<std::string, WorkerStatus> mStatuses KST_GUARDED_BY(mMutex);
    size_t mCount KST_GUARDED_BY(mMutex) = 0;
};

}  // namespace vexalive

#endif
