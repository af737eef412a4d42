#include "base/KstMessageLoop.h"

#include <algorithm>
#include <cstdlib>

KstMessageLoop::~KstMessageLoop() {
    stop();
}

bool KstMessageLoop::enqueue(KstTask& task) {
    KstMutexLock lock(mMutex);
    if (mStopped) {
        return false;
    }
    startWorker();
    mTasks.push_back(std::move(task));
    const bool wake = std::exchange(mIdle, false);
    lock.unlock();
    if (wake) {
        mWakeUp.notifyOne();
    }
    return true;
}

bool KstMessageLoop::enqueue(DelayTask& task) {
    KstMutexLock lock(mMutex);
    if (mStopped) {
        return false;
    }
    startWorker();
    const bool earliest = mDelayed.empty() || DelayTaskCmp()(mDelayed.front(), task);
    mDelayed.push_back(std::move(task));
    std::push_heap(mDelayed.begin(), mDelayed.end(), DelayTaskCmp());
    const bool wake = earliest && std::exchange(mIdle, false);  // a later deadline does not shorten the worker's wait
    lock.unlock();
    if (wake) {
        mWakeUp.notifyOne();
    }
    return true;
}

void KstMessageLoop::startWorker() {
    if (mWorker) {
        return;
    }
    const std::weak_ptr<KstMessageLoop> weak = weak_from_this();
    if (weak.expired()) {
        std::abort();  // not owned by a shared pointer
    }
    mWorker = std::make_shared<std::thread>([weak] {
        if (const auto self = weak.lock()) {
            self->Loop();
        }
    });
}

void KstMessageLoop::Loop() {
    KstMutexLock lock(mMutex);
    while (!mStopped) {
        collectDueTasks();
        if (!mTasks.empty()) {
            mBatch.swap(mTasks);  // both vectors keep their capacity
            lock.unlock();
            for (mNext = 0; mNext < mBatch.size() && !mStopped;) {
                KstTask task = std::move(mBatch[mNext++]);
                task();
            }
            mBatch.clear();
            lock.lock();
            continue;
        }
        mIdle = true;
        if (mDelayed.empty()) {
            mWakeUp.wait(mMutex);
        } else {
            mWakeUp.waitUntil(mMutex, mDelayed.front().deadline);
        }
        mIdle = false;
    }
}

// Appends the due delayed tasks to the queue, earliest deadline first. So delayed and immediate tasks do not starve
// each other.
void KstMessageLoop::collectDueTasks() {
    if (mDelayed.empty()) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    while (!mDelayed.empty() && mDelayed.front().deadline <= now) {
        std::pop_heap(mDelayed.begin(), mDelayed.end(), DelayTaskCmp());
        mTasks.push_back(std::move(mDelayed.back().task));
        mDelayed.pop_back();
    }
}

void KstMessageLoop::stop() {
    std::shared_ptr<std::thread> worker;
    // The tasks are destroyed at the end of this function, without the lock: their destructors may post or call stop().
    std::vector<KstTask> tasks;
    std::vector<DelayTask> delayed;
    {
        KstMutexLock lock(mMutex);
        mStopped = true;
        worker.swap(mWorker);
        tasks.swap(mTasks);
        delayed.swap(mDelayed);
    }
    mWakeUp.notifyOne();
    if (!worker) {
        return;
    }
    if (worker->get_id() == std::this_thread::get_id()) {
        mBatch.resize(mNext);  // destroys the dequeued tasks that have not begun
        worker->detach();
    } else {
        worker->join();
    }
}

// The time `delay` from now, clamped to what the clock can represent.
std::chrono::steady_clock::time_point KstMessageLoop::deadlineAfter(std::chrono::milliseconds delay) {
    using std::chrono::milliseconds;
    using Clock = std::chrono::steady_clock;
    const Clock::time_point now = Clock::now();
    const auto shortest = std::chrono::duration_cast<milliseconds>(Clock::time_point::min().time_since_epoch());
    const auto longest = std::chrono::duration_cast<milliseconds>(Clock::time_point::max() - now);
    return now + std::clamp(delay, shortest, longest);
}
