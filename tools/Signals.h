// SIGINT (Ctrl-C) and SIGTERM as events for poll(), without signal handlers. Uses signalfd.

#ifndef VEXALIVE_TOOLS_SIGNALS_H
#define VEXALIVE_TOOLS_SIGNALS_H

#include <optional>
#include <string>
#include <utility>

#include "common/Descriptor.h"
#include "common/Result.h"

namespace vexalive {

// Blocks both signals in the calling thread and in all threads that it starts later. Call it first in main(). Also
// ignores SIGPIPE, so that a write to a closed pipe fails instead of ending the process.
void blockStopSignals();

// Receives the signals that blockStopSignals() blocks. Not thread-safe.
class StopSignals {
public:
    // Fails if no descriptor is free.
    static Result<StopSignals> open();

    // A descriptor for poll(). It is readable while a signal is pending.
    int fd() const { return mSignals.get(); }

    // Returns the name of the next pending signal, "SIGINT" or "SIGTERM", or std::nullopt. Does not block.
    std::optional<std::string> next();

private:
    explicit StopSignals(Descriptor signals) : mSignals(std::move(signals)) {}

    Descriptor mSignals;
};

}  // namespace vexalive

#endif
