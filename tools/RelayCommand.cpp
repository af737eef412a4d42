// `vexalive relay`: relays the local user's stream to an address until it is told to stop.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <string>

#include "Com/LiveTranscodingAdapter.h"
#include "base/RetrySchedule.h"
#include "base/ServiceAddress.h"
#include "tools/Command.h"
#include "tools/ExitStatus.h"
#include "tools/Options.h"
#include "tools/RelaySession.h"
#include "tools/SdkEvents.h"
#include "tools/Signals.h"
#include "tools/StepView.h"

namespace vexalive {
namespace {

constexpr int kEveryLogLevel = 1;
constexpr int kWarningLogLevel = 3;

constexpr const char* kDescription =
    "Relay a user's stream to a CDN address, until Ctrl-C\n"
    "\n"
    "Asks the live-interface service to relay the stream of a user who is in a room\n"
    "to a CDN address, shows each attempt (at most 11, at growing distances), and\n"
    "holds until Ctrl-C or SIGTERM, which stops the relay. A second one ends at once.";

constexpr const char* kFooter =
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
        : sdkAppId(command, "--sdk-app-id", "VEXALIVE_SDK_APP_ID", "the SDK application id, a positive integer"),
          user(command, "--user", "VEXALIVE_USER", "the user whose stream is relayed, a text"),
          sig(command, "--sig", "VEXALIVE_SIG", "the user's signature, a secret text", Setting::kSecret),
          room(command, "--room", "VEXALIVE_ROOM", "the room that the user is in, a text"),
          mapKey(command, "--map-key", "VEXALIVE_MAP_KEY", "the room's private map key, a secret text",
                 Setting::kSecret),
          appId(command, "--app-id", "VEXALIVE_APP_ID", "the CDN app id, an integer that is not 0"),
          bizId(command, "--biz-id", "VEXALIVE_BIZ_ID", "the CDN biz id, an integer that is not 0") {
        command.add_option("URL", url, "Where the stream is relayed to, for example rtmp://cdn.example/live/main")
            ->type_name("");
        command.add_flag("--detach", detach, "Leave the relay running and exit once it runs");
        command.add_flag("--json", json, "Write one JSON object a line (docs/vexalive-tool.md lists them)");
        command.add_flag("--verbose", verbose, "Write the SDK's log lines to standard error");
        command.add_option("--ca-file", caFile, "Certificate authorities (PEM) to trust; or VEXALIVE_CA_FILE")
            ->type_name("FILE");
    }

    std::string url;
    Setting sdkAppId;
    Setting user;
    Setting sig;
    Setting room;
    Setting mapKey;
    Setting appId;
    Setting bizId;
    bool detach = false;
    bool json = false;
    bool verbose = false;
    std::string caFile;
};

// What the options come to, each checked.
struct RelayRequest {
    int32_t sdkAppId;
    std::string user;
    std::string sig;
    std::string room;
    std::string mapKey;
    kstmedia::VexaPublishCDNParamInternal param;
};

bool hasScheme(const std::string& url) {
    const size_t colon = url.find("://");
    const auto isSchemeCharacter = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' || c == '-' ||
               c == '.';
    };
    return colon != std::string::npos && colon > 0 && colon + 3 < url.size() &&
           std::all_of(url.begin(), url.begin() + static_cast<std::ptrdiff_t>(colon), isSchemeCharacter);
}

RelayRequest check(const RelayOptions& options) {
    constexpr int64_t kLowest = std::numeric_limits<int32_t>::min();
    constexpr int64_t kHighest = std::numeric_limits<int32_t>::max();
    if (options.url.empty()) {
        throw UsageError("URL is missing: where the stream is relayed to, for example rtmp://cdn.example/live/main");
    }
    if (!hasScheme(options.url)) {
        throw UsageError("URL is \"" + printable(options.url) +
                         "\": must be an address with its scheme, for example rtmp://cdn.example/live/main");
    }
    RelayRequest request;
    request.sdkAppId = static_cast<int32_t>(options.sdkAppId.integer(1, kHighest));
    request.user = options.user.text();
    request.sig = options.sig.text();
    request.room = options.room.text();
    request.mapKey = options.mapKey.text();
    request.param.appId = static_cast<int32_t>(options.appId.integer(kLowest, kHighest));
    request.param.bizId = static_cast<int32_t>(options.bizId.integer(kLowest, kHighest));
    request.param.url = options.url;
    if (!options.caFile.empty() && !std::ifstream(options.caFile)) {
        throw UsageError("--ca-file is \"" + printable(options.caFile) + "\": must be a file that can be read");
    }
    return request;
}

// The adapter puts both into the request's address as they stand, so what no address can hold fails there.
void warnOfSecret(const char* option, const std::string& secret) {
    const bool isSafe = std::all_of(secret.begin(), secret.end(), [](char c) { return c > ' ' && c < 0x7f; });
    if (!isSafe || secret.find_first_of("&#%") != std::string::npos) {
        std::fprintf(stderr,
                     "vexalive relay: warning: %s holds a character that means something else, or nothing, in the "
                     "address of a request (a blank, control character, &, #, %% or one that is not ASCII)\n",
                     option);
    }
}

void warnOfDefaultService() {
    const char* host = std::getenv("VEXALIVE_SERVICE_HOST");
    if (!host || !*host) {
        std::fprintf(
            stderr, "vexalive relay: warning: VEXALIVE_SERVICE_HOST is not set, so the built-in default is asked: %s\n",
            kstf_get_live_service_host());
    }
}

Step beginning(const RelayRequest& request) {
    Step step;
    step.fields = {{"event", "begin"},
                   {"service", kstf_get_live_service_host()},
                   {"url", request.param.url},
                   {"sdkAppId", request.sdkAppId},
                   {"user", request.user},
                   {"room", request.room},
                   {"appId", request.param.appId},
                   {"bizId", request.param.bizId},
                   {"attempts", kRetryBudget + 1}};
    step.text = "relay of " + request.user + " in room " + request.room + " to " + request.param.url +
                ", asked of https://" + kstf_get_live_service_host();
    return step;
}

int runRelay(const RelayOptions& options) {
    const RelayRequest request = check(options);
    warnOfDefaultService();
    warnOfSecret(options.sig.option(), request.sig);
    warnOfSecret(options.mapKey.option(), request.mapKey);

    Secrets secrets;
    secrets.add(request.sig);
    secrets.add(request.mapKey);
    const auto view = makeStepView(chooseForm(options.json, stdout), std::move(secrets), stdout, stderr);
    view->show(beginning(request));

    if (!options.caFile.empty()) {
        HttpOptions http;
        http.caFile = options.caFile;
        setHttpOptions(http);
    }
    SdkEvents events(options.verbose ? kEveryLogLevel : kWarningLogLevel);
    StopSignals signals;

    const auto adapter = std::make_shared<LiveTranscodingAdapter>();
    adapter->setLiveTranscodingDelegate(events.listener());
    adapter->updateUserInfo(request.sdkAppId, request.sig, request.user);
    adapter->updateEnterRoomInfo(request.room, request.mapKey);
    adapter->startPublishStreamUrl(request.param);

    RelaySession session(
        options.detach, [&adapter] { adapter->stopPublishStreamUrl(); },
        [&view](Step step) { view->show(std::move(step)); }, [&view](const std::string& line) { view->log(line); });
    bool readerIsGone = false;
    while (!session.exitStatus()) {
        events.mailbox().wait(signals, view->redrawInterval());
        for (const SdkEvent& event : events.mailbox().takeAll()) {
            session.on(event);
        }
        if (const auto signal = signals.take()) {
            session.onStopAsked(*signal);
        }
        if (view->isBroken() && !readerIsGone) {
            readerIsGone = true;
            session.onStopAsked("closed output");
        }
        view->redraw();
    }
    return *session.exitStatus();
}

}  // namespace

Command addRelayCommand(CLI::App& tool) {
    CLI::App* command = tool.add_subcommand("relay", kDescription);
    command->footer(kFooter);
    const auto options = std::make_shared<RelayOptions>(*command);
    return {command, [options] { return runRelay(*options); }};
}

}  // namespace vexalive
