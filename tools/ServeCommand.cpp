// `vexalive serve`: runs the local live-interface service and shows each request.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Clock.h"
#include "common/Result.h"
#include "common/Text.h"
#include "service/LiveService.h"
#include "tools/Command.h"
#include "tools/EventQueue.h"
#include "tools/ExitStatus.h"
#include "tools/Options.h"
#include "tools/OutputWriter.h"
#include "tools/Signals.h"

namespace vexalive {
namespace {

constexpr const char* kServeDescription =
    "Run a local live-interface service on this machine\n"
    "\n"
    "For development and tests: it checks every request strictly, reports which field\n"
    "is wrong, and stores the state of relays and mixes. With --media, it also relays\n"
    "and mixes streams. Prints two export lines for the programs that use it, then a\n"
    "line for each request, until Ctrl-C or SIGTERM.";

constexpr const char* kFaultHelp =
    "Inject a fault from the first request on; repeatable. Each request consumes one use of the first fault that "
    "applies to it. FAULT is one of status=CODE, code=CODE, delay=MS, empty, cut, garbage, huge[=BYTES] and close, "
    "then any of ,count=N (requests; 0: until cleared) ,delay_ms=MS ,interface=NAME and, with code, ,message=TEXT. For "
    "example status=503,count=2";

constexpr const char* kServeFooter =
    "Example: two failed requests first, then normal responses\n"
    "  vexalive serve --port 8443 --fault status=503,count=2\n"
    "\n"
    "Show the state of a running service:\n"
    "  curl --cacert \"$VEXALIVE_CA_FILE\" \"https://$VEXALIVE_SERVICE_HOST/state\"\n"
    "\n"
    "Exit status: 0 stopped by Ctrl-C or SIGTERM; 1 could not start; 2 wrong usage.";

constexpr size_t kMaxEntries = 1000;  // maximum number of entries that wait for a slow output

struct ServeOptions {
    LiveServiceOptions service;
    std::vector<std::string> faults;
    std::string port = "0";
    std::string consolePort = "0";
    bool json = false;
};

// Returns `text` as one word for a shell, quoted only if necessary.
std::string shellWord(const std::string& text) {
    const char* const plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./:[]@%+=,";
    if (text.find_first_not_of(plain) == std::string::npos) {
        return text;
    }
    std::string quoted = "'";
    for (const char c : text) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

OutputEntry listeningEntry(const LiveService& service) {
    OutputEntry entry;
    entry.fields = {{"event", "listening"}, {"service", service.address()}, {"caFile", service.caFile()}};
    entry.text = "live-interface service on https://" + service.address() + "; Ctrl-C stops it. In another terminal:";
    return entry;
}

OutputEntry consoleEntry(const LiveService& service) {
    const std::string url = "http://" + service.consoleAddress() + "/";
    OutputEntry entry;
    entry.fields = {{"event", "console"}, {"url", url}};
    entry.text = "console on " + url;
    return entry;
}

OutputEntry originEntry(const LiveService& service) {
    OutputEntry entry;
    entry.fields = {{"event", "origin"}, {"url", service.originAddress()}};
    entry.text = "members publish to " + service.originAddress() + "/live/ID; vexalive stream-id prints the ID";
    return entry;
}

OutputEntry exportEntry(const std::string& line) {
    OutputEntry entry;
    entry.fields = {{"event", "environment"}, {"line", line}};
    entry.text = line;
    return entry;
}

OutputEntry requestEntry(const LiveServiceEvent& event) {
    OutputEntry entry;
    entry.fields = {{"event", "request"},           {"interface", event.interfaceName},
                    {"operation", event.operation}, {"httpStatus", event.httpStatus},
                    {"code", event.code},           {"message", event.message},
                    {"field", event.field},         {"appId", event.appId},
                    {"streamId", event.streamId},   {"fault", event.fault}};
    std::string result;
    if (!event.operation.empty()) {
        result = event.operation + " accepted, stream " + event.streamId + " of app " + std::to_string(event.appId);
    } else if (event.fault.empty()) {
        result = "refused with code " + std::to_string(event.code) +
                 (event.field.empty() ? "" : ", field " + event.field) + ": " + event.message;
    }
    if (event.httpStatus == 0) {
        result = "closed without a response";
    } else if (result.empty()) {
        result = "HTTP status " + std::to_string(event.httpStatus);
        result += event.code == 0 ? "" : ", code " + std::to_string(event.code) + ": " + event.message;
    }
    result += event.fault.empty() ? "" : " (fault: " + event.fault + ")";
    entry.text = timeOfDay(kstf_getutctick()) + "  " + event.interfaceName + "  " + result;
    return entry;
}

OutputEntry mediaEntry(const LiveMediaEvent& event) {
    const std::string who = event.subject + (event.streamId.empty() ? "" : " " + event.streamId);
    const std::string restarts = event.restarts == 0 ? "" : " (restarts: " + std::to_string(event.restarts) + ")";
    OutputEntry entry;
    entry.text = timeOfDay(kstf_getutctick()) + "  ";
    switch (event.kind) {
        case LiveMediaEvent::Kind::kState:
            entry.fields = {{"event", "media"},     {"subject", event.subject}, {"streamId", event.streamId},
                            {"state", event.state}, {"error", event.text},      {"restarts", event.restarts}};
            entry.text += who + "  " + event.state + restarts + (event.text.empty() ? "" : ": " + event.text);
            break;
        case LiveMediaEvent::Kind::kLine:
            entry.fields = {
                {"event", "line"}, {"subject", event.subject}, {"streamId", event.streamId}, {"text", event.text}};
            entry.text += who + ": " + event.text;
            break;
        case LiveMediaEvent::Kind::kRefusedPublish:
            entry.fields = {{"event", "publish"}, {"streamId", event.streamId}, {"refused", event.text}};
            entry.text += "origin  publish refused: " + event.text;
            break;
    }
    return entry;
}

OutputEntry omissionEntry(uint64_t count) {
    OutputEntry entry;
    entry.fields = {{"event", "omitted"}, {"lines", count}};
    entry.text = "lines omitted because the output is too slow: " + std::to_string(count);
    return entry;
}

Result<uint16_t> parsePort(const char* option, const std::string& text) {
    const std::optional<int64_t> port = readInteger(text, 0, 65535);
    if (!port) {
        return failure(std::string(option) + " is \"" + printable(text) +
                       "\": must be an integer from 0, for a free port, to 65535");
    }
    return static_cast<uint16_t>(*port);
}

Result<int> runServe(ServeOptions options) {
    const Result<uint16_t> port = parsePort("--port", options.port);
    const Result<uint16_t> consolePort = parsePort("--console-port", options.consolePort);
    if (!port || !consolePort) {
        return tl::unexpected(port ? consolePort.error() : port.error());
    }
    options.service.port = *port;
    options.service.consolePort = *consolePort;
    if (!options.service.origin.empty() && !options.service.media) {
        return failure("--origin needs --media");
    }
    const auto writer = makeOutputWriter(chooseFormat(options.json, stdout), Secrets(), stdout, stderr);

    const auto queue = EventQueue<OutputEntry>::make(kMaxEntries);  // outlives the service, whose threads fill it
    auto signals = StopSignals::open();
    if (!queue || !signals) {
        return tl::unexpected(!queue ? queue.error() : signals.error());
    }
    EventQueue<OutputEntry>& entries = **queue;
    options.service.observer = [&entries](const LiveServiceEvent& event) { entries.push(requestEntry(event)); };
    options.service.mediaObserver = [&entries](const LiveMediaEvent& event) { entries.push(mediaEntry(event)); };
    const auto showAll = [&entries, &writer] {
        const uint64_t omitted = entries.drainDropped();
        for (OutputEntry& entry : entries.drain()) {
            writer->write(std::move(entry));
        }
        if (omitted > 0) {
            writer->write(omissionEntry(omitted));
        }
    };
    LiveService service(options.service);
    for (const std::string& text : options.faults) {
        const Result<void> added =
            parseFaultOption(text).and_then([&service](const Fault& fault) { return service.inject(fault); });
        if (!added) {
            return failure("--fault " + text + ": " + added.error().message);
        }
    }
    if (const Result<void> started = service.start(); !started) {
        std::fprintf(stderr, "vexalive serve: %s\n", printable(started.error().message).c_str());
        return kRefused;
    }
    writer->write(listeningEntry(service));
    writer->write(exportEntry("export VEXALIVE_SERVICE_HOST=" + shellWord(service.address())));
    writer->write(exportEntry("export VEXALIVE_CA_FILE=" + shellWord(service.caFile())));
    writer->write(consoleEntry(service));
    if (options.service.media) {
        writer->write(originEntry(service));
    }

    std::optional<std::string> signal;
    while (!signal) {
        entries.wait({signals->fd()});
        showAll();
        signal = signals->next();
    }
    service.stop();
    showAll();
    OutputEntry entry;
    entry.fields = {{"event", "stopped"}, {"why", *signal}};
    entry.text = "stopped on " + *signal;
    writer->write(std::move(entry));
    return kSucceeded;
}

}  // namespace

Command addServeCommand(CLI::App& tool) {
    CLI::App* command = tool.add_subcommand("serve", kServeDescription);
    command->footer(kServeFooter);
    const auto options = std::make_shared<ServeOptions>();
    command->add_option("--port", options->port, "The port to listen on; 0, the default, selects a free port")
        ->type_name("N");
    command->add_option("--address", options->service.address, "The address to listen on; by default 127.0.0.1")
        ->type_name("A");
    command
        ->add_option("--state-dir", options->service.stateFolder,
                     "The folder of the certificates; by default ~/.local/state/vexalive")
        ->type_name("DIR");
    command
        ->add_option("--push-domain", options->service.pushDomainSuffix,
                     "The suffix of push domains, after the biz id; or VEXALIVE_PUSH_DOMAIN")
        ->type_name("S");
    command->add_flag("--media", options->service.media,
                      "Carry out relays and mixes: start nginx as the origin that members publish to, and a worker for "
                      "each relay and each mix");
    command
        ->add_option("--origin", options->service.origin,
                     "With --media: use this running RTMP server, which has the applications live, mix and cdn, "
                     "instead of nginx")
        ->type_name("URL");
    command
        ->add_option("--console-port", options->consolePort,
                     "The port of 127.0.0.1 that serves the console, a web page; 0, the default, selects a free port")
        ->type_name("N");
    command->add_option("--fault", options->faults, kFaultHelp)->type_name("FAULT")->allow_extra_args(false);
    command->add_flag("--json", options->json, "Write one JSON object per line (docs/vexalive-tool.md lists them)");
    return {command, [options] { return runServe(*options); }};
}

}  // namespace vexalive
