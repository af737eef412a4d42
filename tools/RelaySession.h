// One relay from its start to its end, as the `relay` command sees it: hears what the SDK tells, shows each step, and
// decides when to stop the relay and when to leave, and how.
//
// Knows no thread, socket, signal or clock, so a test can tell it any story.

#ifndef VEXALIVE_TOOLS_RELAY_SESSION_H
#define VEXALIVE_TOOLS_RELAY_SESSION_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/SdkEvents.h"
#include "tools/StepView.h"

namespace vexalive {

// For one thread.
class RelaySession {
public:
    // `stopRelay` asks the adapter to stop; the start has been asked for already. `show` and `log` take what is to be
    // shown. With `detach` the session ends when the relay runs.
    RelaySession(bool detach, std::function<void()> stopRelay, std::function<void(Step)> show,
                 std::function<void(const std::string&)> log);

    void on(const SdkEvent& event);

    // The user wants it to end; `why` names how that was told ("SIGINT"). A start that waits for its answer gets it
    // first: a stop sent beside it could overtake it, and leave the relay running. The second time ends the session at
    // once.
    void onStopAsked(const std::string& why);

    // The exit status, once the session has ended.
    std::optional<int> exitStatus() const { return mExitStatus; }

private:
    enum class Stage { kStarting, kHolding, kStopping };

    // What there is to know about the start, or the stop.
    struct Task {
        const char* name;
        const char* interfaceName;
        ListenerEvent::Operation operation;
        const char* success;  // in words
        int attempts = 0;
        bool isInFlight = false;
        ServiceAnswer answer;  // the last one
        std::vector<ListenerTold> told;
        std::optional<ExitStatus> outcome;
        bool isReported = false;

        bool hasEnded() const { return outcome && isReported && !isInFlight; }
    };

    void onExchange(const ExchangeEvent& event);
    void onListener(const ListenerEvent& event);
    void onReport(const EventReport& report);
    void onDelivered(Task& task);
    void finish(Task& task);
    void beginStop();
    void advance();
    void end(int status);
    Step about(const Task& task, const char* event, const std::string& text) const;

    const bool mDetach;
    const std::function<void()> mStopRelay;
    const std::function<void(Step)> mShow;
    const std::function<void(const std::string&)> mLog;

    Stage mStage = Stage::kStarting;
    bool mStopWanted = false;
    Task mStart;
    Task mStop;

    // The adapter still sends a retry of the start that was planned when the stop began, and ignores its answer. If it
    // may have reached the service after the stop did, the relay has to be stopped again.
    bool mStartWentAstray = false;

    std::optional<int> mExitStatus;
};

}  // namespace vexalive

#endif
