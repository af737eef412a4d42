/// @file
/// A mutex with annotations for clang's thread-safety analysis.
///
/// clang's -Wthread-safety rejects code that violates the annotations. Other compilers ignore them.

#ifndef VEXALIVE_BASE_MUTEX_H
#define VEXALIVE_BASE_MUTEX_H

#include <chrono>
#include <condition_variable>
#include <mutex>

/// @cond
#if defined(__clang__)
#define KST_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define KST_THREAD_ATTRIBUTE(x)
#endif
/// @endcond

/// The mutex guards the member.
#define KST_GUARDED_BY(mutex) KST_THREAD_ATTRIBUTE(guarded_by(mutex))
/// The caller of the function holds these mutexes.
#define KST_REQUIRES(...) KST_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
/// The caller of the function holds none of these mutexes.
#define KST_EXCLUDES(...) KST_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))

/// A std::mutex with annotations. Not recursive.
class KST_THREAD_ATTRIBUTE(capability("mutex")) KstMutex {
public:
    KstMutex() = default;
    KstMutex(const KstMutex&) = delete;
    KstMutex& operator=(const KstMutex&) = delete;

    void lock() KST_THREAD_ATTRIBUTE(acquire_capability()) { mMutex.lock(); }
    void unlock() KST_THREAD_ATTRIBUTE(release_capability()) { mMutex.unlock(); }

private:
    friend class KstCondition;
    std::mutex mMutex;
};

/// Locks a KstMutex for a scope, as std::unique_lock does: the owner may call unlock() and lock() within the scope.
class KST_THREAD_ATTRIBUTE(scoped_lockable) KstMutexLock {
public:
    explicit KstMutexLock(KstMutex& mutex) KST_THREAD_ATTRIBUTE(acquire_capability(mutex)) : mMutex(mutex) {
        mMutex.lock();
    }
    ~KstMutexLock() KST_THREAD_ATTRIBUTE(release_capability()) {
        if (mHeld) {
            mMutex.unlock();
        }
    }
    KstMutexLock(const KstMutexLock&) = delete;
    KstMutexLock& operator=(const KstMutexLock&) = delete;

    void unlock() KST_THREAD_ATTRIBUTE(release_capability()) {
        mHeld = false;
        mMutex.unlock();
    }
    void lock() KST_THREAD_ATTRIBUTE(acquire_capability()) {
        mMutex.lock();
        mHeld = true;
    }

private:
    KstMutex& mMutex;
    bool mHeld = true;
};

/// A condition variable for a KstMutex. Waits may end spuriously: wait in a loop.
class KstCondition {
public:
    /// Releases `mutex` while it waits; holds it again on return.
    void wait(KstMutex& mutex) KST_REQUIRES(mutex) {
        std::unique_lock<std::mutex> lock(mutex.mMutex, std::adopt_lock);
        mCondition.wait(lock);
        lock.release();
    }

    /// As wait(), but returns at `deadline` at the latest. Returns false if the deadline has passed.
    bool waitUntil(KstMutex& mutex, std::chrono::steady_clock::time_point deadline) KST_REQUIRES(mutex) {
        std::unique_lock<std::mutex> lock(mutex.mMutex, std::adopt_lock);
        const std::cv_status status = mCondition.wait_until(lock, deadline);
        lock.release();
        return status == std::cv_status::no_timeout;
    }

    /// Wakes one waiting thread, if any. The caller need not hold the mutex.
    void notifyOne() { mCondition.notify_one(); }
    /// Wakes all waiting threads. The caller need not hold the mutex.
    void notifyAll() { mCondition.notify_all(); }

private:
    std::condition_variable mCondition;
};

#endif
