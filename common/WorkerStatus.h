#ifndef VEXALIVE_COMMON_WORKER_STATUS_H
#define VEXALIVE_COMMON_WORKER_STATUS_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace vexalive {

enum class WorkerState {
    kStarting,      ///< nothing has flowed yet
    kRunning,       ///< media flow
    kReconnecting,  ///< has run; absent or broken now
    kStopping,
    kStopped,
    kFailed,
};

constexpr WorkerState kWorkerStates[] = {WorkerState::kStarting, WorkerState::kRunning, WorkerState::kReconnecting,
                                         WorkerState::kStopping, WorkerState::kStopped, WorkerState::kFailed};

/// "starting", "running" and so on.
const char* nameOf(WorkerState state);

/// One stream: what a worker sends, or one of its inputs.
struct StreamStatus {
    WorkerState state = WorkerState::kStarting;
    std::string error;  ///< the last, for people; empty while it runs
    uint64_t bytes = 0;
    uint64_t frames = 0;      ///< of video; of audio if there is no video
    uint64_t dropped = 0;     ///< frames
    uint64_t reconnects = 0;  ///< connections after the first
};

struct InputStatus {
    std::string streamId;
    StreamStatus stream;
};

/// How a worker process is doing. The worker writes it as one line of JSON, {"status": {…}}, and the service reads it.
struct WorkerStatus {
    StreamStatus output;
    std::vector<InputStatus> inputs;
};

/// The value of "status".
nlohmann::ordered_json toJson(const WorkerStatus& status);

/// Nothing if the value is malformed. Errors and stream ids are cut to 500 bytes; more than 32 inputs are malformed.
std::optional<WorkerStatus> parseWorkerStatus(const nlohmann::json& status);

}  // namespace vexalive

#endif
