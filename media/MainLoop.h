// Runs tasks on GLib's main loop. The thread of the main loop controls the worker.

#ifndef VEXALIVE_MEDIA_MAIN_LOOP_H
#define VEXALIVE_MEDIA_MAIN_LOOP_H

#include <chrono>
#include <functional>

namespace vexalive {

/// Calls `task` once, on the main loop. Any thread.
void callOnMainLoop(std::function<void()> task);

/// Calls a task after a delay. Main loop only. The destructor cancels the call.
class Timer {
public:
    Timer() = default;
    ~Timer() { cancel(); }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    /// Cancels a pending call, then calls `task` once after `delay`. `task` may start the timer again or destroy it.
    void start(std::chrono::milliseconds delay, std::function<void()> task);
    void cancel();
    bool isActive() const { return mSource != 0; }

private:
    static int onDue(void* timer);

    unsigned mSource = 0;  // GLib's id of the pending call; 0: none
    std::function<void()> mTask;
};

}  // namespace vexalive

#endif
