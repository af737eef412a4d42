#include "service/WorkerStatus.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace vexalive {

using nlohmann::json;
using nlohmann::ordered_json;

namespace {

constexpr size_t kMaxInputs = 32;
constexpr size_t kMaxTextBytes = 500;

// Throws what the JSON library throws at a value of the wrong type.
std::string shortText(const json& object, const char* key) {
    std::string text = object.at(key).get<std::string>();
    text.resize(std::min(text.size(), kMaxTextBytes));
    return text;
}

uint64_t countOf(const json& object, const char* key) {
    const json& value = object.at(key);
    return value.is_number_unsigned() ? value.get<uint64_t>() : 0;
}

bool readNumbers(const json& object, WorkerNumbers& numbers) {
    const std::string state = object.at("state").get<std::string>();
    const auto* const found = std::find_if(std::begin(kWorkerStates), std::end(kWorkerStates),
                                           [&state](WorkerState each) { return state == nameOf(each); });
    if (found == std::end(kWorkerStates)) {
        return false;
    }
    numbers.state = *found;
    numbers.error = shortText(object, "error");
    numbers.bytes = countOf(object, "bytes");
    numbers.frames = countOf(object, "frames");
    numbers.dropped = countOf(object, "dropped");
    numbers.reconnects = countOf(object, "reconnects");
    return true;
}

void addNumbers(ordered_json& shown, const WorkerNumbers& numbers) {
    shown["state"] = nameOf(numbers.state);
    shown["error"] = numbers.error;
    shown["bytes"] = numbers.bytes;
    shown["frames"] = numbers.frames;
    shown["dropped"] = numbers.dropped;
    shown["reconnects"] = numbers.reconnects;
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

std::optional<WorkerStatus> readStatus(const json& status) {
    try {
        WorkerStatus result;
        if (!readNumbers(status, result.numbers) || status.at("inputs").size() > kMaxInputs) {
            return std::nullopt;
        }
        for (const json& each : status.at("inputs")) {
            WorkerInput& input = result.inputs.emplace_back();
            input.streamId = shortText(each, "stream_id");
            if (!readNumbers(each, input.numbers)) {
                return std::nullopt;
            }
        }
        return result;
    } catch (const json::exception&) {
        return std::nullopt;
    }
}

ordered_json showStatus(const WorkerStatus& status) {
    ordered_json shown;
    addNumbers(shown, status.numbers);
    shown["restarts"] = status.restarts;
    shown["inputs"] = ordered_json::array();
    for (const WorkerInput& input : status.inputs) {
        ordered_json each = {{"stream_id", input.streamId}};
        addNumbers(each, input.numbers);
        shown["inputs"].push_back(std::move(each));
    }
    return shown;
}

}  // namespace vexalive
