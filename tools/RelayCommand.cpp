// `vexalive relay`: relays the local user's stream to an address until it is told to stop.

#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include "tools/AdapterRunner.h"
#include "tools/Command.h"

namespace vexalive {
namespace {

constexpr const char* kRelayDescription =
    "Relay a user's stream to a CDN address, until Ctrl-C\n"
    "\n"
    "Asks the live-interface service to relay the stream of a user who is in a room\n"
    "to a CDN address, shows each attempt (at most 11, at growing distances), and\n"
    "holds until Ctrl-C or SIGTERM, which stops the relay. A second one ends at once.";

constexpr const char* kRelayFooter =
    "The user signature and the map key are secrets. A command line can be read by\n"
    "every user of this machine, so set VEXALIVE_SIG and VEXALIVE_MAP_KEY instead of\n"
    "giving --sig and --map-key. They are never shown.\n"
    "\n"
    "The service is the one that VEXALIVE_SERVICE_HOST names, as host or host:port.\n"
    "If this machine does not trust its certificate, name the authority to trust.\n"
    "\n"
    "Example: after pasting the two lines that `vexalive serve` prints\n"
    "  export VEXALIVE_SIG=... VEXALIVE_MAP_KEY=...\n"
    "  vexalive relay rtmp://cdn.example/live/main --sdk-app-id 1400000001 \\\n"
    "      --user alice --room 4711 --app-id 1250000000 --biz-id 3891\n"
    "\n"
    "Exit status: 0 the relay ran and is stopped, or runs detached; 1 refused by the\n"
    "service; 2 wrong usage; 3 no usable answer; 130 ended by a second Ctrl-C. It is\n"
    "that of a start that failed, which needs no stop, else that of the stop.";

struct RelayOptions {
    explicit RelayOptions(CLI::App& command)
        : room(command),
          appId(command, "--app-id", "VEXALIVE_APP_ID", "the CDN app id, an integer that is not 0"),
          bizId(command, "--biz-id", "VEXALIVE_BIZ_ID", "the CDN biz id, an integer that is not 0") {
        command.add_option("URL", url, "Where the stream is relayed to, for example rtmp://cdn.example/live/main")
            ->type_name("");
    }

    std::string url;
    RoomOptions room;
    Setting appId;
    Setting bizId;
};

int runRelay(const RelayOptions& options) {
    constexpr int64_t kLowest = std::numeric_limits<int32_t>::min();
    constexpr int64_t kHighest = std::numeric_limits<int32_t>::max();
    if (options.url.empty()) {
        throw UsageError("URL is missing: where the stream is relayed to, for example rtmp://cdn.example/live/main");
    }
    kstmedia::VexaPublishCDNParamInternal param;
    param.url = checkUrl("URL", options.url);
    const RoomMember member = check(options.room);
    param.appId = static_cast<int32_t>(options.appId.integer(kLowest, kHighest));
    param.bizId = static_cast<int32_t>(options.bizId.integer(kLowest, kHighest));

    AdapterRunner run(options.room, member);
    OutputEntry entry =
        AdapterRunner::beginning(member, "relay of " + member.user + " in room " + member.room + " to " + param.url);
    entry.fields["url"] = param.url;
    entry.fields["appId"] = param.appId;
    entry.fields["bizId"] = param.bizId;
    run.show(std::move(entry));

    LiveTranscodingAdapter& adapter = run.adapter();
    run.addSession(kRelayFamily, lifetimeOf(options.room), [&adapter] { adapter.stopPublishStreamUrl(); })
        .start([&adapter, &param] { adapter.startPublishStreamUrl(param); });
    return run.await();
}

}  // namespace

Command addRelayCommand(CLI::App& tool) {
    CLI::App* command = tool.add_subcommand("relay", kRelayDescription);
    command->footer(kRelayFooter);
    const auto options = std::make_shared<RelayOptions>(*command);
    return {command, [options] { return runRelay(*options); }};
}

}  // namespace vexalive
