// The commands that use an adapter share this file. It has the options for the service, the user and the room, and a
// class that owns the adapter and runs the event loop.

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

// The validated options: the local user and the room.
struct RoomMember {
    int32_t sdkAppId;
    std::string user;
    std::string sig;
    std::string room;
    std::string mapKey;
};
Result<RoomMember> validate(const RoomOptions& options);

// kDetached if the option --detach is given, otherwise kHeld.
TaskSession::Lifetime lifetimeOf(const RoomOptions& options);

// Returns `url` if it is a URL with a scheme. `option` is its name, with which the error message begins.
Result<std::string> validateUrl(const char* option, const std::string& url);

// Runs relays and mixes of one adapter until all have ended. Not thread-safe. At most one object may exist at a time.
class AdapterRunner {
public:
    // Creates an adapter that has entered the room. Fails if no descriptor is free.
    static Result<std::unique_ptr<AdapterRunner>> make(const RoomOptions& options, const RoomMember& member);

    // Returns the first entry of the output: the event "begin" with the fields that all commands share.
    static OutputEntry beginEntry(const RoomMember& member, const std::string& text);

    LiveTranscodingAdapter& adapter() { return *mAdapter; }
    void write(OutputEntry entry) { mWriter->write(std::move(entry)); }

    TaskSession& addSession(const TaskType& type, TaskSession::Lifetime lifetime, std::function<void()> stop);

    // Blocks until all sessions have ended. If a session fails, the others are stopped. Returns the exit status of the
    // first failed session in the order of addSession(), else kSucceeded. If `watcher` is not null, calls `onChange`
    // each time the watched file is saved.
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
