// `vexalive relay`: starts a relay of the local user's stream to a CDN address and stops it on Ctrl-C.

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
    "Requests a relay of a room member's stream to a CDN address from the\n"
    "live-interface service. Shows each attempt (at most 11, with growing pauses),\n"
    "then waits until Ctrl-C or SIGTERM stops the relay. A second Ctrl-C aborts.";

constexpr const char* kRelayFooter =
    "The user signature and the map key are secrets. Every user of this machine can\n"
    "read command lines: set VEXALIVE_SIG and VEXALIVE_MAP_KEY instead of --sig and\n"
    "--map-key. The output never shows the secrets.\n"
    "\n"
    "VEXALIVE_SERVICE_HOST names the service, as host or host:port. If this machine\n"
    "does not trust the service's certificate, name its authority with --ca-file.\n"
    "\n"
    "Example: first paste the two export lines that `vexalive serve` prints\n"
    "  export VEXALIVE_SIG=... VEXALIVE_MAP_KEY=...\n"
    "  vexalive relay rtmp://cdn.example/live/main --sdk-app-id 1400000001 \\\n"
    "      --user alice --room 4711 --app-id 1250000000 --biz-id 3891\n"
    "\n"
    "Exit status: 0 the relay ran and was stopped, or runs detached; 1 refused by the\n"
    "service; 2 usage error; 3 no usable response; 130 aborted by a second Ctrl-C. If\n"
    "the start failed, it determines the status; otherwise the stop does.";

struct RelayOptions {
    explicit RelayOptions(CLI::App& command)
        : room(command),
          appId(command, "--app-id", "VEXALIVE_APP_ID", "the CDN app id, an integer other than 0"),
          bizId(command, "--biz-id", "VEXALIVE_BIZ_ID", "the CDN biz id, an integer other than 0") {
        command.add_option("URL", url, "The address to relay to, for example rtmp://cdn.example/live/main")
            ->type_name("");
    }

    std::string url;
    RoomOptions room;
    RequiredOption appId;
    RequiredOption bizId;
};

Result<int> runRelay(const RelayOptions& options) {
    using Limits = std::numeric_limits<int32_t>;
    if (options.url.empty()) {
        return failure("URL is missing: the address to relay to, for example rtmp://cdn.example/live/main");
    }
    const auto url = validateUrl("URL", options.url);
    if (!url) {
        return tl::unexpected(url.error());
    }
    const auto member = validate(options.room);
    if (!member) {
        return tl::unexpected(member.error());
    }
    const auto appId = options.appId.integer(Limits::min(), Limits::max());
    const auto bizId = options.bizId.integer(Limits::min(), Limits::max());
    if (!appId || !bizId) {
        return tl::unexpected(!appId ? appId.error() : bizId.error());
    }
    kstmedia::VexaPublishCDNParamInternal param;
    param.url = *url;
    param.appId = static_cast<int32_t>(*appId);
    param.bizId = static_cast<int32_t>(*bizId);

    const auto made = AdapterRunner::make(options.room, *member);
    if (!made) {
        return tl::unexpected(made.error());
    }
    AdapterRunner& runner = **made;
    OutputEntry entry =
        AdapterRunner::beginEntry(*member, "relay of " + member->user + " in room " + member->room + " to " + *url);
    entry.fields["url"] = param.url;
    entry.fields["appId"] = param.appId;
    entry.fields["bizId"] = param.bizId;
    runner.write(std::move(entry));

    LiveTranscodingAdapter& adapter = runner.adapter();
    runner.addSession(kRelayTask, lifetimeOf(options.room), [&adapter] { adapter.stopPublishStreamUrl(); })
        .start([&adapter, &param] { adapter.startPublishStreamUrl(param); });
    return runner.run();
}

}  // namespace

Command addRelayCommand(CLI::App& tool) {
    CLI::App* command = tool.add_subcommand("relay", kRelayDescription);
    command->footer(kRelayFooter);
    const auto options = std::make_shared<RelayOptions>(*command);
    return {command, [options] { return runRelay(*options); }};
}

}  // namespace vexalive
