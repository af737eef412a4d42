// The threads of the real loop: their number, what stop() waits for, and posts that race with stop(). The behaviour
// that the virtual-time loop shares is in LoopContractTest.cpp.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "JournalTask.h"
#include "LoopDriver.h"
#include "WatchedLoop.h"
#include "base/KstMessageLoop.h"
#include "support/Poll.h"

namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

// The ids of the process's threads.
std::set<std::string> threads() {
    std::set<std::string> ids;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        ids.insert(entry.path().filename());
    }
    return ids;
}

// The ids of the threads that exist now but are not in `before`.
std::set<std::string> threadsSince(const std::set<std::string>& before) {
    std::set<std::string> ids;
    for (const std::string& id : threads()) {
        if (before.count(id) == 0) {
            ids.insert(id);
        }
    }
    return ids;
}

// Waits until no such thread exists. The wait is needed: /proc lists a joined thread for a short time.
bool awaitNoThreadSince(const std::set<std::string>& before) {
    return pollUntil([&] { return threadsSince(before).empty(); });
}

// Waits until the loop refuses posts, that is, until a stop() on another thread has begun.
void awaitRefusal(KstMessageLoop& loop) {
    while (loop.PostTask([] {}).valid()) {
        std::this_thread::yield();
    }
}

class KstMessageLoopTest : public testing::Test {
protected:
    // Some sanitizer runtimes start a background thread with the program's first thread, so that thread is not counted.
    static void SetUpTestSuite() {
        std::thread([] {}).join();
    }

    Journal<std::string> journal;
    WatchedLoop loop;
};

// ---- The worker thread ----

TEST_F(KstMessageLoopTest, TheFirstPostOfEitherKindStartsTheOnlyThreadAndStopEndsIt) {
    for (const bool isDelayed : {false, true}) {
        const auto before = threads();
        const WatchedLoop fresh;
        EXPECT_EQ(threadsSince(before).size(), 0u) << "a loop without a post has no thread";
        isDelayed ? fresh->DelayPostTask(hours(1), [] {}) : fresh->PostTask([] {});
        const auto started = threadsSince(before);
        EXPECT_EQ(started.size(), 1u);

        fresh->DelayPostTask(milliseconds(1), JournalTask(journal, "ran"));
        LoopDriver::settle(*fresh);
        EXPECT_EQ(threadsSince(before), started) << "further posts of either kind start none";
        EXPECT_TRUE(journal.await(isDelayed ? 4 : 2)) << "the delayed task ran";
        fresh->stop();
        EXPECT_TRUE(awaitNoThreadSince(before));
    }
}

TEST_F(KstMessageLoopTest, ABusyLoopDelaysNoOtherLoop) {
    const WatchedLoop other;
    const LoopDriver::Hold hold(*loop);
    other->PostTask([this] { journal.add("other"); });
    EXPECT_TRUE(journal.await(1));
}

TEST_F(KstMessageLoopTest, TasksOfManyThreadsRunOneAtATimeOnTheWorkerInThePostingOrderOfEachThread) {
    constexpr size_t kPosters = 4;
    constexpr size_t kTasks = 2000;
    std::atomic<int> running{0};
    std::atomic<int> overlaps{0};
    // Only the worker uses these until it has stopped.
    std::set<std::thread::id> workers;
    std::vector<std::vector<size_t>> ran(kPosters);
    size_t delayedRan = 0;
    const auto checked = [&](auto work) {
        return [&, work] {
            overlaps += ++running != 1;
            workers.insert(std::this_thread::get_id());
            work();
            std::this_thread::yield();
            --running;
        };
    };
    std::vector<std::thread> posters;
    std::set<std::thread::id> posterIds;
    for (size_t poster = 0; poster < kPosters; ++poster) {
        posters.emplace_back([&, poster] {
            for (size_t task = 0; task < kTasks; ++task) {
                loop->PostTask(checked([&, poster, task] { ran[poster].push_back(task); }));
                if (task % 10 == 0) {
                    loop->DelayPostTask(milliseconds(task % 3), checked([&] { ++delayedRan; }));
                }
            }
        });
        posterIds.insert(posters.back().get_id());
    }
    for (std::thread& poster : posters) {
        poster.join();
    }
    loop->DelayPostTask(milliseconds(10), [this] { journal.add("last deadline"); });
    ASSERT_TRUE(journal.await(1));
    loop->stop();

    EXPECT_EQ(overlaps, 0);
    ASSERT_EQ(workers.size(), 1u);
    EXPECT_EQ(posterIds.count(*workers.begin()), 0u);
    EXPECT_EQ(delayedRan, kPosters * kTasks / 10);
    for (const std::vector<size_t>& tasks : ran) {
        EXPECT_EQ(tasks.size(), kTasks);
        EXPECT_TRUE(std::is_sorted(tasks.begin(), tasks.end()));
    }
}

// ---- Stop ----

TEST_F(KstMessageLoopTest, StopFromAnotherThreadLetsTheRunningTaskEndAndWaitsForIt) {
    std::promise<void> open;
    std::promise<void> begun;
    std::future<void> hasBegun = begun.get_future();
    loop->PostTask([this, begun = std::move(begun), isOpen = open.get_future()]() mutable {
        begun.set_value();
        isOpen.wait();
        journal.add("task ends");
    });
    loop->PostTask(JournalTask(journal, "queued"));
    loop->DelayPostTask(milliseconds(0), JournalTask(journal, "delayed"));
    hasBegun.wait();

    std::thread stopper([this] {
        loop->stop();
        journal.add("stop returns");
    });
    awaitRefusal(*loop);
    EXPECT_TRUE(journal.all().empty()) << "the task still runs, so stop waits";
    open.set_value();
    stopper.join();

    const std::vector<std::string> entries = journal.all();
    EXPECT_THAT(entries, UnorderedElementsAre("task ends", "~queued", "~delayed", "stop returns"));
    EXPECT_EQ(entries.front(), "task ends");
    EXPECT_EQ(entries.back(), "stop returns") << "stop() destroys the queued tasks before it returns";
}

TEST_F(KstMessageLoopTest, StopsFromManyThreadsAndTheWorkerAllReturnAndEveryTaskIsDestroyedOnce) {
    for (int round = 0; round < 50; ++round) {
        Journal<std::string> outcome;
        WatchedLoop stopped;
        stopped->PostTask(JournalTask(outcome, "a"));
        stopped->DelayPostTask(hours(1), JournalTask(outcome, "b"));
        if (round % 2 == 0) {
            stopped->PostTask([&] { stopped->stop(); });
        }
        std::vector<std::thread> stoppers;
        for (int i = 0; i < 4; ++i) {
            stoppers.emplace_back([&] { stopped->stop(); });
        }
        for (std::thread& stopper : stoppers) {
            stopper.join();
        }
        stopped.awaitEnd();
        const std::vector<std::string> entries = outcome.all();
        EXPECT_EQ(std::count(entries.begin(), entries.end(), "~a"), 1);
        EXPECT_EQ(std::count(entries.begin(), entries.end(), "~b"), 1);
        EXPECT_EQ(std::count(entries.begin(), entries.end(), "b"), 0);
    }
}

// ---- Races ----

// A task that stops the loop while it is being posted. Its move constructor calls stop(); the loop moves a task after
// its first check of the stopped flag and before it takes the lock.
class StopsWhenMoved {
public:
    StopsWhenMoved(KstMessageLoop& loop, Journal<std::string>& journal) : mLoop(&loop), mTask(journal, "task") {}
    StopsWhenMoved(StopsWhenMoved&& other) noexcept : mLoop(other.mLoop), mTask(std::move(other.mTask)) {
        mLoop->stop();
    }
    StopsWhenMoved& operator=(StopsWhenMoved&&) = delete;

    void operator()() { mTask(); }

private:
    KstMessageLoop* mLoop;
    JournalTask mTask;
};

TEST_F(KstMessageLoopTest, APostOvertakenByStopIsRefusedAndStartsNoThread) {
    for (const bool isStarted : {false, true}) {
        for (const bool isDelayed : {false, true}) {
            Journal<std::string> outcome;
            const WatchedLoop stopped;
            if (isStarted) {
                LoopDriver::settle(*stopped);
            }
            const auto before = threads();
            StopsWhenMoved task(*stopped, outcome);
            EXPECT_FALSE((isDelayed ? stopped->DelayPostTask(milliseconds(0), std::move(task))
                                    : stopped->PostTask(std::move(task)))
                             .valid());
            EXPECT_THAT(outcome.all(), ElementsAre("~task"));
            stopped->PostTask([] {});
            stopped->DelayPostTask(milliseconds(0), [] {});
            EXPECT_TRUE(threadsSince(before).empty());
        }
    }
}

TEST_F(KstMessageLoopTest, TasksPostedDuringAStopRunOnceOrAreDestroyedUnrunAndNoneRunsAfterTheStop) {
    constexpr int kRounds = 60;
    constexpr int kPosters = 3;
    constexpr int kTasks = 40;
    struct Counts {
        std::atomic<int> ran{0};
        std::atomic<int> destroyed{0};
        std::atomic<bool> stopped{false};
        std::atomic<bool> ranAfterStop{false};
    };
    for (int round = 0; round < kRounds; ++round) {
        Counts counts;
        std::atomic<int> accepted{0};
        std::atomic<int> refused{0};
        std::atomic<int> posting{0};
        WatchedLoop racing;
        std::vector<std::thread> posters;
        for (int poster = 0; poster < kPosters; ++poster) {
            posters.emplace_back([&, poster] {
                ++posting;
                for (int i = 0; i < kTasks; ++i) {
                    auto task = [&counts, end = OnDestruction([&counts] { ++counts.destroyed; })] {
                        counts.ranAfterStop = counts.ranAfterStop || counts.stopped;
                        ++counts.ran;
                    };
                    const bool valid = (i + poster) % 2 == 0
                                           ? racing->PostTask(std::move(task)).valid()
                                           : racing->DelayPostTask(milliseconds(i % 2), std::move(task)).valid();
                    ++(valid ? accepted : refused);
                }
            });
        }
        while (posting == 0) {
            std::this_thread::yield();
        }
        // This thread stops the loop. In even rounds, a task stops it as well.
        if (round % 2 == 0) {
            racing->PostTask([&racing] { racing->stop(); });
        }
        racing->stop();
        if (round % 2 != 0) {
            counts.stopped = true;
        }
        for (std::thread& poster : posters) {
            poster.join();
        }

        EXPECT_EQ(accepted + refused, kPosters * kTasks);
        racing.awaitEnd();
        EXPECT_EQ(counts.destroyed, kPosters * kTasks);
        EXPECT_LE(counts.ran, accepted);
        EXPECT_FALSE(counts.ranAfterStop);
    }
}

}  // namespace
