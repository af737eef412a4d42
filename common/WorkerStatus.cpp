#include "common/WorkerStatus.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "common/Text.h"

namespace vexalive {

using nlohmann::json;
using nlohmann::ordered_json;

namespace {

constexpr size_t kMaxInputs = 32;
constexpr size_t kMaxTextBytes = 500;

constexpr std::pair<const char*, uint64_t StreamStatus::*> kCounters[] = {
    {"bytes", &StreamStatus::bytes},
    {"frames", &StreamStatus::frames},
    {"dropped", &StreamStatus::dropped},
    {"reconnects", &StreamStatus::reconnects},
};

// If a value is missing or has the wrong type, this function and parseStream() throw nlohmann::json::exception.
std::string readText(const json& object, const char* key) {
    return std::string(utf8Prefix(object.at(key).get_ref<const std::string&>(), kMaxTextBytes));
}

std::optional<StreamStatus> parseStream(const json& object) {
    const auto& name = object.at("state").get_ref<const std::string&>();
    const auto* const found = std::find_if(std::begin(kWorkerStates), std::end(kWorkerStates),
                                           [&name](WorkerState each) { return name == nameOf(each); });
    if (found == std::end(kWorkerStates)) {
        return std::nullopt;
    }
    StreamStatus stream;
    stream.state = *found;
    stream.error = readText(object, "error");
    for (const auto& [key, counter] : kCounters) {
        const json& value = object.at(key);
        stream.*counter = value.is_number_unsigned() ? value.get<uint64_t>() : 0;
    }
    return stream;
}

void add(ordered_json& object, const StreamStatus& stream) {
    object["state"] = nameOf(stream.state);
    object["error"] = stream.error;
    for (const auto& [key, counter] : kCounters) {
        object[key] = stream.*counter;
    }
}

}  // namespace

const char* nameOf(WorkerState state) {
    switch (state) {
        case WorkerState::kStarting:
            return "starting";
        case WorkerState::kRunning:
            return "running";
        case WorkerState::kReconnecting:
            return "reconnecting";
        case WorkerState::kStopping:
            return "stopping";
        case WorkerState::kStopped:
            return "stopped";
        case WorkerState::kFailed:
            break;
    }
    return "failed";
}

ordered_json toJson(const WorkerStatus& status) {
    ordered_json object;
    add(object, status.output);
    ordered_json inputs = ordered_json::array();
    for (const InputStatus& input : status.inputs) {
        ordered_json each = {{"stream_id", input.streamId}};
        add(each, input.stream);
        inputs.push_back(std::move(each));
    }
    object["inputs"] = std::move(inputs);
    return object;
}

std::optional<WorkerStatus> parseWorkerStatus(const json& status) {
    try {
        WorkerStatus result;
        const std::optional<StreamStatus> output = parseStream(status);
        const json& inputs = status.at("inputs");
        if (!output || inputs.size() > kMaxInputs) {
            return std::nullopt;
        }
        result.output = *output;
        for (const json& each : inputs) {
            const std::optional<StreamStatus> stream = parseStream(each);
            if (!stream) {
                return std::nullopt;
            }
            result.inputs.push_back({readText(each, "stream_id"), *stream});
        }
        return result;
    } catch (const json::exception&) {
        return std::nullopt;
    }
}

}  // namespace vexalive
