// Drives the virtual-time loop for the contract's tests: this class runs the tasks and advances the time.

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

    // While it exists, the loop begins no task. Virtual loops begin none by themselves.
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

    // Runs what is due.
    static void settle(KstMessageLoop&) { VirtualTime::runDue(); }

    // Lets a stopped loop do what it might still do.
    static void drain() { VirtualTime::runUntilQuiet(); }
};

#endif
