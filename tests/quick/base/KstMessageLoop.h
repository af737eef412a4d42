// The real task loop with shorter delays, and with a cause that follows the tasks.
//
// For tests only: a target that puts tests/quick before src on its include path runs the adapter on this loop. The real
// one is compiled under the name KstRealMessageLoop for it.

#ifndef VEXALIVE_QUICK_BASE_KST_MESSAGE_LOOP_H
#define VEXALIVE_QUICK_BASE_KST_MESSAGE_LOOP_H

#define KstMessageLoop KstRealMessageLoop
#include_next "base/KstMessageLoop.h"
#undef KstMessageLoop

// Defined by the program: the delay to use instead of the adapter's. Called on any thread.
std::chrono::milliseconds shortened(std::chrono::milliseconds pause);

class KstMessageLoop : public KstRealMessageLoop {
public:
    // What the current thread works for: set by the program around a call of the adapter. A task has the cause of the
    // thread that posted it.
    struct Cause {
        uint64_t id = 0;
        int posts = 0;  // on this thread since the cause was set
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
