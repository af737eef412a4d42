// What the commands that drive an adapter share: the options that name the user, the room and the output; an adapter
// that has entered the room; and the loop that lets its sessions hear what happens.

#ifndef VEXALIVE_TOOLS_ADAPTER_RUNNER_H
#define VEXALIVE_TOOLS_ADAPTER_RUNNER_H

#include <CLI/App.hpp>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "Com/LiveTranscodingAdapter.h"
#include "tools/FileWatcher.h"
#include "tools/Options.h"
#include "tools/OutputWriter.h"
#include "tools/SdkEventCollector.h"
#include "tools/Signals.h"
#include "tools/TaskSession.h"

namespace vexalive {

struct RoomOptions {
    explicit RoomOptions(CLI::App& command);

    const CLI::App& command;
    Setting sdkAppId;
    Setting user;
    Setting sig;
    Setting room;
    Setting mapKey;
    bool detach = false;
    bool json = false;
    bool verbose = false;
    std::string caFile;
};

// What the options come to, each checked.
struct RoomMember {
    int32_t sdkAppId;
    std::string user;
    std::string sig;
    std::string room;
    std::string mapKey;
};
RoomMember check(const RoomOptions& options);

// kHeld or kDetached.
TaskSession::Lifetime lifetimeOf(const RoomOptions& options);

// An address with a scheme. UsageError, which begins with `option`, if it is none.
std::string checkUrl(const char* option, const std::string& url);

// For one thread; one at a time.
class AdapterRunner {
public:
    // The adapter enters the room.
    AdapterRunner(const RoomOptions& options, const RoomMember& member);

    // `begin` and what belongs to every run; the first thing to show.
    static OutputEntry beginning(const RoomMember& member, const std::string& text);

    LiveTranscodingAdapter& adapter() { return *mAdapter; }
    void show(OutputEntry entry) { mWriter->write(std::move(entry)); }

    TaskSession& addSession(const TaskFamily& family, TaskSession::Lifetime lifetime, std::function<void()> stop);

    // Until all sessions have ended: the status of the first that failed. One that fails asks the others to stop.
    // `watch` may be null; `onChange` is called when its file has changed.
    ExitStatus await(FileWatcher* watch = nullptr, const std::function<void()>& onChange = nullptr);

private:
    void handOut(const SdkEvent& event);
    void askToStop(const std::string& why);
    void stopAfterFailure();
    bool hasEnded() const;

    std::unique_ptr<OutputWriter> mWriter;
    SdkEventCollector mEvents;
    StopSignals mSignals;
    std::shared_ptr<LiveTranscodingAdapter> mAdapter;
    std::list<TaskSession> mSessions;
};

}  // namespace vexalive

#endif
