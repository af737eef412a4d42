// Controls when tasks run and how time passes on the virtual-time loops (base/KstMessageLoop.h). For tests on one
// thread.

#ifndef VEXALIVE_FAKES_VIRTUAL_TIME_H
#define VEXALIVE_FAKES_VIRTUAL_TIME_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <optional>

// Angle brackets are needed: #include_next in that header works only if it was found on the include path.
#include <base/KstMessageLoop.h>

class VirtualTime {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    // The existing loop that was created last.
    static KstMessageLoop& newestLoop() { return *KstMessageLoop::world().loops.back(); }

    static TimePoint now() { return KstMessageLoop::world().now; }

    // Runs all due tasks and the tasks that these post. The clock does not advance.
    static void runDue() {
        while (runOne()) {
        }
    }

    // Advances the clock; each task runs at its deadline.
    static void advance(std::chrono::milliseconds by) {
        const TimePoint end = now() + by;
        runDue();
        for (auto next = nextDeadline(); next && *next <= end; next = nextDeadline()) {
            KstMessageLoop::world().now = *next;
            runDue();
        }
        KstMessageLoop::world().now = end;
    }

    // Advances the clock until no task is queued.
    static void runUntilQuiet() {
        runDue();
        for (auto next = nextDeadline(); next; next = nextDeadline()) {
            KstMessageLoop::world().now = *next;
            runDue();
        }
    }

    // The number of waiting tasks on all loops: immediate or due tasks here, delayed tasks below.
    static size_t queuedTasks() {
        size_t tasks = 0;
        for (const KstMessageLoop* loop : KstMessageLoop::world().loops) {
            tasks += loop->mTasks.size();
        }
        return tasks;
    }
    static size_t delayedTasks() {
        size_t tasks = 0;
        for (const KstMessageLoop* loop : KstMessageLoop::world().loops) {
            tasks += loop->mDelayed.size();
        }
        return tasks;
    }

private:
    static bool runOne() {
        const auto loops = KstMessageLoop::world().loops;
        return std::any_of(loops.begin(), loops.end(), [](KstMessageLoop* loop) { return loop->runOne(); });
    }

    static std::optional<TimePoint> nextDeadline() {
        std::optional<TimePoint> next;
        for (const KstMessageLoop* loop : KstMessageLoop::world().loops) {
            const auto deadline = loop->nextDeadline();
            if (deadline && (!next || *deadline < *next)) {
                next = deadline;
            }
        }
        return next;
    }
};

#endif
