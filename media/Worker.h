// The protocol of a worker process: it reads configurations and writes statuses.
//
// runWorker() reads one JSON object per line from stdin:
// - {"relay": {…}} or {"mix": {…}} is a complete configuration;
// - {"snapshot": {"width": 640}} requests a snapshot.
// It writes one JSON object per line to stdout:
// - {"status": {…}} follows each change of a state or an error, and is repeated every 500 ms;
// - {"snapshot": "…"} is a JPEG in base64, or "" if there is no frame.
// When stdin ends, the worker shuts down.

#ifndef VEXALIVE_MEDIA_WORKER_H
#define VEXALIVE_MEDIA_WORKER_H

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "common/Result.h"
#include "common/WorkerStatus.h"

namespace vexalive {

/// All members are called on the main loop and must not block it, since a new configuration has to take effect within
/// two frames.
class Worker {
public:
    virtual ~Worker() = default;

    /// Applies the first or a changed configuration. If a field is missing or has the wrong type, the call fails and
    /// changes nothing.
    virtual Result<void> configure(const nlohmann::json& configuration) = 0;

    virtual WorkerStatus status() const = 0;

    /// Calls `done` on the main loop with a JPEG image of the output, at most `width` pixels wide, or with "" if there
    /// is none. Returns before or after the call.
    virtual void takeSnapshot(int width, std::function<void(const std::string& jpeg)> done);

    /// Ends the streams at the servers, then calls `done` on the main loop.
    virtual void stop(std::function<void()> done) = 0;
};

/// Runs the main loop until stdin ends. Then stops the worker, which takes at most two seconds, and exits the process.
/// `name` is the key of the configuration on stdin: "relay" or "mix".
[[noreturn]] void runWorker(const char* name, Worker& worker);

}  // namespace vexalive

#endif
