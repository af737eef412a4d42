#include "tools/AdapterRunner.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <utility>

#include "base/RetrySchedule.h"
#include "base/ServiceAddress.h"
#include "common/Text.h"
#include "common/Url.h"

namespace vexalive {
namespace {

constexpr int kDebugLevel = 1;
constexpr int kWarningLevel = 3;

// The adapter puts the secrets into the URL without URL encoding.
void warnOfUnsafeSecret(const CLI::App& command, const RequiredOption& option, const std::string& secret) {
    const bool isPrintableAscii = std::all_of(secret.begin(), secret.end(), [](char c) { return c > ' ' && c < 0x7f; });
    if (!isPrintableAscii || secret.find_first_of("&#%") != std::string::npos) {
        std::fprintf(stderr,
                     "vexalive %s: warning: %s contains a space, a control character, &, #, %% or a character that is "
                     "not ASCII; the request's URL cannot carry it\n",
                     command.get_name().c_str(), option.name());
    }
}

void warnOfDefaultService(const CLI::App& command) {
    const char* host = std::getenv("VEXALIVE_SERVICE_HOST");
    if (!host || !*host) {
        std::fprintf(stderr, "vexalive %s: warning: VEXALIVE_SERVICE_HOST is not set; using the built-in default %s\n",
                     command.get_name().c_str(), kstf_get_live_service_host());
    }
}

Secrets secretsOf(const RoomMember& member) {
    Secrets secrets;
    secrets.add(member.sig);
    secrets.add(member.mapKey);
    return secrets;
}

}  // namespace

RoomOptions::RoomOptions(CLI::App& app)
    : command(app),
      sdkAppId(app, "--sdk-app-id", "VEXALIVE_SDK_APP_ID", "the SDK application id, a positive integer"),
      user(app, "--user", "VEXALIVE_USER", "the id of the local user"),
      sig(app, "--sig", "VEXALIVE_SIG", "the user's signature, a secret", RequiredOption::kSecret),
      room(app, "--room", "VEXALIVE_ROOM", "the id of the room that the user has entered"),
      mapKey(app, "--map-key", "VEXALIVE_MAP_KEY", "the room's private map key, a secret", RequiredOption::kSecret) {
    app.add_flag("--detach", detach, "Exit when the relay or mix is running, without stopping it");
    app.add_flag("--json", json, "Write one JSON object per line (see docs/vexalive-tool.md)");
    app.add_flag("--verbose", verbose, "Write the SDK's log to standard error");
    app.add_option("--ca-file", caFile, "PEM file of certificate authorities to trust; or VEXALIVE_CA_FILE")
        ->type_name("FILE");
}

Result<RoomMember> validate(const RoomOptions& options) {
    const auto sdkAppId = options.sdkAppId.integer(1, std::numeric_limits<int32_t>::max());
    const auto user = options.user.value();
    const auto sig = options.sig.value();
    const auto room = options.room.value();
    const auto mapKey = options.mapKey.value();
    if (!sdkAppId) {
        return tl::unexpected(sdkAppId.error());
    }
    for (const auto* value : {&user, &sig, &room, &mapKey}) {
        if (!*value) {
            return tl::unexpected(value->error());
        }
    }
    if (!options.caFile.empty() && !std::ifstream(options.caFile)) {
        return failure("--ca-file is \"" + printable(options.caFile) + "\": must be a readable file");
    }
    return RoomMember{static_cast<int32_t>(*sdkAppId), *user, *sig, *room, *mapKey};
}

TaskSession::Lifetime lifetimeOf(const RoomOptions& options) {
    return options.detach ? TaskSession::Lifetime::kDetached : TaskSession::Lifetime::kHeld;
}

Result<std::string> validateUrl(const char* option, const std::string& url) {
    if (!parseUrl(url)) {
        return failure(std::string(option) + " is \"" + printable(url) +
                       "\": must be a URL with a scheme, for example rtmp://cdn.example/live/main");
    }
    return url;
}

Result<std::unique_ptr<AdapterRunner>> AdapterRunner::make(const RoomOptions& options, const RoomMember& member) {
    auto queue = EventQueue<SdkEvent>::make();
    auto signals = StopSignals::open();
    if (!queue || !signals) {
        return tl::unexpected(!queue ? queue.error() : signals.error());
    }
    return std::unique_ptr<AdapterRunner>(new AdapterRunner(options, member, std::move(*queue), std::move(*signals)));
}

AdapterRunner::AdapterRunner(const RoomOptions& options, const RoomMember& member,
                             std::unique_ptr<EventQueue<SdkEvent>> queue, StopSignals signals)
    : mWriter(makeOutputWriter(chooseFormat(options.json, stdout), secretsOf(member), stdout, stderr)),
      mEvents(std::move(queue), options.verbose ? kDebugLevel : kWarningLevel),
      mSignals(std::move(signals)),
      mAdapter(std::make_shared<LiveTranscodingAdapter>()) {
    warnOfDefaultService(options.command);
    warnOfUnsafeSecret(options.command, options.sig, member.sig);
    warnOfUnsafeSecret(options.command, options.mapKey, member.mapKey);
    if (!options.caFile.empty()) {
        HttpOptions http;
        http.caFile = options.caFile;
        setHttpOptions(http);
    }
    mAdapter->setLiveTranscodingDelegate(mEvents.listener());
    mAdapter->updateUserInfo(member.sdkAppId, member.sig, member.user);
    mAdapter->updateEnterRoomInfo(member.room, member.mapKey);
}

OutputEntry AdapterRunner::beginEntry(const RoomMember& member, const std::string& text) {
    OutputEntry entry;
    entry.fields = {{"event", "begin"},
                    {"service", kstf_get_live_service_host()},
                    {"sdkAppId", member.sdkAppId},
                    {"user", member.user},
                    {"room", member.room},
                    {"attempts", kRetryBudget + 1}};
    entry.text = text + ", service https://" + kstf_get_live_service_host();
    return entry;
}

TaskSession& AdapterRunner::addSession(const TaskType& type, TaskSession::Lifetime lifetime,
                                       std::function<void()> stop) {
    return mSessions.emplace_back(type, lifetime, std::move(stop),
                                  [this](OutputEntry entry) { mWriter->write(std::move(entry)); });
}

ExitStatus AdapterRunner::run(FileWatcher* watcher, const std::function<void()>& onChange) {
    bool isOutputClosed = false;
    while (!hasEnded()) {
        mEvents.queue().wait({mSignals.fd(), watcher ? watcher->fd() : -1}, mWriter->redrawInterval());
        for (const SdkEvent& event : mEvents.queue().drain()) {
            dispatch(event);
        }
        if (watcher && watcher->pollChange()) {
            onChange();
        }
        if (const auto signal = mSignals.next()) {
            requestStop(*signal);
        }
        if (mWriter->isBroken() && !isOutputClosed) {
            isOutputClosed = true;
            requestStop("closed output");
        }
        stopAfterFailure();
        mWriter->redraw();
    }
    const auto failed = std::find_if(mSessions.begin(), mSessions.end(),
                                     [](const TaskSession& session) { return *session.exitStatus() != kSucceeded; });
    const ExitStatus status = failed == mSessions.end() ? kSucceeded : *failed->exitStatus();
    OutputEntry entry;
    entry.fields = {{"event", "end"}, {"exitStatus", status}};
    mWriter->write(std::move(entry));
    return status;
}

void AdapterRunner::dispatch(const SdkEvent& event) {
    if (const auto* log = std::get_if<LogEvent>(&event)) {
        mWriter->writeLog("[" + std::to_string(log->level) + "] " + log->file + ":" + std::to_string(log->line) + " " +
                          log->function + ": " + log->message);
        return;
    }
    for (TaskSession& session : mSessions) {
        session.handle(event);
    }
}

void AdapterRunner::requestStop(const std::string& why) {
    for (TaskSession& session : mSessions) {
        session.requestStop(why);
    }
}

void AdapterRunner::stopAfterFailure() {
    for (const TaskSession& failed : mSessions) {
        if (failed.exitStatus().value_or(kSucceeded) == kSucceeded) {
            continue;
        }
        for (TaskSession& session : mSessions) {
            if (!session.isStopRequested()) {
                session.requestStop(std::string(failed.name()) + " failure");
            }
        }
    }
}

bool AdapterRunner::hasEnded() const {
    return std::all_of(mSessions.begin(), mSessions.end(),
                       [](const TaskSession& session) { return session.exitStatus().has_value(); });
}

}  // namespace vexalive
