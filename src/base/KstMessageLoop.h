/// @file
/// The worker loop: one thread that runs posted tasks one at a time, immediately or after a delay.
///
/// The adapter posts each of its operations and retries here.

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

/// A posted task: a callable and its future. Call it at most once. Movable, not copyable.
class KstTask {
public:
    KstTask() = default;

    /// Packages `task`, a callable without arguments. Moves or copies it.
    template <class F, class = std::enable_if_t<!std::is_same<std::decay_t<F>, KstTask>::value>>
    KstTask(F&& task) : mTask(std::forward<F>(task)) {}

    /// The task's future. Call once, before the task can run.
    std::future<void> future() { return mTask.get_future(); }

    /// Runs the task on the calling thread.
    void operator()() { mTask(); }

private:
    std::packaged_task<void()> mTask;
};

/// A task that must not run before its deadline.
struct DelayTask {
    std::chrono::steady_clock::time_point deadline;  ///< the task runs at this time or later
    KstTask task;                                    ///< runs once
};

/// Orders the heap so that the earliest deadline is at the front. Equal deadlines have no order.
struct DelayTaskCmp {
    /// Whether `a` is due later than `b`.
    bool operator()(const DelayTask& a, const DelayTask& b) const { return a.deadline > b.deadline; }
};

/// A queue of tasks and the worker thread that runs them. The first post starts the thread; stop() ends it. The loop
/// must be owned by a shared pointer; otherwise a post aborts the process. Any thread may call any member function
/// except Loop().
class KstMessageLoop : public std::enable_shared_from_this<KstMessageLoop> {
public:
    /// Starts no thread.
    KstMessageLoop() = default;

    /// Calls stop(). May run on the worker thread.
    ~KstMessageLoop();

    KstMessageLoop(const KstMessageLoop&) = delete;
    KstMessageLoop& operator=(const KstMessageLoop&) = delete;

    /// Queues `task` behind all tasks that were posted before. The worker thread runs it. Never waits for the worker.
    ///
    /// If the worker thread cannot be started, the call throws std::system_error and leaves the loop's mutex locked.
    /// The loop is then unusable: let the exception end the process.
    /// @param task  a callable without arguments that must not throw. Moved or copied into the queue.
    /// @return a future that becomes ready when the task has run. Its destructor does not wait. After stop(),
    /// PostTask() destroys the task without running it and returns a future that is not valid(). If stop() destroys a
    /// queued task, the future of that task may become ready.
    template <class F>
    std::future<void> PostTask(F&& task);

    /// As PostTask(), but the task runs no earlier than `delay` after the call, by the steady clock. Due tasks run in
    /// the order of their deadlines. A negative delay is a deadline in the past.
    template <class F>
    std::future<void> DelayPostTask(std::chrono::milliseconds delay, F&& task);

    /// The body of the worker thread: returns after stop().
    void Loop();

    /// Ends the worker thread: refuses further posts, destroys the tasks that have not begun, and waits for the running
    /// task. Does not wait if called on the worker thread. May be called several times; only the first call waits.
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
    bool mIdle KST_GUARDED_BY(mMutex) = false;  // the worker waits, and no notifyOne() is pending
    std::atomic<bool> mStopped{false};
    std::vector<KstTask> mBatch;  // worker thread only: the tasks that it has dequeued
    size_t mNext = 0;             // worker thread only: the next task in mBatch
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
