// `vexalive serve`: runs the local live-interface service and shows each request.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Clock.h"
#include "common/Text.h"
#include "service/LiveService.h"
#include "tools/Command.h"
#include "tools/EventQueue.h"
#include "tools/ExitStatus.h"
#include "tools/FaultOption.h"
#include "tools/Options.h"
#include "tools/OutputWriter.h"
#include "tools/Signals.h"

namespace vexalive {
namespace {

constexpr const char* kServeDescription =
    "Run a live-interface service of your own on this machine\n"
    "\n"
    "A copy of the live-interface service to develop and test against: it checks\n"
    "every request strictly, says which field is wrong, and keeps the state of relays\n"
    "and mixes; with --media it carries them out. Prints the two lines that point\n"
    "programs at it, then a line for each request, until Ctrl-C or SIGTERM.";

constexpr const char* kServeFooter =
    "Example: two failures first, then true answers\n"
    "  vexalive serve --port 8443 --fault status=503,count=2\n"
    "\n"
    "While it runs, its state is at hand over HTTPS:\n"
    "  curl --cacert \"$VEXALIVE_CA_FILE\" \"https://$VEXALIVE_SERVICE_HOST/state\"\n"
    "\n"
    "Exit status: 0 stopped by Ctrl-C or SIGTERM; 1 could not start; 2 wrong usage.";

constexpr size_t kMaxEntries = 1000;  // that wait for an output that is stuck

struct ServeOptions {
    LiveServiceOptions service;
    std::vector<std::string> faults;
    std::string port = "0";
    std::string consolePort = "0";
    bool json = false;
};

// As a shell takes it, in quotes only where it needs them.
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

OutputEntry listening(const LiveService& service) {
    OutputEntry entry;
    entry.fields = {{"event", "listening"}, {"service", service.address()}, {"caFile", service.caFile()}};
    entry.text = "live-interface service on https://" + service.address() + ", its certificate authority in " +
                 service.caFile() + "; Ctrl-C stops it. Paste into another terminal:";
    return entry;
}

OutputEntry consoleLine(const LiveService& service) {
    const std::string url = "http://" + service.consoleAddress() + "/";
    OutputEntry entry;
    entry.fields = {{"event", "console"}, {"url", url}};
    entry.text = "console on " + url;
    return entry;
}

OutputEntry originLine(const LiveService& service) {
    OutputEntry entry;
    entry.fields = {{"event", "origin"}, {"url", service.originAddress()}};
    entry.text = "members publish to " + service.originAddress() + "/live/ID; vexalive stream-id prints the ID";
    return entry;
}

OutputEntry exportLine(const std::string& line) {
    OutputEntry entry;
    entry.fields = {{"event", "environment"}, {"line", line}};
    entry.text = line;
    return entry;
}

OutputEntry answered(const LiveServiceEvent& event) {
    OutputEntry entry;
    entry.fields = {{"event", "request"},           {"interface", event.interfaceName},
                    {"operation", event.operation}, {"httpStatus", event.httpStatus},
                    {"code", event.code},           {"message", event.message},
                    {"field", event.field},         {"appId", event.appId},
                    {"streamId", event.streamId},   {"fault", event.fault}};
    std::string answer;
    if (!event.operation.empty()) {
        answer = event.operation + " accepted, stream " + event.streamId + " of app " + std::to_string(event.appId);
    } else if (event.fault.empty()) {
        answer = "refused with code " + std::to_string(event.code) +
                 (event.field.empty() ? "" : ", field " + event.field) + ": " + event.message;
    }
    if (event.httpStatus == 0) {
        answer = "closed without an answer";
    } else if (answer.empty()) {
        answer = "HTTP status " + std::to_string(event.httpStatus);
        answer += event.code == 0 ? "" : ", code " + std::to_string(event.code) + ": " + event.message;
    }
    answer += event.fault.empty() ? "" : " (fault: " + event.fault + ")";
    entry.text = timeOfDay(kstf_getutctick()) + "  " + event.interfaceName + "  " + answer;
    return entry;
}

OutputEntry happened(const LiveMediaEvent& event) {
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
            entry.text += who + "  says: " + event.text;
            break;
        case LiveMediaEvent::Kind::kRefusedPublish:
            entry.fields = {{"event", "publish"}, {"streamId", event.streamId}, {"refused", event.text}};
            entry.text += "origin  publish refused: " + event.text;
            break;
    }
    return entry;
}

OutputEntry omission(uint64_t count) {
    OutputEntry entry;
    entry.fields = {{"event", "omitted"}, {"lines", count}};
    entry.text = "lines left out here, which came faster than this output took them: " + std::to_string(count);
    return entry;
}

uint16_t readPort(const char* option, const std::string& text) {
    const std::optional<int64_t> port = readInteger(text, 0, 65535);
    if (!port) {
        throw UsageError(std::string(option) + " is \"" + printable(text) +
                         "\": must be an integer from 0, for a free port, to 65535");
    }
    return static_cast<uint16_t>(*port);
}

int runServe(ServeOptions options) {
    options.service.port = readPort("--port", options.port);
    options.service.consolePort = readPort("--console-port", options.consolePort);
    if (!options.service.origin.empty() && !options.service.media) {
        throw UsageError("--origin is for --media only");
    }
    std::vector<Fault> faults;
    for (const std::string& text : options.faults) {
        faults.push_back(readFault(text));
    }
    const auto writer = makeOutputWriter(chooseFormat(options.json, stdout), Secrets(), stdout, stderr);

    EventQueue<OutputEntry> entries(kMaxEntries);  // outlives the service, whose threads fill it
    options.service.observer = [&entries](const LiveServiceEvent& event) { entries.push(answered(event)); };
    options.service.mediaObserver = [&entries](const LiveMediaEvent& event) { entries.push(happened(event)); };
    const auto showAll = [&entries, &writer] {
        const uint64_t omitted = entries.drainDropped();
        for (OutputEntry& entry : entries.drain()) {
            writer->write(std::move(entry));
        }
        if (omitted > 0) {
            writer->write(omission(omitted));
        }
    };
    StopSignals signals;
    LiveService service(options.service);
    for (size_t i = 0; i < faults.size(); ++i) {
        const std::string refusal = service.inject(faults[i]);
        if (!refusal.empty()) {
            throw UsageError("--fault " + options.faults[i] + ": " + refusal);
        }
    }
    if (!service.start()) {
        std::fprintf(stderr, "vexalive serve: %s\n", printable(service.error()).c_str());
        return kRefused;
    }
    writer->write(listening(service));
    writer->write(exportLine("export VEXALIVE_SERVICE_HOST=" + shellWord(service.address())));
    writer->write(exportLine("export VEXALIVE_CA_FILE=" + shellWord(service.caFile())));
    writer->write(consoleLine(service));
    if (options.service.media) {
        writer->write(originLine(service));
    }

    std::optional<std::string> signal;
    while (!signal) {
        entries.wait({signals.fd()});
        showAll();
        signal = signals.next();
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
    command->add_option("--port", options->port, "The port to listen on; 0, the default, takes a free one")
        ->type_name("N");
    command->add_option("--address", options->service.address, "The address to listen on; by default 127.0.0.1")
        ->type_name("A");
    command
        ->add_option("--state-dir", options->service.stateFolder,
                     "Where the certificates are kept; by default ~/.local/state/vexalive")
        ->type_name("DIR");
    command
        ->add_option("--push-domain", options->service.pushDomainSuffix,
                     "What has to follow the biz id in push domains; or VEXALIVE_PUSH_DOMAIN")
        ->type_name("S");
    command->add_flag("--media", options->service.media,
                      "Relay and mix in truth: start nginx as the origin that members publish to, and a worker for "
                      "each relay and each mix");
    command
        ->add_option("--origin", options->service.origin,
                     "With --media: an RTMP server that is running, with applications live, mix and cdn; starts none")
        ->type_name("URL");
    command
        ->add_option("--console-port", options->consolePort,
                     "The port of 127.0.0.1 that serves the console, a web page; 0, the default, takes a free one")
        ->type_name("N");
    command->add_option("--fault", options->faults, kFaultHelp)->type_name("WHAT")->allow_extra_args(false);
    command->add_flag("--json", options->json, "Write one JSON object a line (docs/vexalive-tool.md lists them)");
    return {command, [options] { return runServe(*options); }};
}

}  // namespace vexalive
