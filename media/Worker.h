// What a worker process does: a wish comes in, media flows, a status goes out.
//
// runWorker() reads one JSON object a line from stdin: the wish, {"relay": {…}} or {"mix": {…}}, whole each time, and
// {"snapshot": {"width": 640}}. It writes one object a line to stdout: {"status": {…}} at each change of a state and
// every half second, and {"snapshot": "…"}, a JPEG in base64, empty if there is no picture. When stdin ends, the worker
// ends.

#ifndef VEXALIVE_MEDIA_WORKER_H
#define VEXALIVE_MEDIA_WORKER_H

#include <chrono>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "media/Status.h"

namespace vexalive {

// All members are called on the main loop's thread, and none may block it: an update is due within a frame or two.
class Worker {
public:
    virtual ~Worker() = default;

    // The whole wish, at first and at each change. May throw what nlohmann-json throws on a field that is missing or
    // has another type, and leaves all as it is then.
    virtual void configure(const nlohmann::json& wish) = 0;

    virtual WorkerStatus status() const = 0;

    // Calls `done` soon, on the main loop, with a JPEG of the output at most so wide, or with an empty text.
    virtual void takePicture(int width, std::function<void(const std::string& jpeg)> done);

    // Ends the connections in good order; calls `done` on the main loop when that is through.
    virtual void stop(std::function<void()> done) = 0;
};

// Runs until stdin ends and the worker has stopped, or for two seconds more, and ends the process. `name` is the key of
// its wish.
[[noreturn]] void runWorker(const char* name, Worker& worker);

// Calls `what` once on the main loop; g_source_remove() of the number that it returns calls that off.
unsigned callAfter(std::chrono::milliseconds pause, std::function<void()> what);

// A line for people, on stderr. Those that come too fast are counted and left out. Any thread may call it.
void tell(const std::string& line);

}  // namespace vexalive

#endif
