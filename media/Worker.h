// The protocol of a worker process: it reads configurations and writes statuses.
//
// runWorker() reads one JSON object per line from stdin: {"relay": {…}} or {"mix": {…}}, each time with the whole
// desired state, and {"snapshot": {"width": 640}}. It writes one object per line to stdout: {"status": {…}} whenever a
// state or an error changes and every half second, and {"snapshot": "…"}, a JPEG in base64, or "" if there is no frame.
// When stdin ends, the worker shuts down.

#ifndef VEXALIVE_MEDIA_WORKER_H
#define VEXALIVE_MEDIA_WORKER_H

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "common/Result.h"
#include "common/WorkerStatus.h"

namespace vexalive {

/// All members are called on the main loop and must not block it: an update has to be visible after one or two frames.
class Worker {
public:
    virtual ~Worker() = default;

    /// Applies a configuration: the first one, and each change. If a field is missing or has the wrong type, it fails
    /// and changes nothing.
    virtual Result<void> configure(const nlohmann::json& configuration) = 0;

    virtual WorkerStatus status() const = 0;

    /// Calls `done` later, on the main loop, with a JPEG of the output of at most `width` columns, or with "".
    virtual void takeSnapshot(int width, std::function<void(const std::string& jpeg)> done);

    /// Ends the streams at the servers, then calls `done` on the main loop.
    virtual void stop(std::function<void()> done) = 0;
};

/// Runs until stdin ends, then stops the worker, which may take up to two seconds, and ends the process. `name` is the
/// key of the worker's configuration: "relay" or "mix".
[[noreturn]] void runWorker(const char* name, Worker& worker);

}  // namespace vexalive

#endif
