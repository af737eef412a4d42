// Drives the virtual-time loop for LoopContractTest: these functions run the tasks and advance the time.

#ifndef VEXALIVE_TESTS_LOOP_LOOP_DRIVER_H
#define VEXALIVE_TESTS_LOOP_LOOP_DRIVER_H

#include <chrono>

#include "VirtualTime.h"
#include "base/KstMessageLoop.h"
#include "support/Journal.h"

class LoopDriver {
public:
    static std::chrono::steady_clock::time_point now() { return VirtualTime::now(); }
    static void pass(std::chrono::milliseconds time) { VirtualTime::advance(time); }

    // While a Hold exists, the loop begins no task. Nothing to do here: a virtual loop begins no task by itself.
    class Hold {
    public:
        explicit Hold(KstMessageLoop&) {}
        ~Hold() {}
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;
    };

    // Lets `time` pass; true if the journal then has `count` entries.
    static bool run(Journal<std::string>& journal, size_t count, std::chrono::milliseconds time = {}) {
        VirtualTime::advance(time);
        return journal.size() >= count;
    }

    // Runs the tasks that are due.
    static void settle(KstMessageLoop&) { VirtualTime::runDue(); }

    // Lets a stopped loop run what is still pending.
    static void drain() { VirtualTime::runUntilQuiet(); }
};

#endif
