// Calls on GLib's main loop, the one thread on which a worker makes its decisions.

#ifndef VEXALIVE_MEDIA_MAIN_LOOP_H
#define VEXALIVE_MEDIA_MAIN_LOOP_H

#include <chrono>
#include <functional>

namespace vexalive {

/// Calls `task` once, on the main loop. Any thread.
void callOnMainLoop(std::function<void()> task);

/// A call that is due later. Main loop only. The destructor cancels the call.
class Timer {
public:
    Timer() = default;
    ~Timer() { cancel(); }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    /// Calls `task` once, after `delay`; a call that was due before is cancelled. `task` may start the timer again or
    /// destroy it.
    void start(std::chrono::milliseconds delay, std::function<void()> task);
    void cancel();
    bool isActive() const { return mSource != 0; }

private:
    static int onDue(void* timer);

    unsigned mSource = 0;  // GLib's id; 0: none
    std::function<void()> mTask;
};

}  // namespace vexalive

#endif
