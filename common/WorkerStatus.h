#ifndef VEXALIVE_COMMON_WORKER_STATUS_H
#define VEXALIVE_COMMON_WORKER_STATUS_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace vexalive {

enum class WorkerState {
    kStarting,      ///< no media so far
    kRunning,       ///< media flow
    kReconnecting,  ///< media have flowed; the connection or its media are lost
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
    std::string error;  ///< message of the last error; empty while it runs
    uint64_t bytes = 0;
    uint64_t frames = 0;      ///< of video; of audio if there is no video
    uint64_t dropped = 0;     ///< frames
    uint64_t reconnects = 0;  ///< connections after the first
};

struct InputStatus {
    std::string streamId;
    StreamStatus stream;
};

/// The status of a worker process. The worker writes it as one line of JSON, {"status": {…}}; the service reads it.
struct WorkerStatus {
    StreamStatus output;
    std::vector<InputStatus> inputs;
};

/// The value of "status".
nlohmann::ordered_json toJson(const WorkerStatus& status);

/// std::nullopt if the value is malformed; more than 32 inputs are malformed. Errors and stream ids are truncated to
/// 500 bytes.
std::optional<WorkerStatus> parseWorkerStatus(const nlohmann::json& status);

}  // namespace vexalive

#endif
