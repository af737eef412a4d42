// A counting signal from one thread to another.

#ifndef VEXALIVE_BENCH_SIGNAL_H
#define VEXALIVE_BENCH_SIGNAL_H

#include <condition_variable>
#include <mutex>

namespace bench {

class Signal {
public:
    void notify() {
        const std::lock_guard<std::mutex> lock(mMutex);
        ++mCount;
        mChanged.notify_one();  // under the lock: the waiting thread may destroy the signal
    }
    void wait(int times = 1) {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait(lock, [this, times] { return mCount >= times; });
        mCount -= times;
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    int mCount = 0;
};

}  // namespace bench

#endif
