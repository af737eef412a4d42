// The real task loop in a hurry: each pause lasts as long as the program says.
//
// For tests only: a target that puts tests/quick before src on its include path runs the adapter on this loop. The real
// one is compiled under the name KstRealMessageLoop for it.

#ifndef VEXALIVE_QUICK_BASE_KST_MESSAGE_LOOP_H
#define VEXALIVE_QUICK_BASE_KST_MESSAGE_LOOP_H

#define KstMessageLoop KstRealMessageLoop
#include_next "base/KstMessageLoop.h"
#undef KstMessageLoop

// Defined by the program: what becomes of a pause that the adapter asks for. Called on any thread.
std::chrono::milliseconds shortened(std::chrono::milliseconds pause);

class KstMessageLoop : public KstRealMessageLoop {
public:
    template <class F>
    std::future<void> DelayPostTask(std::chrono::milliseconds delay, F&& task) {
        return KstRealMessageLoop::DelayPostTask(shortened(delay), std::forward<F>(task));
    }
};

#endif
