#ifndef VEXALIVE_COMMON_WORKER_STATUS_H
#define VEXALIVE_COMMON_WORKER_STATUS_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace vexalive {

enum class WorkerState {
    kStarting,      ///< no media have flowed yet
    kRunning,       ///< media flow
    kReconnecting,  ///< media flowed before, but the connection was lost or carries no media now
    kStopping,
    kStopped,
    kFailed,
};

constexpr WorkerState kWorkerStates[] = {WorkerState::kStarting, WorkerState::kRunning, WorkerState::kReconnecting,
                                         WorkerState::kStopping, WorkerState::kStopped, WorkerState::kFailed};

/// "starting", "running" and so on.
const char* nameOf(WorkerState state);

/// The status of one stream: the output of a worker, or one of its inputs.
struct StreamStatus {
    WorkerState state = WorkerState::kStarting;
    std::string error;  ///< message of the last error; empty while the stream runs
    uint64_t bytes = 0;
    uint64_t frames = 0;      ///< video frames, or audio frames if there is no video
    uint64_t dropped = 0;     ///< number of dropped frames
    uint64_t reconnects = 0;  ///< number of connections after the first
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

/// The value of "status" in the worker's line.
nlohmann::ordered_json toJson(const WorkerStatus& status);

/// Parses the value of "status". Returns std::nullopt if it is malformed or has more than 32 inputs. Errors and stream
/// ids are truncated to 500 bytes.
std::optional<WorkerStatus> parseWorkerStatus(const nlohmann::json& status);

}  // namespace vexalive

#endif
