#include <cstdint>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include "service/ServiceSnapshot.h"

namespace vexalive {

namespace {

using Labels = std::vector<std::pair<const char*, std::string>>;

// The stream of a relay, of a mix, or of one input of a relay or mix, with its metric labels.
struct LabelledStream {
    Labels labels;
    const StreamStatus& status;
};

struct Counter {
    uint64_t StreamStatus::*member;
    const char* name;
    const char* help;
};

constexpr Counter kCounters[] = {
    {&StreamStatus::bytes, "bytes_total", "Bytes of media received, or sent by a mix."},
    {&StreamStatus::frames, "frames_total", "Video frames; audio frames where there is no video."},
    {&StreamStatus::dropped, "dropped_frames_total", "Dropped frames."},
    {&StreamStatus::reconnects, "reconnects_total", "Connections after the first."},
};

std::string escapeLabel(const std::string& text) {
    std::string result;
    for (const char c : text) {
        result += c == '\n' ? "\\n" : c == '\\' || c == '"' ? std::string("\\") + c : std::string(1, c);
    }
    return result;
}

void addHead(std::ostringstream& text, const std::string& name, const char* type, const std::string& help) {
    text << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
}

void addSample(std::ostringstream& text, const std::string& name, const Labels& labels, uint64_t value) {
    text << name;
    const char* separator = "{";
    for (const auto& [label, content] : labels) {
        text << separator << label << "=\"" << escapeLabel(content) << '"';
        separator = ",";
    }
    text << (labels.empty() ? "" : "}") << ' ' << value << '\n';
}

// Adds one sample for each state: 1 for the current state, 0 for the others.
void addStates(std::ostringstream& text, const std::string& name, const Labels& labels, WorkerState state) {
    for (const WorkerState each : kWorkerStates) {
        Labels all = labels;
        all.emplace_back("state", nameOf(each));
        addSample(text, name, all, state == each ? 1 : 0);
    }
}

void addStreams(std::ostringstream& text, const std::string& prefix, const std::string& whose,
                const std::vector<LabelledStream>& streams) {
    addHead(text, prefix + "state", "gauge", "1 at the state of each " + whose + ".");
    for (const LabelledStream& each : streams) {
        addStates(text, prefix + "state", each.labels, each.status.state);
    }
    for (const Counter& counter : kCounters) {
        addHead(text, prefix + counter.name, "counter", counter.help);
        for (const LabelledStream& each : streams) {
            addSample(text, prefix + counter.name, each.labels, each.status.*counter.member);
        }
    }
}

}  // namespace

std::string metricsText(const ServiceSnapshot& snapshot) {
    std::vector<LabelledStream> outputs;
    std::vector<LabelledStream> inputs;
    std::vector<std::pair<Labels, uint64_t>> restarts;
    const auto collect = [&](const char* kind, const std::string& streamId, const std::optional<MediaSnapshot>& media) {
        if (!media) {
            return;
        }
        const Labels labels = {{"kind", kind}, {"stream_id", streamId}};
        outputs.push_back({labels, media->process.worker.output});
        restarts.emplace_back(labels, media->process.restarts);
        std::set<std::string> ids;  // a stream may be in a mix more than once
        for (const InputStatus& input : media->process.worker.inputs) {
            if (ids.insert(input.streamId).second) {
                Labels own = labels;
                own.emplace_back("input", input.streamId);
                inputs.push_back({own, input.stream});
            }
        }
    };
    uint64_t runningMixes = 0;
    for (const RelaySnapshot& relay : snapshot.relays) {
        collect("relay", relay.request.streamId, relay.media);
    }
    for (const MixSnapshot& mix : snapshot.mixes) {
        runningMixes += mix.isRunning ? 1 : 0;
        collect("mix", mix.request.streamId, mix.media);
    }

    std::ostringstream text;
    addHead(text, "vexalive_relays", "gauge", "Requested relays.");
    addSample(text, "vexalive_relays", {}, snapshot.relays.size());
    addHead(text, "vexalive_mixes", "gauge", "Requested mixes that are not cancelled.");
    addSample(text, "vexalive_mixes", {}, runningMixes);
    if (snapshot.origin) {
        addHead(text, "vexalive_origin_state", "gauge", "1 at the state of the origin.");
        addStates(text, "vexalive_origin_state", {}, snapshot.origin->process.worker.output.state);
        addHead(text, "vexalive_origin_restarts_total", "counter", "Times that the origin was started again.");
        addSample(text, "vexalive_origin_restarts_total", {}, snapshot.origin->process.restarts);
    }
    addStreams(text, "vexalive_media_", "relay and mix", outputs);
    addHead(text, "vexalive_media_restarts_total", "counter", "Times that a worker was started again.");
    for (const auto& [labels, count] : restarts) {
        addSample(text, "vexalive_media_restarts_total", labels, count);
    }
    addStreams(text, "vexalive_media_input_", "input of a relay or mix", inputs);
    return text.str();
}

}  // namespace vexalive
