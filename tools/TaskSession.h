// The life of a relay or a mix within one command: follows the adapter's events, reports progress, and decides when to
// send an update, when to stop and when the command ends.
//
// Uses no thread, socket, signal or clock, so tests can feed it any sequence of events.

#ifndef VEXALIVE_TOOLS_TASK_SESSION_H
#define VEXALIVE_TOOLS_TASK_SESSION_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Com/LiveRequests.h"
#include "tools/OutputWriter.h"
#include "tools/SdkEventCollector.h"

namespace vexalive {

// The words of the output, the request kinds and the codes of relays, or of mixes.
struct TaskType {
    const char* name;  // "relay"
    const char* stop;  // "stop" or "cancel", and its forms
    const char* stops;
    const char* stopping;
    const char* stopped;
    requests::Kind startKind;
    requests::Kind stopKind;
    const requests::Family& family;
};
extern const TaskType kRelayTask;
extern const TaskType kMixTask;

// Not thread-safe.
class TaskSession {
public:
    enum class Lifetime {
        kHeld,      // ends when it is stopped, or when the start fails
        kDetached,  // ends when the task is running, or when the start fails
        kWatched,   // as kHeld, but a failed start does not end it: another start may follow
    };

    // `stop` calls the adapter's stop operation; `emit` receives the progress.
    TaskSession(const TaskType& type, Lifetime lifetime, std::function<void()> stop,
                std::function<void(OutputEntry)> emit);

    // Runs `call`, which starts or updates the task at the adapter, as soon as no attempt is in flight. It replaces an
    // earlier call that is still pending or between two attempts. `call` may run more than once.
    void start(std::function<void()> call);

    void on(const SdkEvent& event);

    // Ends the session; `why` is the reason for the output ("SIGINT"). An attempt to start that is in flight is
    // completed first: a stop sent in parallel could arrive first and leave the task running. The second call ends the
    // session at once.
    void requestStop(const std::string& why);

    bool isStopRequested() const { return mIsStopRequested; }

    const char* name() const { return mType.name; }

    // Set when the session has ended.
    std::optional<ExitStatus> exitStatus() const { return mExitStatus; }

private:
    enum class Stage { kIdle, kStarting, kStopping };

    // A start, an update or a stop.
    struct Task {
        const char* name;
        int attempts = 0;
        bool isRetryScheduled = false;
        ServiceResponse response{};  // the last one
        std::vector<requests::Notification> notifications{};
        std::optional<ExitStatus> outcome{};
        bool isReported = false;

        bool isDecided() const {
            return outcome || !notifications.empty() || (attempts > 0 && response.isCodeMissing());
        }
    };

    void onExchange(const ExchangeEvent& event);
    void onStarted(Task& task, const ExchangeEvent& event);
    void onResponse(Task& task, const ExchangeEvent& event);
    void onDelivered(Task& task);
    void onListener(const ListenerEvent& event);
    void onReport(const EventReport& report);
    void finish(Task& task);

    void advance();
    void onStartEnded();
    void onStopEnded();
    void beginStart();
    void beginStop();
    void emitIdle();
    void end(ExitStatus status);

    bool isInFlight(const Task& task) const;
    bool isBetweenAttempts() const { return mStage == Stage::kStarting && mStart.isRetryScheduled; }
    bool hasEnded(const Task& task) const { return task.outcome && task.isReported && !isInFlight(task); }
    OutputEntry makeEntry(const char* event, const std::string& text) const;
    OutputEntry makeEntry(const Task& task, const char* event, const std::string& text) const;
    OutputEntry attemptEntry(const Task& task, const char* event, const std::string& text) const;

    const TaskType& mType;
    const Lifetime mLifetime;
    const std::function<void()> mCallStop;
    const std::function<void(OutputEntry)> mEmit;

    Stage mStage = Stage::kIdle;
    bool mIsRunning = false;  // a start succeeded
    bool mIsStopRequested = false;
    std::function<void()> mPendingStart;  // may be empty
    std::function<void()> mLastStart;     // the last one that was called
    Task mStart{"start"};                 // or the last update
    Task mStop;
    std::map<uint64_t, Task*> mInFlight;  // exchanges, by id

    // An attempt of a superseded start was sent late. It may have reached the service after the newer start or the
    // stop, so that one has to be sent again.
    bool mHasLateStart = false;

    std::optional<ExitStatus> mExitStatus;
};

}  // namespace vexalive

#endif
