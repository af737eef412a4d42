// The real task loop, with two additions: delays are shortened, and each task carries a cause (see Cause).
//
// For tests only: a target that puts tests/quick before src on its include path runs the adapter on this loop. It is
// built on the real loop, which is compiled under the name KstRealMessageLoop.

#ifndef VEXALIVE_QUICK_BASE_KST_MESSAGE_LOOP_H
#define VEXALIVE_QUICK_BASE_KST_MESSAGE_LOOP_H

#define KstMessageLoop KstRealMessageLoop
#include_next "base/KstMessageLoop.h"
#undef KstMessageLoop

// The program defines this function: it returns the delay to use instead of `pause`. Called on any thread.
std::chrono::milliseconds shortened(std::chrono::milliseconds pause);

class KstMessageLoop : public KstRealMessageLoop {
public:
    // Identifies the call of the adapter that the current thread works for. The program sets the cause around the call;
    // a task inherits the cause of the thread that posts it.
    struct Cause {
        uint64_t id = 0;
        int posts = 0;  // posts of this thread since the cause was set
        int delayedPosts = 0;

        static Cause& current() {
            static thread_local Cause cause;
            return cause;
        }
    };

    template <class F>
    std::future<void> PostTask(F&& task) {
        ++Cause::current().posts;
        return KstRealMessageLoop::PostTask(withCause(std::forward<F>(task)));
    }

    template <class F>
    std::future<void> DelayPostTask(std::chrono::milliseconds delay, F&& task) {
        ++Cause::current().delayedPosts;
        return KstRealMessageLoop::DelayPostTask(shortened(delay), withCause(std::forward<F>(task)));
    }

private:
    template <class F>
    static auto withCause(F&& task) {
        return [id = Cause::current().id, task = std::decay_t<F>(std::forward<F>(task))]() mutable {
            Cause::current() = {id, 0, 0};
            task();
            Cause::current() = {};
        };
    }
};

#endif
