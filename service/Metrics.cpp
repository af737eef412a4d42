#include "service/Metrics.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include "service/WorkerStatus.h"

namespace vexalive {

using nlohmann::ordered_json;

namespace {

using Labels = std::vector<std::pair<const char*, std::string>>;

// One thing that counts: a relay, a mix, or an input of one.
struct Counted {
    Labels labels;
    const ordered_json& media;
};

struct Counter {
    const char* key;  // in the state
    const char* name;
    const char* help;
};

constexpr Counter kCounters[] = {
    {"bytes", "bytes_total", "Bytes of media received, or sent by a mix."},
    {"frames", "frames_total", "Video frames; audio frames where there is no video."},
    {"dropped", "dropped_frames_total", "Frames thrown away."},
    {"reconnects", "reconnects_total", "Connections after the first."},
};

std::string escaped(const std::string& text) {
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
        text << separator << label << "=\"" << escaped(content) << '"';
        separator = ",";
    }
    text << (labels.empty() ? "" : "}") << ' ' << value << '\n';
}

// One sample for each state, of which one is 1.
void addStates(std::ostringstream& text, const std::string& name, const Labels& labels, const std::string& state) {
    for (const WorkerState each : kWorkerStates) {
        Labels all = labels;
        all.emplace_back("state", nameOf(each));
        addSample(text, name, all, state == nameOf(each) ? 1 : 0);
    }
}

void addAll(std::ostringstream& text, const std::string& prefix, const std::string& whose,
            const std::vector<Counted>& all) {
    addHead(text, prefix + "state", "gauge", "1 at the state of each " + whose + ".");
    for (const Counted& each : all) {
        addStates(text, prefix + "state", each.labels, each.media["state"]);
    }
    for (const Counter& counter : kCounters) {
        addHead(text, prefix + counter.name, "counter", counter.help);
        for (const Counted& each : all) {
            addSample(text, prefix + counter.name, each.labels, each.media[counter.key]);
        }
    }
}

}  // namespace

std::string metricsOf(const ordered_json& state) {
    std::ostringstream text;
    std::vector<Counted> workers;
    std::vector<Counted> inputs;
    uint64_t mixes = 0;
    const auto collect = [&](const char* kind, const std::string& streamId, const ordered_json& media) {
        if (media.is_null()) {
            return;
        }
        const Labels labels = {{"kind", kind}, {"stream_id", streamId}};
        workers.push_back({labels, media});
        std::set<std::string> seen;  // a stream may be in a mix more than once
        for (const ordered_json& input : media["inputs"]) {
            Labels own = labels;
            own.emplace_back("input", input["stream_id"].get<std::string>());
            if (seen.insert(own.back().second).second) {
                inputs.push_back({own, input});
            }
        }
    };
    for (const ordered_json& relay : state["relays"]) {
        collect("relay", relay["stream_id"], relay["media"]);
    }
    for (const ordered_json& mix : state["mixes"]) {
        mixes += mix["running"].get<bool>() ? 1 : 0;
        collect("mix", mix["output_stream_id"], mix["media"]);
    }

    addHead(text, "vexalive_relays", "gauge", "Relays that were asked for.");
    addSample(text, "vexalive_relays", {}, state["relays"].size());
    addHead(text, "vexalive_mixes", "gauge", "Mixes that were asked for and not cancelled.");
    addSample(text, "vexalive_mixes", {}, mixes);
    const ordered_json& origin = state["service"]["origin"];
    if (!origin.is_null()) {
        addHead(text, "vexalive_origin_state", "gauge", "1 at the state of the origin.");
        addStates(text, "vexalive_origin_state", {}, origin["state"]);
        addHead(text, "vexalive_origin_restarts_total", "counter", "Times that the origin was started again.");
        addSample(text, "vexalive_origin_restarts_total", {}, origin["restarts"]);
    }
    addAll(text, "vexalive_media_", "relay and mix", workers);
    addHead(text, "vexalive_media_restarts_total", "counter", "Times that a worker was started again.");
    for (const Counted& each : workers) {
        addSample(text, "vexalive_media_restarts_total", each.labels, each.media["restarts"]);
    }
    addAll(text, "vexalive_media_input_", "input of a relay or mix", inputs);
    return text.str();
}

}  // namespace vexalive
