// One thread tells another that something has happened.

#ifndef VEXALIVE_BENCH_SIGNAL_H
#define VEXALIVE_BENCH_SIGNAL_H

#include <condition_variable>
#include <mutex>

namespace bench {

class Signal {
public:
    void give() {
        const std::lock_guard<std::mutex> lock(mMutex);
        ++mGiven;
        mChanged.notify_one();  // under the lock: the signal may go as soon as it is taken
    }
    void take(int times = 1) {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait(lock, [this, times] { return mGiven >= times; });
        mGiven -= times;
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    int mGiven = 0;
};

}  // namespace bench

#endif
