// Measures delayed tasks: the cost of an insert with one or many pending tasks, and the lateness of the tasks. All
// contenders run packaged tasks on one thread, not before their deadlines, and return their futures. The caller drops
// each future at once, like the adapter.
//
//     bench_timers CONTENDER one       inserts with one pending task
//     bench_timers CONTENDER many      inserts with many pending tasks
//     bench_timers CONTENDER late      lateness

#include <malloc.h>
#include <sys/prctl.h>
#include <uv.h>

#include <algorithm>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "Benchmark.h"
#include "base/KstMessageLoop.h"

namespace {

using std::chrono::milliseconds;
using PackagedTask = std::packaged_task<void()>;

// ---- The contenders -------------------------------------------------------------------------------------------------

class VexaliveLoop {
public:
    ~VexaliveLoop() { mLoop->stop(); }

    template <class F>
    std::future<void> post(milliseconds delay, F&& task) {
        return mLoop->DelayPostTask(delay, std::forward<F>(task));
    }
    void waitUntilArmed() {}  // armed when post() returns

private:
    const std::shared_ptr<KstMessageLoop> mLoop = std::make_shared<KstMessageLoop>();
};

class AsioLoop {
public:
    ~AsioLoop() {
        mContext.stop();
        mThread.join();
    }

    template <class F>
    std::future<void> post(milliseconds delay, F&& task) {
        PackagedTask entry(std::forward<F>(task));
        std::future<void> done = entry.get_future();
        const auto timer = std::make_shared<Timer>(mContext, delay);
        timer->async_wait([timer, entry = std::move(entry)](const asio::error_code& error) mutable {
            if (!error) {
                entry();
            }
        });
        return done;
    }
    void waitUntilArmed() {}  // armed when post() returns

private:
    // The concrete executor type costs less than the default, any_io_executor.
    using Timer = asio::steady_timer::rebind_executor<asio::io_context::executor_type>::other;

    asio::io_context mContext{1};  // one thread runs it; any thread may arm its own timer
    asio::executor_work_guard<asio::io_context::executor_type> mWork{mContext.get_executor()};
    std::thread mThread{[this] { mContext.run(); }};
};

// libuv timers may be started on the loop thread only, so post() queues the timer for that thread.
class UvLoop {
public:
    UvLoop() {
        uv_loop_init(&mLoop);
        uv_async_init(&mLoop, &mAsync, [](uv_async_t* async) { static_cast<UvLoop*>(async->data)->armPosted(); });
        mAsync.data = this;
        mThread = std::thread([this] { uv_run(&mLoop, UV_RUN_DEFAULT); });
    }
    ~UvLoop() {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mStopped = true;
        }
        uv_async_send(&mAsync);
        mThread.join();
        uv_loop_close(&mLoop);
    }

    template <class F>
    std::future<void> post(milliseconds delay, F&& task) {
        auto timer = std::make_unique<Timer>();
        timer->deadline = std::chrono::steady_clock::now() + delay;
        timer->task = PackagedTask(std::forward<F>(task));
        std::future<void> done = timer->task.get_future();
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mPosted.push_back(std::move(timer));
        }
        uv_async_send(&mAsync);
        return done;
    }
    void waitUntilArmed() {
        std::unique_lock<std::mutex> lock(mMutex);
        mAllArmed.wait(lock, [this] { return mPosted.empty() && !mArming; });
    }

private:
    struct Timer {
        uv_timer_t handle{};
        std::chrono::steady_clock::time_point deadline;
        PackagedTask task;
    };

    void armPosted() {
        bool stopped = false;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mTimers.swap(mPosted);
            mArming = true;
            stopped = mStopped;
        }
        for (std::unique_ptr<Timer>& timer : mTimers) {
            arm(timer.release());
        }
        mTimers.clear();
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mArming = false;
        }
        mAllArmed.notify_one();
        if (stopped) {
            uv_walk(&mLoop, closeUnlessClosing, nullptr);
        }
    }

    // libuv uses the same clock in whole milliseconds, so the deadline is rounded up.
    void arm(Timer* timer) {
        const auto due = std::chrono::ceil<milliseconds>(timer->deadline.time_since_epoch()).count();
        const auto now = static_cast<long>(uv_now(&mLoop));
        uv_timer_init(&mLoop, &timer->handle);
        timer->handle.data = timer;
        uv_timer_start(&timer->handle, run, static_cast<uint64_t>(std::max(0L, due - now)), 0);
    }

    static void run(uv_timer_t* handle) {
        static_cast<Timer*>(handle->data)->task();
        close(reinterpret_cast<uv_handle_t*>(handle));
    }

    static void closeUnlessClosing(uv_handle_t* handle, void*) {
        if (uv_is_closing(handle) == 0) {
            close(handle);
        }
    }

    static void close(uv_handle_t* handle) {
        uv_close(handle, [](uv_handle_t* closed) {
            if (uv_handle_get_type(closed) == UV_TIMER) {
                delete static_cast<Timer*>(closed->data);
            }
        });
    }

    uv_loop_t mLoop{};
    uv_async_t mAsync{};
    std::mutex mMutex;
    std::condition_variable mAllArmed;
    std::vector<std::unique_ptr<Timer>> mPosted;
    std::vector<std::unique_ptr<Timer>> mTimers;  // loop thread only; swapped with mPosted, both keep their capacity
    bool mArming = false;
    bool mStopped = false;
    std::thread mThread;
};

// ---- The measurements -----------------------------------------------------------------------------------------------

constexpr size_t kLateBatches = 8;
constexpr size_t kLateTasks = 50;  // tasks per batch when lateness is measured
constexpr milliseconds kLateSpan{24};
constexpr std::chrono::microseconds kPause{200};  // time for the worker to become idle
constexpr size_t kMemory = size_t{480} << 20;     // bytes; more than any contender needs

struct Load {
    size_t pending;  // number of tasks that are pending before the measurement
    size_t inserts;  // number of measured inserts
    size_t loops;    // number of new loops on which the measurement is repeated
};

constexpr Load kOne = {1, 8, 150};
constexpr size_t kEarliestInserts = 100;

// With 1,000 and 1,000,000 pending tasks, the inserts cross a power of two, where vexalive and asio reallocate their
// heap. The reallocation is part of the measurement.
constexpr Load kMany[] = {{1'000, 500, 40}, {10'000, 1'000, 30}, {100'000, 10'000, 3}, {1'000'000, 100'000, 1}};

constexpr unsigned long kNoSlack = 1;  // nanoseconds; the minimum
constexpr unsigned long kUsualSlack = 0;

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

std::vector<milliseconds> randomDelays(size_t count, milliseconds from, milliseconds to) {
    static std::mt19937_64 random(1);
    std::uniform_int_distribution<milliseconds::rep> between(from.count(), to.count());
    std::vector<milliseconds> delays(count);
    for (milliseconds& delay : delays) {
        delay = milliseconds(between(random));
    }
    return delays;
}

constexpr std::chrono::hours kEarliest{1};

std::vector<milliseconds> distantDelays(size_t count) {
    return randomDelays(count, kEarliest + milliseconds(1), std::chrono::hours(2));
}

template <class Loop>
void insert(Loop& loop, Owner& owner, const std::vector<milliseconds>& delays) {
    for (const milliseconds delay : delays) {
        loop.post(delay, owner.task());
    }
    loop.waitUntilArmed();
}

// Starts the worker and grows the queues to their usual capacity.
template <class Loop>
void warmUp(Loop& loop) {
    std::vector<std::future<void>> done(16);
    for (std::future<void>& each : done) {
        each = loop.post(milliseconds(0), [] {});
    }
    for (const std::future<void>& each : done) {
        each.wait();
    }
}

// Measures the nanoseconds per insert, from the first insert until all timers are armed.
template <class Loop>
double nanosecondsOfInsert(const Load& load) {
    double seconds = 0;
    for (size_t i = 0; i < load.loops; ++i) {
        const auto owner = std::make_shared<Owner>();
        Loop loop;
        warmUp(loop);
        std::vector<milliseconds> pending = distantDelays(load.pending);
        pending.front() = kEarliest;  // stays the earliest deadline
        insert(loop, *owner, pending);
        const std::vector<milliseconds> delays = distantDelays(load.inserts);
        std::this_thread::sleep_for(kPause);
        const double start = bench::seconds();
        insert(loop, *owner, delays);
        seconds += bench::seconds() - start;
    }
    return seconds * 1e9 / static_cast<double>(load.loops * load.inserts);
}

// Measures the nanoseconds per insert if each insert has the earliest deadline, so that it must wake the worker.
template <class Loop>
double nanosecondsOfEarliest() {
    double seconds = 0;
    for (size_t i = 0; i < kEarliestInserts; ++i) {
        const auto owner = std::make_shared<Owner>();
        Loop loop;
        warmUp(loop);
        insert(loop, *owner, {kEarliest});
        std::this_thread::sleep_for(kPause);
        const double start = bench::seconds();
        insert(loop, *owner, {kEarliest / 2});
        seconds += bench::seconds() - start;
    }
    return seconds * 1e9 / static_cast<double>(kEarliestInserts);
}

// Touches all memory that a run needs, and keeps freed memory in the process. Otherwise the inserts would include page
// faults, whose cost on a virtual machine depends on the host.
void prefaultMemory() {
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, -1);
    void* memory = std::malloc(kMemory);
    explicit_bzero(memory, kMemory);
    std::free(memory);
}

// Returns the lateness of each task in microseconds. Each batch starts at a different fraction of a millisecond,
// because a clock of whole milliseconds delays all tasks of a batch by the same fraction. `slack` is the timer slack of
// this thread and of the threads that it starts: the time by which Linux may delay the end of a timed wait. It does not
// affect the timer descriptor of asio.
template <class Loop>
std::vector<double> latenesses(unsigned long slack) {
    const bench::BusyProcessor together;
    prctl(PR_SET_TIMERSLACK, slack);
    Loop loop;
    warmUp(loop);
    std::vector<double> late(kLateBatches * kLateTasks);
    for (size_t batch = 0; batch < kLateBatches; ++batch) {
        const std::vector<milliseconds> delays = randomDelays(kLateTasks, milliseconds(1), kLateSpan);
        std::vector<std::future<void>> done(kLateTasks);
        std::this_thread::sleep_for(std::chrono::microseconds(1'000 * batch / kLateBatches));
        for (size_t i = 0; i < kLateTasks; ++i) {
            const double deadline = bench::seconds() + std::chrono::duration<double>(delays[i]).count();
            const auto task = [deadline, &result = late[batch * kLateTasks + i]] {
                result = (bench::seconds() - deadline) * 1e6;
            };
            done[i] = loop.post(delays[i], task);
        }
        std::this_thread::sleep_for(kLateSpan);  // no thread waits for the futures yet, so no task has to wake one
        for (const std::future<void>& each : done) {
            each.wait();
        }
    }
    prctl(PR_SET_TIMERSLACK, kUsualSlack);
    return late;
}

template <class Loop>
void measureBesideOne() {
    bench::print("insert_ns_1_pending", nanosecondsOfInsert<Loop>(kOne));
    bench::print("insert_ns_earliest", nanosecondsOfEarliest<Loop>());
}

template <class Loop>
void measureBesideMany() {
    prefaultMemory();
    for (const Load& load : kMany) {
        const std::string figure = "insert_ns_" + std::to_string(load.pending) + "_pending";
        bench::print(figure.c_str(), nanosecondsOfInsert<Loop>(load));
    }
    if (bench::peakResidentBytes() > 1.1 * kMemory) {
        std::fprintf(stderr, "the inserts used memory that was not touched before\n");
        std::exit(1);
    }
}

template <class Loop>
void measureLateness() {
    std::vector<double> late = latenesses<Loop>(kUsualSlack);
    bench::print("lateness_us_p50", bench::percentile(late, 0.5));
    bench::print("lateness_us_p99", bench::percentile(late, 0.99));
}

// Also measures without timer slack. Not used for libuv: its timers have a resolution of 1 ms, which hides the effect
// of the slack.
template <class Loop>
void measureLatenessAndSlack() {
    measureLateness<Loop>();
    std::vector<double> late = latenesses<Loop>(kNoSlack);
    bench::print("lateness_without_slack_us_p50", bench::percentile(late, 0.5));
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view part = argc == 3 ? argv[2] : "";
    if (part == "one") {
        return bench::runContender(argc, argv,
                                   {{"vexalive", measureBesideOne<VexaliveLoop>},
                                    {"asio", measureBesideOne<AsioLoop>},
                                    {"libuv", measureBesideOne<UvLoop>}});
    }
    if (part == "many") {
        return bench::runContender(argc, argv,
                                   {{"vexalive", measureBesideMany<VexaliveLoop>},
                                    {"asio", measureBesideMany<AsioLoop>},
                                    {"libuv", measureBesideMany<UvLoop>}});
    }
    if (part == "late") {
        return bench::runContender(argc, argv,
                                   {{"vexalive", measureLatenessAndSlack<VexaliveLoop>},
                                    {"asio", measureLatenessAndSlack<AsioLoop>},
                                    {"libuv", measureLateness<UvLoop>}});
    }
    std::fprintf(stderr, "%s takes a contender, and one of: one many late\n", argv[0]);
    return 2;
}
