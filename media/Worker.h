// The protocol of a worker process: configurations come in, media flow, statuses go out.
//
// runWorker() reads one JSON object a line from stdin: {"relay": {…}} or {"mix": {…}}, the whole desired state each
// time, and {"snapshot": {"width": 640}}. It writes one object a line to stdout: {"status": {…}} whenever a state or an
// error changes and every half second, and {"snapshot": "…"}, a JPEG in base64, or "" if there is no frame. When stdin
// ends, the worker shuts down.

#ifndef VEXALIVE_MEDIA_WORKER_H
#define VEXALIVE_MEDIA_WORKER_H

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "common/Result.h"
#include "common/WorkerStatus.h"

namespace vexalive {

/// All members are called on the main loop, and none may block it: an update is due within a frame or two.
class Worker {
public:
    virtual ~Worker() = default;

    /// Applies a configuration, at first and at each change. If a field is missing or has another type, it fails and
    /// changes nothing.
    virtual Result<void> configure(const nlohmann::json& configuration) = 0;

    virtual WorkerStatus status() const = 0;

    /// Calls `done` soon, on the main loop, with a JPEG of the output of at most `width` columns, or with "".
    virtual void takeSnapshot(int width, std::function<void(const std::string& jpeg)> done);

    /// Ends the streams at the servers, then calls `done` on the main loop.
    virtual void stop(std::function<void()> done) = 0;
};

/// Runs until stdin ends and the worker has stopped, for two seconds more at most, and ends the process. `name` is the
/// key of its configuration.
[[noreturn]] void runWorker(const char* name, Worker& worker);

}  // namespace vexalive

#endif
