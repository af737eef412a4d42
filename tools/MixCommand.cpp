// `vexalive mix`: starts the mix that a file describes and cancels it on Ctrl-C.

#include <cstddef>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/Text.h"
#include "tools/AdapterRunner.h"
#include "tools/Command.h"
#include "tools/mix/MixFile.h"
#include "tools/mix/MixValidation.h"

namespace vexalive {
namespace {

constexpr const char* kMixDescription =
    "Mix the streams that a file describes, until Ctrl-C\n"
    "\n"
    "Requests a mix of the streams of several users into one output stream from the\n"
    "live-interface service. Shows each attempt (at most 11, with growing pauses),\n"
    "then waits until Ctrl-C or SIGTERM cancels the mix. A second Ctrl-C aborts.";

constexpr const char* kMixFooter =
    "FILE is a mix configuration in JSON; docs/mix-file.md describes the format, and\n"
    "`vexalive preview FILE -o layout.svg` draws it. If FILE is invalid or refused by\n"
    "the adapter, nothing is sent. With --watch, FILE is read again each time it is\n"
    "saved and sent as an update. If the new FILE is invalid, the running mix does\n"
    "not change; if the mix could not be started, the next valid FILE starts it.\n"
    "\n"
    "With --relay, the user's own stream is relayed to URL at the same time, with the\n"
    "CDN app id and biz id of FILE. If one of the two fails, the other is stopped.\n"
    "\n"
    "The user signature and the map key are secrets. Every user of this machine can\n"
    "read command lines: set VEXALIVE_SIG and VEXALIVE_MAP_KEY instead of --sig and\n"
    "--map-key. The output never shows the secrets.\n"
    "\n"
    "VEXALIVE_SERVICE_HOST names the service, as host or host:port. If this machine\n"
    "does not trust the service's certificate, name its authority with --ca-file.\n"
    "\n"
    "Example: first paste the two export lines that `vexalive serve` prints\n"
    "  export VEXALIVE_SIG=... VEXALIVE_MAP_KEY=...\n"
    "  vexalive mix layout.json --watch --sdk-app-id 1400000001 --user alice \\\n"
    "      --room 4711\n"
    "\n"
    "Exit status: 0 the mix ran and was cancelled, or runs detached; 1 refused by the\n"
    "service; 2 usage error, or FILE is invalid or refused by the adapter; 3 no\n"
    "usable response; 130 aborted by a second Ctrl-C. If the start failed, it\n"
    "determines the status; otherwise the cancel does, and if that succeeded, the\n"
    "relay.";

struct MixOptions {
    explicit MixOptions(CLI::App& command) : room(command) {
        command.add_option("FILE", file, "The mix configuration, in JSON (see docs/mix-file.md)")->type_name("");
        command.add_flag("--watch", watch, "Send FILE as an update each time it is saved");
        command.add_option("--relay", relayUrl, "Also relay the user's own stream to this address")->type_name("URL");
    }

    std::string file;
    bool watch = false;
    std::string relayUrl;
    RoomOptions room;
};

// The content of a mix file that the adapter accepts.
struct ValidMix {
    kstmedia::VexaTranscodingConfigInternal config;
    std::vector<std::string> warnings;
};

// Each error is one line for the output. It may contain control characters.
Result<ValidMix, std::vector<std::string>> loadMix(const std::string& path) {
    const MixFileResult config = readMixFile(path);
    std::vector<std::string> errors;
    if (!config) {
        for (const MixFileError& error : config.error()) {
            errors.push_back(describe(path, error));
        }
        return tl::unexpected(std::move(errors));
    }
    ValidMix mix = {*config, {}};
    for (const MixDiagnostic& diagnostic : validateMix(*config)) {
        if (diagnostic.severity == MixDiagnostic::kError) {
            errors.push_back(path + ": the adapter would refuse it: " + describe(diagnostic));
        } else {
            mix.warnings.push_back(path + ": warning: " + describe(diagnostic));
        }
    }
    if (!errors.empty()) {
        return tl::unexpected(std::move(errors));
    }
    return mix;
}

std::string inputCount(const ValidMix& mix) {
    const size_t inputs = mix.config.mixUsersArray.size();
    return std::to_string(inputs) + (inputs == 1 ? " input" : " inputs");
}

class MixRunner {
public:
    MixRunner(const MixOptions& options, AdapterRunner& runner) : mOptions(options), mRunner(runner) {}

    ExitStatus run(const RoomMember& member, const ValidMix& mix, FileWatcher* watcher) {
        writeBegin(member, mix);
        LiveTranscodingAdapter& adapter = mRunner.adapter();
        TaskSession& session =
            mRunner.addSession(kMixTask, watcher ? TaskSession::Lifetime::kWatched : lifetimeOf(mOptions.room),
                               [&adapter] { adapter.stopLiveMixTranscoding(); });
        kstmedia::VexaPublishCDNParamInternal relay;
        if (!mOptions.relayUrl.empty()) {
            relay.appId = mix.config.appId;
            relay.bizId = mix.config.bizId;
            relay.url = mOptions.relayUrl;
            mRunner.addSession(kRelayTask, lifetimeOf(mOptions.room), [&adapter] { adapter.stopPublishStreamUrl(); })
                .start([&adapter, &relay] { adapter.startPublishStreamUrl(relay); });
        }
        send(session, mix);
        return mRunner.run(watcher, [this, &session] { onFileSaved(session); });
    }

private:
    void writeBegin(const RoomMember& member, const ValidMix& mix) {
        OutputEntry entry =
            AdapterRunner::beginEntry(member, "mix of " + inputCount(mix) + " by " + member.user + " in room " +
                                                  member.room + ", file " + mOptions.file);
        entry.fields["file"] = mOptions.file;
        entry.fields["appId"] = mix.config.appId;
        entry.fields["bizId"] = mix.config.bizId;
        entry.fields["inputs"] = mix.config.mixUsersArray.size();
        entry.fields["warnings"] = mix.warnings;
        entry.details = mix.warnings;
        mRunner.write(std::move(entry));
    }

    void onFileSaved(TaskSession& session) {
        const auto mix = loadMix(mOptions.file);
        OutputEntry entry;
        if (!mix) {
            entry.fields = {{"event", "rejected"}, {"file", mOptions.file}, {"errors", mix.error()}};
            entry.text = mOptions.file + " was saved but is not sent; the mix does not change";
            entry.details = mix.error();
            mRunner.write(std::move(entry));
            return;
        }
        entry.fields = {{"event", "changed"},
                        {"file", mOptions.file},
                        {"inputs", mix->config.mixUsersArray.size()},
                        {"warnings", mix->warnings}};
        entry.text = mOptions.file + " was saved, with " + inputCount(*mix);
        entry.details = mix->warnings;
        mRunner.write(std::move(entry));
        send(session, *mix);
    }

    void send(TaskSession& session, const ValidMix& mix) {
        session.start([&adapter = mRunner.adapter(), config = mix.config] { adapter.setLiveMixTranscoding(config); });
    }

    const MixOptions& mOptions;
    AdapterRunner& mRunner;
};

Result<int> runMix(const MixOptions& options) {
    if (options.file.empty()) {
        return failure("FILE is missing: a mix configuration in JSON");
    }
    if (options.watch && options.room.detach) {
        return failure("--watch and --detach exclude each other");
    }
    if (!options.relayUrl.empty()) {
        if (const auto url = validateUrl("--relay", options.relayUrl); !url) {
            return tl::unexpected(url.error());
        }
    }
    const auto member = validate(options.room);
    if (!member) {
        return tl::unexpected(member.error());
    }
    std::optional<FileWatcher> watcher;  // created before the file is read, so that no change is missed
    if (options.watch) {
        Result<FileWatcher> watched = FileWatcher::watch(options.file);
        if (!watched) {
            return failure("FILE is \"" + printable(options.file) + "\": " + watched.error().message);
        }
        watcher = std::move(*watched);
    }
    const auto mix = loadMix(options.file);
    if (!mix) {
        for (const std::string& error : mix.error()) {
            std::fprintf(stderr, "%s\n", printable(error).c_str());
        }
        return kUsage;
    }
    const auto runner = AdapterRunner::make(options.room, *member);
    if (!runner) {
        return tl::unexpected(runner.error());
    }
    return MixRunner(options, **runner).run(*member, *mix, watcher ? &*watcher : nullptr);
}

}  // namespace

Command addMixCommand(CLI::App& tool) {
    CLI::App* command = tool.add_subcommand("mix", kMixDescription);
    command->footer(kMixFooter);
    const auto options = std::make_shared<MixOptions>(*command);
    return {command, [options] { return runMix(*options); }};
}

}  // namespace vexalive
