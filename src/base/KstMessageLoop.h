// The worker loop: one thread that runs posted tasks one at a time, at once or after a delay.
//
// The adapter turns each of its operations and retries into a task here. The thread starts with the first post and ends
// with stop(). Always owned by a shared pointer; posting on a loop that is not aborts the process.

#ifndef VEXALIVE_BASE_KST_MESSAGE_LOOP_H
#define VEXALIVE_BASE_KST_MESSAGE_LOOP_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <future>
#include <memory>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/Mutex.h"

// What a queue holds: one reference to a packaged task, shared with the future alone, and run by calling it. Runs at
// most once; can be moved, not copied.
class KstTask {
public:
    KstTask() = default;
    template <class F, class = std::enable_if_t<!std::is_same<std::decay_t<F>, KstTask>::value>>
    KstTask(F&& task) : mTask(std::forward<F>(task)) {}

    // To be asked for once, before the task can run.
    std::future<void> future() { return mTask.get_future(); }
    void operator()() { mTask(); }

private:
    std::packaged_task<void()> mTask;
};

// A task that must not run before its deadline.
struct DelayTask {
    std::chrono::steady_clock::time_point deadline;
    KstTask task;
};

// The heap's order: the earliest deadline comes to the front. Equal deadlines have no order.
struct DelayTaskCmp {
    bool operator()(const DelayTask& a, const DelayTask& b) const { return a.deadline > b.deadline; }
};

class KstMessageLoop : public std::enable_shared_from_this<KstMessageLoop> {
public:
    // Starts no thread.
    KstMessageLoop() = default;
    ~KstMessageLoop();
    KstMessageLoop(const KstMessageLoop&) = delete;
    KstMessageLoop& operator=(const KstMessageLoop&) = delete;

    // Queues `task`, a callable without arguments, behind all tasks posted before; it runs on the worker thread and
    // must not throw. Any thread may post; posting never waits for the worker. The future becomes ready when the task
    // has run, and may be dropped at once. After stop() the task is destroyed unrun and the future is empty (not
    // valid()). The future of a task that stop() destroys says nothing: it may look ready. If the worker thread cannot
    // be started, the standard library's system error leaves the call with the lock held, and nothing here handles it:
    // it is meant to end the process.
    template <class F>
    std::future<void> PostTask(F&& task);

    // The same once `delay` has passed on the steady clock; a delay below zero is a deadline in the past.
    template <class F>
    std::future<void> DelayPostTask(std::chrono::milliseconds delay, F&& task);

    // The worker thread's body: returns after stop().
    void Loop();

    // Refuses further posts, destroys the tasks that have not begun, waits for the one that runs and ends the worker
    // thread; called on the worker itself, it does not wait. Any thread may call it, more than once; of several calls
    // only the first waits.
    void stop();

private:
    bool enqueue(KstTask& task) KST_EXCLUDES(mMutex);
    bool enqueue(DelayTask& task) KST_EXCLUDES(mMutex);
    void startWorker() KST_REQUIRES(mMutex);
    void collectDueTasks() KST_REQUIRES(mMutex);
    static std::chrono::steady_clock::time_point deadlineAfter(std::chrono::milliseconds delay);

    KstMutex mMutex;
    KstCondition mWakeUp;
    std::shared_ptr<std::thread> mWorker KST_GUARDED_BY(mMutex);
    std::vector<KstTask> mTasks KST_GUARDED_BY(mMutex);
    std::vector<DelayTask> mDelayed KST_GUARDED_BY(mMutex);
    bool mIdle KST_GUARDED_BY(mMutex) = false;  // the worker waits, and no wake-up is under way
    std::atomic<bool> mStopped{false};
    std::vector<KstTask> mBatch;  // the worker's alone: the tasks that it has taken, and
    size_t mNext = 0;             // which of them comes next
};

template <class F>
std::future<void> KstMessageLoop::PostTask(F&& task) {
    if (mStopped) {
        return {};
    }
    KstTask entry(std::forward<F>(task));
    std::future<void> done = entry.future();
    return enqueue(entry) ? std::move(done) : std::future<void>();
}

template <class F>
std::future<void> KstMessageLoop::DelayPostTask(std::chrono::milliseconds delay, F&& task) {
    if (mStopped) {
        return {};
    }
    KstTask packaged(std::forward<F>(task));
    DelayTask entry{deadlineAfter(delay), std::move(packaged)};
    std::future<void> done = entry.task.future();
    return enqueue(entry) ? std::move(done) : std::future<void>();
}

#endif
