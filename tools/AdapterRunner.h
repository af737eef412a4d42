// Shared by the commands that use an adapter: the options for the service, the user and the room; an adapter that has
// entered the room; and the event loop of its sessions.

#ifndef VEXALIVE_TOOLS_ADAPTER_RUNNER_H
#define VEXALIVE_TOOLS_ADAPTER_RUNNER_H

#include <CLI/App.hpp>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "Com/LiveTranscodingAdapter.h"
#include "common/Result.h"
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
    RequiredOption sdkAppId;
    RequiredOption user;
    RequiredOption sig;
    RequiredOption room;
    RequiredOption mapKey;
    bool detach = false;
    bool json = false;
    bool verbose = false;
    std::string caFile;
};

// The validated values of RoomOptions.
struct RoomMember {
    int32_t sdkAppId;
    std::string user;
    std::string sig;
    std::string room;
    std::string mapKey;
};
Result<RoomMember> validate(const RoomOptions& options);

// kHeld or kDetached.
TaskSession::Lifetime lifetimeOf(const RoomOptions& options);

// `url` must be an address with a scheme. The error message begins with `option`.
Result<std::string> validateUrl(const char* option, const std::string& url);

// Not thread-safe. At most one may exist at a time.
class AdapterRunner {
public:
    // The adapter enters the room. Fails if no descriptor is free.
    static Result<std::unique_ptr<AdapterRunner>> make(const RoomOptions& options, const RoomMember& member);

    // The first entry to write: `begin` and the fields that every command has.
    static OutputEntry beginEntry(const RoomMember& member, const std::string& text);

    LiveTranscodingAdapter& adapter() { return *mAdapter; }
    void write(OutputEntry entry) { mWriter->write(std::move(entry)); }

    TaskSession& addSession(const TaskType& type, TaskSession::Lifetime lifetime, std::function<void()> stop);

    // Blocks until all sessions have ended. Returns the exit status of the first one that failed; a failure stops the
    // others. If `watcher` is not null, `onChange` is called each time its file is saved.
    ExitStatus run(FileWatcher* watcher = nullptr, const std::function<void()>& onChange = nullptr);

private:
    AdapterRunner(const RoomOptions& options, const RoomMember& member, std::unique_ptr<EventQueue<SdkEvent>> queue,
                  StopSignals signals);

    void dispatch(const SdkEvent& event);
    void requestStop(const std::string& why);
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
