// `vexalive mix`: mixes the streams that a file names until it is told to stop.

#include <cstddef>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "tools/AdapterRunner.h"
#include "tools/Command.h"
#include "tools/mix/MixFile.h"
#include "tools/mix/MixJudgement.h"

namespace vexalive {
namespace {

constexpr const char* kMixDescription =
    "Mix the streams that a file names, until Ctrl-C\n"
    "\n"
    "Asks the live-interface service to mix the streams of several users into one\n"
    "output stream, as FILE says, shows each attempt (at most 11, at growing\n"
    "distances), and holds until Ctrl-C or SIGTERM, which cancels the mix. A second\n"
    "one ends at once.";

constexpr const char* kMixFooter =
    "FILE is a mix configuration in JSON; docs/mix-file.md tells the format, and\n"
    "`vexalive preview FILE -o layout.svg` draws it. Nothing is sent of a file that\n"
    "has a mistake or that the adapter would refuse. With --watch, each time FILE is\n"
    "saved it is read again and sent as an update; a mix that runs is left alone if\n"
    "the new file cannot be sent, and a mix that could not be started may be mended.\n"
    "\n"
    "With --relay, the user's own stream is relayed to URL at the same time, for the\n"
    "CDN app and biz id of FILE. If one of the two fails, the other is stopped.\n"
    "\n"
    "The user signature and the map key are secrets. A command line can be read by\n"
    "every user of this machine, so set VEXALIVE_SIG and VEXALIVE_MAP_KEY instead of\n"
    "giving --sig and --map-key. They are never shown.\n"
    "\n"
    "The service is the one that VEXALIVE_SERVICE_HOST names, as host or host:port.\n"
    "If this machine does not trust its certificate, name the authority to trust.\n"
    "\n"
    "Example: after pasting the two lines that `vexalive serve` prints\n"
    "  export VEXALIVE_SIG=... VEXALIVE_MAP_KEY=...\n"
    "  vexalive mix layout.json --watch --sdk-app-id 1400000001 --user alice \\\n"
    "      --room 4711\n"
    "\n"
    "Exit status: 0 the mix ran and is cancelled, or runs detached; 1 refused by the\n"
    "service; 2 wrong usage, or FILE cannot be sent; 3 no usable answer; 130 ended by\n"
    "a second Ctrl-C. It is that of a start that failed, which needs no cancel, else\n"
    "that of the cancel; if all went well with the mix, that of the relay.";

struct MixOptions {
    explicit MixOptions(CLI::App& command) : room(command) {
        command.add_option("FILE", file, "The mix configuration (docs/mix-file.md tells the format)")->type_name("");
        command.add_flag("--watch", watch, "Send FILE again, as an update, each time it is saved");
        command.add_option("--relay", relayUrl, "Relay the user's own stream there, too")->type_name("URL");
    }

    std::string file;
    bool watch = false;
    std::string relayUrl;
    RoomOptions room;
};

// A mix file as it was saved at one time.
struct SavedMix {
    explicit SavedMix(const std::string& path) : reading(readMixFile(path)) {
        for (const MixMistake& mistake : reading.mistakes) {
            mistakes.push_back(describe(path, mistake));
        }
        if (mistakes.empty()) {
            for (const MixRemark& remark : judgeMix(reading.config)) {
                const bool isRefusal = remark.kind == MixRemark::kRefusal;
                (isRefusal ? mistakes : warnings)
                    .push_back(path + ": " + (isRefusal ? "the adapter would refuse it: " : "warning: ") +
                               describe(remark));
            }
        }
    }

    MixReading reading;
    std::vector<std::string> mistakes;  // in words; if there are any, it is not sent
    std::vector<std::string> warnings;
};

std::string inputsOf(const SavedMix& mix) {
    const size_t inputs = mix.reading.config.mixUsersArray.size();
    return std::to_string(inputs) + (inputs == 1 ? " input" : " inputs");
}

class MixRun {
public:
    MixRun(const MixOptions& options, const RoomMember& member) : mOptions(options), mRun(options.room, member) {}

    ExitStatus run(const RoomMember& member, const SavedMix& mix, FileWatcher* watch) {
        begin(member, mix);
        LiveTranscodingAdapter& adapter = mRun.adapter();
        TaskSession& session =
            mRun.addSession(kMixFamily, watch ? TaskSession::Lifetime::kWatched : lifetimeOf(mOptions.room),
                            [&adapter] { adapter.stopLiveMixTranscoding(); });
        kstmedia::VexaPublishCDNParamInternal relay;
        if (!mOptions.relayUrl.empty()) {
            relay.appId = mix.reading.config.appId;
            relay.bizId = mix.reading.config.bizId;
            relay.url = mOptions.relayUrl;
            mRun.addSession(kRelayFamily, lifetimeOf(mOptions.room), [&adapter] { adapter.stopPublishStreamUrl(); })
                .start([&adapter, &relay] { adapter.startPublishStreamUrl(relay); });
        }
        send(session, mix);
        return mRun.await(watch, [this, &session] { pollChange(session); });
    }

private:
    void begin(const RoomMember& member, const SavedMix& mix) {
        OutputEntry entry = AdapterRunner::beginning(member, "mix of " + inputsOf(mix) + " by " + member.user +
                                                                 " in room " + member.room + ", from " + mOptions.file);
        entry.fields["file"] = mOptions.file;
        entry.fields["appId"] = mix.reading.config.appId;
        entry.fields["bizId"] = mix.reading.config.bizId;
        entry.fields["inputs"] = mix.reading.config.mixUsersArray.size();
        entry.fields["warnings"] = mix.warnings;
        entry.details = mix.warnings;
        mRun.show(std::move(entry));
    }

    void pollChange(TaskSession& session) {
        const SavedMix mix(mOptions.file);
        OutputEntry entry;
        if (mix.mistakes.empty()) {
            entry.fields = {{"event", "changed"},
                            {"file", mOptions.file},
                            {"inputs", mix.reading.config.mixUsersArray.size()},
                            {"warnings", mix.warnings}};
            entry.text = mOptions.file + " is saved, with " + inputsOf(mix);
            entry.details = mix.warnings;
            mRun.show(std::move(entry));
            send(session, mix);
        } else {
            entry.fields = {{"event", "rejected"}, {"file", mOptions.file}, {"mistakes", mix.mistakes}};
            entry.text = mOptions.file + " is saved, but not sent; the mix is left as it is";
            entry.details = mix.mistakes;
            mRun.show(std::move(entry));
        }
    }

    void send(TaskSession& session, const SavedMix& mix) {
        session.start(
            [&adapter = mRun.adapter(), config = mix.reading.config] { adapter.setLiveMixTranscoding(config); });
    }

    const MixOptions& mOptions;
    AdapterRunner mRun;
};

int runMix(const MixOptions& options) {
    if (options.file.empty()) {
        throw UsageError("FILE is missing: a mix configuration in JSON");
    }
    if (options.watch && options.room.detach) {
        throw UsageError("--watch cannot be given together with --detach: one holds on, the other does not");
    }
    if (!options.relayUrl.empty()) {
        checkUrl("--relay", options.relayUrl);
    }
    const RoomMember member = check(options.room);
    std::optional<FileWatcher> watch;  // before the first look at the file, so that no change is missed
    if (options.watch) {
        try {
            watch.emplace(options.file);
        } catch (const std::system_error& error) {
            throw UsageError("FILE is \"" + printable(options.file) + "\": " + error.what());
        }
    }
    const SavedMix mix(options.file);
    if (!mix.mistakes.empty()) {
        for (const std::string& mistake : mix.mistakes) {
            std::fprintf(stderr, "%s\n", printable(mistake).c_str());
        }
        return kUsage;
    }
    return MixRun(options, member).run(member, mix, watch ? &*watch : nullptr);
}

}  // namespace

Command addMixCommand(CLI::App& tool) {
    CLI::App* command = tool.add_subcommand("mix", kMixDescription);
    command->footer(kMixFooter);
    const auto options = std::make_shared<MixOptions>(*command);
    return {command, [options] { return runMix(*options); }};
}

}  // namespace vexalive
