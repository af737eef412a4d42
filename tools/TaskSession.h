// A relay or a mix from its start to its end, as a command sees it: hears what the SDK tells, shows each entry, and
// decides when to send an update, when to stop and when to leave, and how.
//
// Knows no thread, socket, signal or clock, so a test can tell it any story.

#ifndef VEXALIVE_TOOLS_TASK_SESSION_H
#define VEXALIVE_TOOLS_TASK_SESSION_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/OutputWriter.h"
#include "tools/SdkEventCollector.h"

namespace vexalive {

// Relay work or mix work: its words and codes.
struct TaskFamily {
    const char* name;  // "relay"
    const char* stop;  // "stop", "cancel", and their forms
    const char* stops;
    const char* stopping;
    const char* stopped;
    Operation startOperation;
    Operation stopOperation;
    ListenerCodes codes;
    int reportEvent;
};
extern const TaskFamily kRelayFamily;
extern const TaskFamily kMixFamily;

// For one thread.
class TaskSession {
public:
    enum class Lifetime {
        kHeld,      // until a stop is asked for
        kDetached,  // until it runs
        kWatched,   // as kHeld, but a start that fails does not end it: a better one may follow
    };

    // `stop` asks the adapter to stop; `show` takes what is to be shown.
    TaskSession(const TaskFamily& family, Lifetime lifetime, std::function<void()> stop,
                std::function<void(OutputEntry)> show);

    // `call` asks the adapter to start or, if it runs, to change; it is called as soon as no attempt is under way, and
    // instead of one that still waits to be called or to be tried again. It may be called more than once.
    void start(std::function<void()> call);

    void on(const SdkEvent& event);

    // The user wants it to end; `why` names how that was told ("SIGINT"). An attempt to start that is under way gets
    // its answer first: a stop sent beside it could overtake it, and leave the relay running. The second time ends the
    // session at once.
    void onStopAsked(const std::string& why);

    bool isStopAsked() const { return mStopWanted; }

    const char* name() const { return mFamily.name; }

    // Once the session has ended.
    std::optional<ExitStatus> exitStatus() const { return mExitStatus; }

private:
    enum class Stage { kIdle, kStarting, kStopping };

    // What there is to know about a start, an update or a stop.
    struct Task {
        const char* name;
        int attempts = 0;
        bool isRetryPlanned = false;
        ServiceAnswer answer{};  // the last one
        std::vector<ListenerTold> told{};
        std::optional<ExitStatus> outcome{};
        bool isReported = false;

        bool isJudged() const { return outcome || !told.empty() || (attempts > 0 && answer.isVerdictMissing()); }
    };

    void onExchange(const ExchangeEvent& event);
    void onStarted(Task& task, const ExchangeEvent& event);
    void onAnswered(Task& task, const ExchangeEvent& event);
    void onDelivered(Task& task);
    void onListener(const ListenerEvent& event);
    void onReport(const EventReport& report);
    void finish(Task& task);

    void advance();
    void settleStart();
    void settleStop();
    void beginStart();
    void beginStop();
    void showIdle();
    void end(ExitStatus status);

    bool isInFlight(const Task& task) const;
    bool isBetweenAttempts() const { return mStage == Stage::kStarting && mStart.isRetryPlanned; }
    bool hasEnded(const Task& task) const { return task.outcome && task.isReported && !isInFlight(task); }
    OutputEntry about(const char* event, const std::string& text) const;
    OutputEntry about(const Task& task, const char* event, const std::string& text) const;
    OutputEntry aboutAttempt(const Task& task, const char* event, const std::string& text) const;

    const TaskFamily& mFamily;
    const Lifetime mLifetime;
    const std::function<void()> mCallStop;
    const std::function<void(OutputEntry)> mEmit;

    Stage mStage = Stage::kIdle;
    bool mRuns = false;  // a start succeeded
    bool mStopWanted = false;
    std::function<void()> mNextStart;  // waits to be called; may be empty
    std::function<void()> mCallStart;  // the last that was called
    Task mStart{"start"};              // or the last update
    Task mStop;
    std::map<uint64_t, Task*> mInFlight;  // exchanges, by id

    // An attempt of a start that was superseded was still sent, and may have reached the service after what superseded
    // it. That has to be sent again.
    bool mStartWentAstray = false;

    std::optional<ExitStatus> mExitStatus;
};

}  // namespace vexalive

#endif
