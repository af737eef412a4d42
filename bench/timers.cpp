// Delayed tasks: what one more costs when few or many already wait, and how late they run. All contenders run a
// packaged task on one thread, not before its deadline, and hand out its future, which the caller drops at once, as the
// adapter does.
//
//     bench_timers CONTENDER one       inserts beside one that waits
//     bench_timers CONTENDER many      inserts beside many that wait
//     bench_timers CONTENDER late      how late they run

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

#include "Contest.h"
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
    // With the executor's own type: less to store and to call than any_io_executor.
    using Timer = asio::steady_timer::rebind_executor<asio::io_context::executor_type>::other;

    asio::io_context mContext{1};  // one thread runs it; any thread may arm a timer of its own
    asio::executor_work_guard<asio::io_context::executor_type> mWork{mContext.get_executor()};
    std::thread mThread{[this] { mContext.run(); }};
};

// Only the loop's own thread may start a timer of libuv: a post hands it over.
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

    // libuv counts whole milliseconds of the same clock: the first of them that is not before the deadline.
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
    std::vector<std::unique_ptr<Timer>> mTimers;  // the loop's thread alone; two vectors take turns and keep their room
    bool mArming = false;
    bool mStopped = false;
    std::thread mThread;
};

// ---- The measurements -----------------------------------------------------------------------------------------------

constexpr size_t kLateBatches = 8;
constexpr size_t kLateTasks = 50;  // a batch
constexpr milliseconds kLateWithin{24};
constexpr std::chrono::microseconds kPause{200};  // long enough for the worker to fall asleep
constexpr size_t kMemory = size_t{480} << 20;     // more than any contender needs

// How many already wait, how many more are inserted, and into how many fresh loops.
struct Crowd {
    size_t pending;
    size_t inserts;
    size_t loops;
};

constexpr Crowd kOne = {1, 8, 150};
constexpr size_t kEarliestInserts = 100;

// At 1,000 and at 1,000,000 the inserts pass a power of two, where vexalive and asio move their heap into a vector of
// twice the size: that counts in full.
constexpr Crowd kMany[] = {{1'000, 500, 40}, {10'000, 1'000, 30}, {100'000, 10'000, 3}, {1'000'000, 100'000, 1}};

constexpr unsigned long kNoSlack = 1;  // nanosecond
constexpr unsigned long kUsualSlack = 0;

// Stands for the adapter: its tasks hold it weakly and change what belongs to the worker.
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

// Starts the worker, and gives the queues the room that a loop in use has.
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

// Nanoseconds for each of the inserts, from the first until all are armed.
template <class Loop>
double nanosecondsOfInsert(const Crowd& crowd) {
    double seconds = 0;
    for (size_t i = 0; i < crowd.loops; ++i) {
        const auto owner = std::make_shared<Owner>();
        Loop loop;
        warmUp(loop);
        std::vector<milliseconds> pending = distantDelays(crowd.pending);
        pending.front() = kEarliest;  // what the worker waits for, whatever is inserted
        insert(loop, *owner, pending);
        const std::vector<milliseconds> delays = distantDelays(crowd.inserts);
        std::this_thread::sleep_for(kPause);
        const double start = bench::seconds();
        insert(loop, *owner, delays);
        seconds += bench::seconds() - start;
    }
    return seconds * 1e9 / static_cast<double>(crowd.loops * crowd.inserts);
}

// Nanoseconds for an insert that becomes the earliest, so that the worker has to be woken to wait for less.
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

// What is freed stays with the process, which has touched as much of it as any crowd needs: no insert waits for a page
// of the kernel's, whose price on a virtual machine is the host's.
void takeMemory() {
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, -1);
    void* memory = std::malloc(kMemory);
    explicit_bzero(memory, kMemory);
    std::free(memory);
}

// Microseconds after its deadline at which each task runs. Each batch begins at another part of a millisecond: a clock
// of whole milliseconds makes all tasks of a batch late by the same part. The slack is by how much Linux lets a timed
// wait of this thread, and of those that it starts, end too late; asio's timer descriptor knows none.
template <class Loop>
std::vector<double> latenesses(unsigned long slack) {
    const bench::AwakeProcessor together;
    prctl(PR_SET_TIMERSLACK, slack);
    Loop loop;
    warmUp(loop);
    std::vector<double> late(kLateBatches * kLateTasks);
    for (size_t batch = 0; batch < kLateBatches; ++batch) {
        const std::vector<milliseconds> delays = randomDelays(kLateTasks, milliseconds(1), kLateWithin);
        std::vector<std::future<void>> done(kLateTasks);
        std::this_thread::sleep_for(std::chrono::microseconds(1'000 * batch / kLateBatches));
        for (size_t i = 0; i < kLateTasks; ++i) {
            const double deadline = bench::seconds() + std::chrono::duration<double>(delays[i]).count();
            const auto task = [deadline, &result = late[batch * kLateTasks + i]] {
                result = (bench::seconds() - deadline) * 1e6;
            };
            done[i] = loop.post(delays[i], task);
        }
        std::this_thread::sleep_for(kLateWithin);  // nobody waits for a future yet, so that none has to be woken
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
    takeMemory();
    for (const Crowd& crowd : kMany) {
        const std::string figure = "insert_ns_" + std::to_string(crowd.pending) + "_pending";
        bench::print(figure.c_str(), nanosecondsOfInsert<Loop>(crowd));
    }
    if (bench::peakResidentBytes() > 1.1 * kMemory) {
        std::fprintf(stderr, "inserts have taken memory beyond what was touched before\n");
        std::exit(1);
    }
}

template <class Loop>
void measureLateness() {
    std::vector<double> late = latenesses<Loop>(kUsualSlack);
    bench::print("lateness_us_p50", bench::percentile(late, 0.5));
    bench::print("lateness_us_p99", bench::percentile(late, 0.99));
}

// Not for libuv, whose whole milliseconds hide the slack.
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
        return bench::contest(argc, argv,
                              {{"vexalive", measureBesideOne<VexaliveLoop>},
                               {"asio", measureBesideOne<AsioLoop>},
                               {"libuv", measureBesideOne<UvLoop>}});
    }
    if (part == "many") {
        return bench::contest(argc, argv,
                              {{"vexalive", measureBesideMany<VexaliveLoop>},
                               {"asio", measureBesideMany<AsioLoop>},
                               {"libuv", measureBesideMany<UvLoop>}});
    }
    if (part == "late") {
        return bench::contest(argc, argv,
                              {{"vexalive", measureLatenessAndSlack<VexaliveLoop>},
                               {"asio", measureLatenessAndSlack<AsioLoop>},
                               {"libuv", measureLateness<UvLoop>}});
    }
    std::fprintf(stderr, "%s takes a contender, and one of: one many late\n", argv[0]);
    return 2;
}
