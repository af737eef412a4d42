// How a worker process is doing, and the JSON in which it says so.
//
// Used by Supervisor and Media.

#ifndef VEXALIVE_SERVICE_WORKER_STATUS_H
#define VEXALIVE_SERVICE_WORKER_STATUS_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace vexalive {

enum class WorkerState { kStarting, kRunning, kReconnecting, kStopping, kStopped, kFailed };

const char* nameOf(WorkerState state);
constexpr WorkerState kWorkerStates[] = {WorkerState::kStarting, WorkerState::kRunning, WorkerState::kReconnecting,
                                         WorkerState::kStopping, WorkerState::kStopped, WorkerState::kFailed};

struct WorkerNumbers {
    WorkerState state = WorkerState::kStarting;
    std::string error;  // the last, in words; none while it runs
    uint64_t bytes = 0;
    uint64_t frames = 0;
    uint64_t dropped = 0;
    uint64_t reconnects = 0;
};

struct WorkerInput {
    std::string streamId;
    WorkerNumbers numbers;
};

struct WorkerStatus {
    WorkerNumbers numbers;
    std::vector<WorkerInput> inputs;
    uint64_t restarts = 0;  // of the process; counted by the service
};

// Reads what a worker says of itself, the value of "status". Nothing if it is malformed.
std::optional<WorkerStatus> readStatus(const nlohmann::json& status);

nlohmann::ordered_json showStatus(const WorkerStatus& status);

}  // namespace vexalive

#endif
