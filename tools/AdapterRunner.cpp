#include "tools/AdapterRunner.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>

#include "base/RetrySchedule.h"
#include "base/ServiceAddress.h"

namespace vexalive {
namespace {

constexpr int kEveryLogLevel = 1;
constexpr int kWarningLogLevel = 3;

// The adapter puts both into the request's address as they stand, so what no address can hold fails there.
void warnOfSecret(const CLI::App& command, const Setting& setting, const std::string& secret) {
    const bool isSafe = std::all_of(secret.begin(), secret.end(), [](char c) { return c > ' ' && c < 0x7f; });
    if (!isSafe || secret.find_first_of("&#%") != std::string::npos) {
        std::fprintf(stderr,
                     "vexalive %s: warning: %s holds a character that means something else, or nothing, in the "
                     "address of a request (a blank, control character, &, #, %% or one that is not ASCII)\n",
                     command.get_name().c_str(), setting.option());
    }
}

void warnOfDefaultService(const CLI::App& command) {
    const char* host = std::getenv("VEXALIVE_SERVICE_HOST");
    if (!host || !*host) {
        std::fprintf(stderr,
                     "vexalive %s: warning: VEXALIVE_SERVICE_HOST is not set, so the built-in default is asked: %s\n",
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
      user(app, "--user", "VEXALIVE_USER", "the user who asks, a text"),
      sig(app, "--sig", "VEXALIVE_SIG", "the user's signature, a secret text", Setting::kSecret),
      room(app, "--room", "VEXALIVE_ROOM", "the room that the user is in, a text"),
      mapKey(app, "--map-key", "VEXALIVE_MAP_KEY", "the room's private map key, a secret text", Setting::kSecret) {
    app.add_flag("--detach", detach, "Exit once it runs, and leave it running");
    app.add_flag("--json", json, "Write one JSON object a line (docs/vexalive-tool.md lists them)");
    app.add_flag("--verbose", verbose, "Write the SDK's log lines to standard error");
    app.add_option("--ca-file", caFile, "Certificate authorities (PEM) to trust; or VEXALIVE_CA_FILE")
        ->type_name("FILE");
}

RoomMember check(const RoomOptions& options) {
    RoomMember member;
    member.sdkAppId = static_cast<int32_t>(options.sdkAppId.integer(1, std::numeric_limits<int32_t>::max()));
    member.user = options.user.text();
    member.sig = options.sig.text();
    member.room = options.room.text();
    member.mapKey = options.mapKey.text();
    if (!options.caFile.empty() && !std::ifstream(options.caFile)) {
        throw UsageError("--ca-file is \"" + printable(options.caFile) + "\": must be a file that can be read");
    }
    return member;
}

TaskSession::Lifetime lifetimeOf(const RoomOptions& options) {
    return options.detach ? TaskSession::Lifetime::kDetached : TaskSession::Lifetime::kHeld;
}

std::string checkUrl(const char* option, const std::string& url) {
    const size_t colon = url.find("://");
    const auto isSchemeCharacter = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' || c == '-' ||
               c == '.';
    };
    const bool hasScheme =
        colon != std::string::npos && colon > 0 && colon + 3 < url.size() &&
        std::all_of(url.begin(), url.begin() + static_cast<std::ptrdiff_t>(colon), isSchemeCharacter);
    if (!hasScheme) {
        throw UsageError(std::string(option) + " is \"" + printable(url) +
                         "\": must be an address with its scheme, for example rtmp://cdn.example/live/main");
    }
    return url;
}

AdapterRunner::AdapterRunner(const RoomOptions& options, const RoomMember& member)
    : mWriter(makeOutputWriter(chooseFormat(options.json, stdout), secretsOf(member), stdout, stderr)),
      mEvents(options.verbose ? kEveryLogLevel : kWarningLogLevel),
      mAdapter(std::make_shared<LiveTranscodingAdapter>()) {
    warnOfDefaultService(options.command);
    warnOfSecret(options.command, options.sig, member.sig);
    warnOfSecret(options.command, options.mapKey, member.mapKey);
    if (!options.caFile.empty()) {
        HttpOptions http;
        http.caFile = options.caFile;
        setHttpOptions(http);
    }
    mAdapter->setLiveTranscodingDelegate(mEvents.listener());
    mAdapter->updateUserInfo(member.sdkAppId, member.sig, member.user);
    mAdapter->updateEnterRoomInfo(member.room, member.mapKey);
}

OutputEntry AdapterRunner::beginning(const RoomMember& member, const std::string& text) {
    OutputEntry entry;
    entry.fields = {{"event", "begin"},
                    {"service", kstf_get_live_service_host()},
                    {"sdkAppId", member.sdkAppId},
                    {"user", member.user},
                    {"room", member.room},
                    {"attempts", kRetryBudget + 1}};
    entry.text = text + ", asked of https://" + kstf_get_live_service_host();
    return entry;
}

TaskSession& AdapterRunner::addSession(const TaskFamily& family, TaskSession::Lifetime lifetime,
                                       std::function<void()> stop) {
    return mSessions.emplace_back(family, lifetime, std::move(stop),
                                  [this](OutputEntry entry) { mWriter->write(std::move(entry)); });
}

ExitStatus AdapterRunner::await(FileWatcher* watch, const std::function<void()>& onChange) {
    bool readerIsGone = false;
    while (!hasEnded()) {
        mEvents.queue().wait({mSignals.fd(), watch ? watch->fd() : -1}, mWriter->redrawInterval());
        for (const SdkEvent& event : mEvents.queue().drain()) {
            handOut(event);
        }
        if (watch && watch->pollChange()) {
            onChange();
        }
        if (const auto signal = mSignals.next()) {
            askToStop(*signal);
        }
        if (mWriter->isBroken() && !readerIsGone) {
            readerIsGone = true;
            askToStop("closed output");
        }
        stopAfterFailure();
        mWriter->redraw();
    }
    const auto failed = std::find_if(mSessions.begin(), mSessions.end(),
                                     [](const TaskSession& each) { return *each.exitStatus() != kSucceeded; });
    const ExitStatus status = failed == mSessions.end() ? kSucceeded : *failed->exitStatus();
    OutputEntry entry;
    entry.fields = {{"event", "end"}, {"exitStatus", status}};
    mWriter->write(std::move(entry));
    return status;
}

void AdapterRunner::handOut(const SdkEvent& event) {
    if (const auto* line = std::get_if<LogEvent>(&event)) {
        mWriter->writeLog("[" + std::to_string(line->level) + "] " + line->file + ":" + std::to_string(line->line) +
                          " " + line->function + ": " + line->message);
        return;
    }
    for (TaskSession& session : mSessions) {
        session.on(event);
    }
}

void AdapterRunner::askToStop(const std::string& why) {
    for (TaskSession& session : mSessions) {
        session.onStopAsked(why);
    }
}

void AdapterRunner::stopAfterFailure() {
    for (const TaskSession& failed : mSessions) {
        if (failed.exitStatus().value_or(kSucceeded) == kSucceeded) {
            continue;
        }
        for (TaskSession& session : mSessions) {
            if (!session.isStopAsked()) {
                session.onStopAsked(std::string("the failure of the ") + failed.name());
            }
        }
    }
}

bool AdapterRunner::hasEnded() const {
    return std::all_of(mSessions.begin(), mSessions.end(),
                       [](const TaskSession& each) { return each.exitStatus().has_value(); });
}

}  // namespace vexalive
