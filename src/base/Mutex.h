// A mutex whose discipline the compiler checks.
//
// Used by the adapter and the task loop: members say which mutex guards them (KST_GUARDED_BY) and functions say which
// they need held (KST_REQUIRES); clang's -Wthread-safety then refuses an access without the lock. With any other
// compiler the annotations vanish and KstMutex is a std::mutex.

#ifndef VEXALIVE_BASE_MUTEX_H
#define VEXALIVE_BASE_MUTEX_H

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define KST_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define KST_THREAD_ATTRIBUTE(x)
#endif

#define KST_GUARDED_BY(mutex) KST_THREAD_ATTRIBUTE(guarded_by(mutex))
#define KST_REQUIRES(...) KST_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define KST_EXCLUDES(...) KST_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))

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

// Holds a KstMutex from construction to the end of the scope; may be released and taken again in between.
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

// A condition variable for code that holds a KstMutex. Waits may end spuriously: wait in a loop.
class KstCondition {
public:
    void wait(KstMutex& mutex) KST_REQUIRES(mutex) {
        std::unique_lock<std::mutex> lock(mutex.mMutex, std::adopt_lock);
        mCondition.wait(lock);
        lock.release();
    }
    // False once the deadline has passed.
    bool waitUntil(KstMutex& mutex, std::chrono::steady_clock::time_point deadline) KST_REQUIRES(mutex) {
        std::unique_lock<std::mutex> lock(mutex.mMutex, std::adopt_lock);
        const std::cv_status status = mCondition.wait_until(lock, deadline);
        lock.release();
        return status == std::cv_status::no_timeout;
    }
    void notifyOne() { mCondition.notify_one(); }
    void notifyAll() { mCondition.notify_all(); }

private:
    std::condition_variable mCondition;
};

#endif
