// Measures the posting of tasks: throughput from other threads to the worker, latency on an idle loop, and allocations
// per post. All contenders run one packaged task per post on one thread and return the task's future. The posting
// thread drops the future at once, like the adapter.

#include <uv.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/packaged_task.hpp>
#include <asio/post.hpp>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "Benchmark.h"
#include "base/KstMessageLoop.h"

// ---- Counted allocations: operator new, and the C function that asio calls instead ----------------------------------

namespace {

std::atomic<bool> countsAllocations{false};
std::atomic<long> allocations{0};

void noteAllocation() {
    if (countsAllocations.load(std::memory_order_relaxed)) {
        allocations.fetch_add(1, std::memory_order_relaxed);
    }
}

}  // namespace

// noinline: if gcc inlines only one of a new/delete pair, it warns about a mismatch.
[[gnu::noinline]] void* operator new(size_t size) {
    noteAllocation();
    void* memory = std::malloc(size);
    if (!memory) {
        std::abort();
    }
    return memory;
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}

extern "C" void* aligned_alloc(size_t alignment, size_t size) noexcept {
    noteAllocation();
    void* memory = nullptr;
    return posix_memalign(&memory, alignment, size) == 0 ? memory : nullptr;
}

namespace {

using PackagedTask = std::packaged_task<void()>;

// ---- The contenders -------------------------------------------------------------------------------------------------

class VexaliveLoop {
public:
    ~VexaliveLoop() { mLoop->stop(); }

    template <class F>
    std::future<void> post(F&& task) {
        return mLoop->PostTask(std::forward<F>(task));
    }

private:
    const std::shared_ptr<KstMessageLoop> mLoop = std::make_shared<KstMessageLoop>();
};

class AsioLoop {
public:
    ~AsioLoop() {
        mWork.reset();
        mThread.join();
    }

    template <class F>
    std::future<void> post(F&& task) {
        return asio::post(mContext, PackagedTask(std::forward<F>(task)));
    }

private:
    asio::io_context mContext{1};  // one thread runs it; any thread may post
    asio::executor_work_guard<asio::io_context::executor_type> mWork{mContext.get_executor()};
    std::thread mThread{[this] { mContext.run(); }};
};

class UvLoop {
public:
    UvLoop() {
        uv_loop_init(&mLoop);
        uv_async_init(&mLoop, &mAsync, [](uv_async_t* async) { static_cast<UvLoop*>(async->data)->runPosted(); });
        mAsync.data = this;
        mThread = std::thread([this] { uv_run(&mLoop, UV_RUN_DEFAULT); });
    }
    ~UvLoop() {
        post([this] { uv_close(reinterpret_cast<uv_handle_t*>(&mAsync), nullptr); });
        mThread.join();
        uv_loop_close(&mLoop);
    }

    template <class F>
    std::future<void> post(F&& task) {
        PackagedTask entry(std::forward<F>(task));
        std::future<void> done = entry.get_future();
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mPosted.push_back(std::move(entry));
        }
        uv_async_send(&mAsync);
        return done;
    }

private:
    void runPosted() {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mRunning.swap(mPosted);
        }
        for (PackagedTask& task : mRunning) {
            std::exchange(task, PackagedTask())();
        }
        mRunning.clear();
    }

    uv_loop_t mLoop{};
    uv_async_t mAsync{};
    std::mutex mMutex;
    std::vector<PackagedTask> mPosted;
    std::vector<PackagedTask> mRunning;  // loop thread only; swapped with mPosted, both keep their capacity
    std::thread mThread;
};

// The smallest queue that can do the work.
class Floor {
public:
    ~Floor() {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mStopped = true;
        }
        mWakeUp.notify_one();
        mThread.join();
    }

    template <class F>
    std::future<void> post(F&& task) {
        PackagedTask entry(std::forward<F>(task));
        std::future<void> done = entry.get_future();
        bool wake = false;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mTasks.push_back(std::move(entry));
            wake = std::exchange(mIdle, false);
        }
        if (wake) {
            mWakeUp.notify_one();
        }
        return done;
    }

private:
    void run() {
        std::unique_lock<std::mutex> lock(mMutex);
        while (true) {
            while (mTasks.empty() && !mStopped) {
                mIdle = true;
                mWakeUp.wait(lock);
                mIdle = false;
            }
            if (mTasks.empty()) {
                return;
            }
            PackagedTask task = std::move(mTasks.front());
            mTasks.pop_front();
            lock.unlock();
            task();
            task = PackagedTask();
            lock.lock();
        }
    }

    std::mutex mMutex;
    std::condition_variable mWakeUp;
    std::deque<PackagedTask> mTasks;
    bool mIdle = false;
    bool mStopped = false;
    std::thread mThread{[this] { run(); }};
};

// ---- The measurements -----------------------------------------------------------------------------------------------

constexpr int kTasks = 60'000;  // tasks per batch
constexpr int kBatches = 3;
constexpr int kLatencySamples = 600;
constexpr int kLatencyWarmUp = 100;
constexpr std::chrono::microseconds kPause{200};  // time for the worker to become idle

// Has the same shape as the adapter: tasks hold a weak reference to it and change its state on the worker thread.
struct Owner : std::enable_shared_from_this<Owner> {
    long count = 0;

    auto task() {
        return [this, weak = weak_from_this(), step = 1] {
            if (const auto alive = weak.lock()) {
                count += step;
            }
        };
    }
};

// Waits until all posted tasks have run.
template <class Loop>
void drain(Loop& loop, const Owner& owner, long expected) {
    loop.post([] {}).wait();
    if (owner.count != expected) {
        std::fprintf(stderr, "%ld of %ld tasks have run\n", owner.count, expected);
        std::exit(1);
    }
}

// Keeps the worker on the processor where it was started, because its migration would make the results vary.
template <class Loop>
std::unique_ptr<Loop> startedLoop() {
    const bench::PinnedToOneProcessor here;
    auto loop = std::make_unique<Loop>();
    loop->post([] {}).wait();
    return loop;
}

// Blocks the worker until a whole batch is queued, so that the queue grows to its maximum length.
template <class Loop>
void warmUp(Loop& loop) {
    const auto owner = std::make_shared<Owner>();
    std::promise<void> release;
    loop.post([released = release.get_future()] { released.wait(); });
    for (int i = 0; i < kTasks; ++i) {
        loop.post(owner->task());
    }
    release.set_value();
    drain(loop, *owner, kTasks);
}

template <class Loop>
double tasksPerSecond(Loop& loop, int posters) {
    const auto owner = std::make_shared<Owner>();
    const double start = bench::seconds();
    for (int batch = 1; batch <= kBatches; ++batch) {
        std::vector<std::thread> threads;
        threads.reserve(static_cast<size_t>(posters));
        for (int i = 0; i < posters; ++i) {
            threads.emplace_back([&] {
                for (int k = 0; k < kTasks / posters; ++k) {
                    loop.post(owner->task());
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        drain(loop, *owner, long{kTasks} * batch);
    }
    return kTasks * kBatches / (bench::seconds() - start);
}

template <class Loop>
double allocationsPerPost(Loop& loop) {
    const auto owner = std::make_shared<Owner>();
    countsAllocations = true;
    for (int i = 0; i < kTasks; ++i) {
        loop.post(owner->task());
    }
    drain(loop, *owner, kTasks);
    countsAllocations = false;
    return static_cast<double>(allocations) / (kTasks + 1);
}

// Measures the microseconds from the post to the start of the task, on an idle loop.
template <class Loop>
std::vector<double> latencies() {
    const bench::BusyProcessor together;
    Loop loop;
    std::vector<double> samples;
    samples.reserve(kLatencySamples);
    for (int i = 0; i < kLatencyWarmUp + kLatencySamples; ++i) {
        std::this_thread::sleep_for(kPause);
        double run = 0;
        const double posted = bench::seconds();
        loop.post([&run] { run = bench::seconds(); }).wait();
        if (i >= kLatencyWarmUp) {
            samples.push_back((run - posted) * 1e6);
        }
    }
    return samples;
}

template <class Loop>
void measure() {
    {
        const std::unique_ptr<Loop> loop = startedLoop<Loop>();
        warmUp(*loop);
        bench::print("tasks_per_second_1_poster", tasksPerSecond(*loop, 1));
        bench::print("tasks_per_second_4_posters", tasksPerSecond(*loop, 4));
        bench::print("allocations_per_post", allocationsPerPost(*loop));
    }
    std::vector<double> samples = latencies<Loop>();
    bench::print("latency_us_p50", bench::percentile(samples, 0.5));
    bench::print("latency_us_p99", bench::percentile(samples, 0.99));
}

}  // namespace

int main(int argc, char** argv) {
    return bench::runContender(argc, argv,
                               {{"vexalive", measure<VexaliveLoop>},
                                {"asio", measure<AsioLoop>},
                                {"libuv", measure<UvLoop>},
                                {"floor", measure<Floor>}});
}
