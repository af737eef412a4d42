// Controls one relay or one mix of a command: handles the adapter's events, writes progress entries, and decides when
// to call the adapter to start, update or stop it, and when the session ends.
//
// It uses no thread, socket, signal or clock, so tests can feed it any sequence of events.

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

// The differences between relays and mixes: words for the output, request kinds and codes.
struct TaskType {
    const char* name;  // "relay" or "mix"
    const char* stop;  // "stop" or "cancel"; its other forms follow
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
        kHeld,      // the session ends when the task has been stopped or its start has failed
        kDetached,  // the session ends when the task is running or its start has failed
        kWatched,   // like kHeld, but a failed start does not end the session: another start may follow
    };

    // `stop` calls the adapter's stop operation. `emit` receives the progress entries.
    TaskSession(const TaskType& type, Lifetime lifetime, std::function<void()> stop,
                std::function<void(OutputEntry)> emit);

    // Runs `call`, which starts or updates the task at the adapter, as soon as no attempt is in flight. An earlier call
    // is dropped if it is still pending or between two attempts. `call` may run more than once.
    void start(std::function<void()> call);

    void handle(const SdkEvent& event);

    // Stops the task, then ends the session. `why` is the reason that the output shows, for example "SIGINT". If an
    // attempt to start is in flight, its response is awaited first: a stop that is sent in parallel could reach the
    // service first, and the task would keep running. A second call ends the session at once.
    void requestStop(const std::string& why);

    bool isStopRequested() const { return mIsStopRequested; }

    const char* name() const { return mType.name; }

    // std::nullopt until the session has ended.
    std::optional<ExitStatus> exitStatus() const { return mExitStatus; }

private:
    enum class Stage { kIdle, kStarting, kStopping };

    // One start, update or stop, with all its attempts.
    struct Task {
        const char* name;
        int attempts = 0;
        bool isRetryScheduled = false;
        ServiceResponse response{};  // to the last attempt
        std::vector<requests::Notification> notifications{};
        std::optional<ExitStatus> outcome{};
        bool isReported = false;  // the adapter has sent its event report

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
    std::function<void()> mPendingStart;  // the next call that starts or updates the task; may be empty
    std::function<void()> mLastStart;     // the last of these calls that was made
    Task mStart{"start"};                 // the last start or update
    Task mStop;
    std::map<uint64_t, Task*> mInFlight;  // the tasks of the HTTP exchanges in flight, by exchange id

    // Whether an attempt of a superseded start was in flight together with a newer request (start, update or stop). The
    // attempt may have reached the service last, so the newer request has to be sent again.
    bool mHasLateStart = false;

    std::optional<ExitStatus> mExitStatus;
};

}  // namespace vexalive

#endif
