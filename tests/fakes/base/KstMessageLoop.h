// The worker loop in virtual time: the same interface as the real one, without a thread and without waiting.
//
// For tests only: a target that puts tests/fakes before src on its include path runs the adapter on this loop. A test
// runs the tasks through VirtualTime (VirtualTime.h), one at a time on its own thread, and never inside the call that
// posts. All loops of the process share one clock. Not thread-safe.

#ifndef VEXALIVE_FAKES_BASE_KST_MESSAGE_LOOP_H
#define VEXALIVE_FAKES_BASE_KST_MESSAGE_LOOP_H

#include <algorithm>
#include <chrono>
#include <deque>
#include <future>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

// The task types come from the header of the real loop.
#define KstMessageLoop KstRealMessageLoop
#include_next "base/KstMessageLoop.h"
#undef KstMessageLoop

class KstMessageLoop : public std::enable_shared_from_this<KstMessageLoop> {
public:
    KstMessageLoop() { world().loops.push_back(this); }

    ~KstMessageLoop() {
        stop();
        auto& loops = world().loops;
        loops.erase(std::find(loops.begin(), loops.end(), this));
    }

    KstMessageLoop(const KstMessageLoop&) = delete;
    KstMessageLoop& operator=(const KstMessageLoop&) = delete;

    // Queues `task` behind all queued tasks. The future becomes ready when the task has run. After stop(), the future
    // is empty and the task is destroyed unrun.
    template <class F>
    std::future<void> PostTask(F&& task) {
        return enqueue(std::nullopt, std::forward<F>(task));
    }

    // The same after `delay` of virtual time. A negative delay is a deadline in the past.
    template <class F>
    std::future<void> DelayPostTask(std::chrono::milliseconds delay, F&& task) {
        return enqueue(delay, std::forward<F>(task));
    }

    // Does the worker's job until the loop is stopped or has no delayed task: runs the tasks and moves the
    // clock to each deadline.
    void Loop() {
        const std::weak_ptr<KstMessageLoop> alive = weak_from_this();
        while (!alive.expired() && !mStopped) {
            if (runOne()) {
                continue;
            }
            const auto deadline = nextDeadline();
            if (!deadline) {
                return;
            }
            world().now = std::max(world().now, *deadline);
        }
    }

    // Refuses further posts and destroys the tasks that have not begun. May be called again, and from a task.
    void stop() {
        mStopped = true;
        // The queue is emptied first and the tasks are destroyed last: the destructor of a task may post or stop.
        const auto tasks = std::exchange(mTasks, {});
        const auto delayed = std::exchange(mDelayed, {});
    }

private:
    friend class VirtualTime;

    struct World {
        std::chrono::steady_clock::time_point now{std::chrono::hours(1)};
        std::vector<KstMessageLoop*> loops;  // in the order of their creation
    };

    // Never destroyed: loops may outlive the static objects of a test.
    static World& world() {
        static World& instance = *new World();
        return instance;
    }

    template <class F>
    std::future<void> enqueue(std::optional<std::chrono::milliseconds> delay, F&& task) {
        if (mStopped) {
            return {};
        }
        requireOwner();
        KstTask packaged(std::forward<F>(task));
        std::future<void> done = packaged.future();
        if (delay) {
            mDelayed.push_back({deadlineAfter(*delay), std::move(packaged)});
            std::push_heap(mDelayed.begin(), mDelayed.end(), DelayTaskCmp());
        } else {
            mTasks.push_back(std::move(packaged));
        }
        return done;
    }

    // Ends the process if no shared pointer owns the loop, as starting the real worker does.
    void requireOwner() noexcept { static_cast<void>(shared_from_this()); }

    static std::chrono::steady_clock::time_point deadlineAfter(std::chrono::milliseconds delay) {
        using Clock = std::chrono::steady_clock;
        using std::chrono::milliseconds;
        const auto shortest = std::chrono::duration_cast<milliseconds>(Clock::time_point::min().time_since_epoch());
        const auto longest = std::chrono::duration_cast<milliseconds>(Clock::time_point::max() - world().now);
        return world().now + std::clamp(delay, shortest, longest);
    }

    std::optional<std::chrono::steady_clock::time_point> nextDeadline() const {
        return mDelayed.empty() ? std::nullopt : std::optional(mDelayed.front().deadline);
    }

    // Runs the first task that is due; false if there is none. The task may destroy the loop.
    bool runOne() {
        while (!mDelayed.empty() && mDelayed.front().deadline <= world().now) {
            std::pop_heap(mDelayed.begin(), mDelayed.end(), DelayTaskCmp());
            mTasks.push_back(std::move(mDelayed.back().task));
            mDelayed.pop_back();
        }
        if (mTasks.empty()) {
            return false;
        }
        KstTask task = std::move(mTasks.front());
        mTasks.pop_front();
        task();
        return true;
    }

    std::deque<KstTask> mTasks;
    std::vector<DelayTask> mDelayed;
    bool mStopped = false;
};

#endif
