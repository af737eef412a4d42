// SIGINT (Ctrl-C) and SIGTERM as something to wait for, with no work in signal handlers. Linux's signalfd.

#ifndef VEXALIVE_TOOLS_SIGNALS_H
#define VEXALIVE_TOOLS_SIGNALS_H

#include <optional>
#include <string>

namespace vexalive {

// Keeps both signals from ending the process, in this thread and in those it starts: for main's first line. Also lets a
// write to a closed pipe fail instead of ending the process.
void blockStopSignals();

// Takes the signals that blockStopSignals() keeps back. For one thread.
class StopSignals {
public:
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    // Readable for poll() while a signal waits.
    int fd() const { return mFd; }

    // The name of a signal that came since the last call, if any; does not wait.
    std::optional<std::string> take();

private:
    int mFd;
};

}  // namespace vexalive

#endif
