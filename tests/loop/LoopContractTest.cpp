// The contract of KstMessageLoop. Built twice, for the real and the virtual-time loop, each with its own LoopDriver.h.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "JournalTask.h"
#include "LoopDriver.h"
#include "WatchedLoop.h"
#include "base/KstMessageLoop.h"

namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using Hold = LoopDriver::Hold;

class LoopContractTest : public testing::Test {
protected:
    std::future<void> post(const std::string& name) { return loop->PostTask(JournalTask(journal, name)); }
    std::future<void> postDelayed(milliseconds delay, const std::string& name) {
        return loop->DelayPostTask(delay, JournalTask(journal, name));
    }

    // Posts a task that adds its name when it runs, but nothing when it is destroyed.
    std::future<void> postEntry(const std::string& name) {
        return loop->PostTask([this, name] { journal.add(name); });
    }
    std::future<void> postEntryDelayed(milliseconds delay, const std::string& name) {
        return loop->DelayPostTask(delay, [this, name] { journal.add(name); });
    }

    // Lets the loop run for `time` on its clock, until no task is due; then the journal must be equal to `sequence`.
    void expectRun(const std::vector<std::string>& sequence, milliseconds time = {}) {
        ASSERT_TRUE(LoopDriver::run(journal, sequence.size(), time));
        LoopDriver::settle(*loop);
        EXPECT_EQ(journal.all(), sequence);
    }

    Journal<std::string> journal;
    WatchedLoop loop;
};

using LoopContractDeathTest = LoopContractTest;

bool isReady(const std::future<void>& future) {
    return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

// ---- Order ----

TEST_F(LoopContractTest, TasksRunOnceEachInTheOrderOfPosting) {
    std::vector<std::string> expected;
    {
        const Hold hold(*loop);
        for (int i = 0; i < 200; ++i) {
            const std::string name = std::to_string(i);
            postEntry(name);
            expected.push_back(name);
        }
    }
    expectRun(expected);
}

TEST_F(LoopContractTest, ATaskIsDestroyedBeforeTheNextBegins) {
    {
        const Hold hold(*loop);
        post("a");
        post("b");
        postDelayed(milliseconds(0), "c");
        postDelayed(milliseconds(1), "d");
    }
    expectRun({"a", "~a", "b", "~b", "c", "~c", "d", "~d"}, milliseconds(1));
}

// Exception to the rule that no test asserts elapsed time: the delay itself is under test.
TEST_F(LoopContractTest, DelayedTasksRunInTheOrderOfTheirDeadlinesAndNoneTooEarly) {
    // The exact deadline is unknown; it lies between `earliest` and `latest`.
    struct Span {
        steady_clock::time_point earliest, latest, ran;
    };
    const int delays[] = {60, 20, 45, 5, 30, 55, 10, 20, 40, 0, 25, 45, 50, 15, 35};
    std::vector<Span> spans(std::size(delays));
    {
        const Hold hold(*loop);
        for (size_t i = 0; i < spans.size(); ++i) {
            const milliseconds delay(delays[i]);
            spans[i].earliest = LoopDriver::now() + delay;
            loop->DelayPostTask(delay, [&, i] {
                spans[i].ran = LoopDriver::now();
                journal.add(std::to_string(i));
            });
            spans[i].latest = LoopDriver::now() + delay;
        }
    }

    ASSERT_TRUE(LoopDriver::run(journal, spans.size(), milliseconds(60)));
    LoopDriver::settle(*loop);

    std::vector<Span> inOrder;
    for (const std::string& entry : journal.all()) {
        inOrder.push_back(spans[std::stoul(entry)]);
    }
    ASSERT_EQ(inOrder.size(), spans.size());
    for (size_t i = 0; i < inOrder.size(); ++i) {
        EXPECT_GE(inOrder[i].ran, inOrder[i].earliest);
        for (size_t j = i + 1; j < inOrder.size(); ++j) {
            EXPECT_FALSE(inOrder[j].latest < inOrder[i].earliest) << "position " << j << " should precede " << i;
        }
    }
}

// Tasks of one kind post themselves again and again. A task of the other kind must still run.
TEST_F(LoopContractTest, ImmediateAndDueDelayedTasksDoNotStarveEachOther) {
    constexpr int kMany = 1000;
    for (const bool isImmediateEndless : {true, false}) {
        Journal<std::string> ended;
        WatchedLoop busy;
        int runs = 0;
        bool otherRan = false;
        std::function<void()> again;
        const auto postEndless = [&] {
            isImmediateEndless ? busy->PostTask(again) : busy->DelayPostTask(milliseconds(-1), again);
        };
        again = [&] { ++runs == kMany || otherRan ? ended.add("end") : postEndless(); };
        {
            const Hold hold(*busy);
            postEndless();
            if (isImmediateEndless) {
                busy->DelayPostTask(milliseconds(0), [&] { otherRan = true; });
            } else {
                postEndless();
                postEndless();
                busy->PostTask([&] { otherRan = true; });
            }
        }
        ASSERT_TRUE(LoopDriver::run(ended, 1));
        busy->stop();
        EXPECT_TRUE(otherRan);
        EXPECT_LT(runs, kMany);
    }
}

// ---- Delays ----

TEST_F(LoopContractTest, ANegativeDelayIsADeadlineInThePast) {
    {
        const Hold hold(*loop);
        postEntryDelayed(milliseconds(0), "now");
        postEntryDelayed(milliseconds(-1000), "a second ago");
        postEntryDelayed(milliseconds(-2000), "two seconds ago");
        postEntryDelayed(milliseconds::min(), "ages ago");
        postEntryDelayed(milliseconds(int64_t{-18'446'740'473'709}), "ages ago");  // as 64-bit nanoseconds: +1 hour
    }
    expectRun({"ages ago", "ages ago", "two seconds ago", "a second ago", "now"});
}

// A task whose move constructor takes 30 ms on the loop's clock, so that its packaging by the loop takes time.
struct SlowToPackage {
    explicit SlowToPackage(Journal<std::string>& target) : journal(&target) {}
    SlowToPackage(SlowToPackage&& other) noexcept : journal(other.journal), packaged(other.packaged) {
        LoopDriver::pass(milliseconds(30));
        *packaged = LoopDriver::now();
    }
    SlowToPackage& operator=(SlowToPackage&&) = delete;
    void operator()() {
        const bool isEarly = LoopDriver::now() - *packaged < milliseconds(20);
        journal->add(isEarly ? "too early" : "in time");
    }

    Journal<std::string>* journal;
    std::shared_ptr<steady_clock::time_point> packaged = std::make_shared<steady_clock::time_point>();
};

// Exception to the rule that no test asserts elapsed time: the delay itself is under test.
TEST_F(LoopContractTest, ADelayIsMeasuredFromTheMomentAtWhichTheTaskIsPackaged) {
    loop->DelayPostTask(milliseconds(20), SlowToPackage(journal));
    expectRun({"in time"}, milliseconds(20));
}

TEST_F(LoopContractTest, TheLongestDelaysNeverComeDueAndDisturbNothing) {
    for (const milliseconds delay : {milliseconds::max(), milliseconds::max() - milliseconds(1),
                                     milliseconds(int64_t{9'223'372'036'854}), milliseconds(int64_t{1} << 62)}) {
        postDelayed(delay, "never");
    }
    LoopDriver::settle(*loop);
    postEntry("now");
    postEntryDelayed(milliseconds(10), "soon");

    expectRun({"now", "soon"}, milliseconds(10));
    loop->stop();
    LoopDriver::drain();
    EXPECT_THAT(journal.all(), ElementsAre("now", "soon", "~never", "~never", "~never", "~never"));
}

TEST_F(LoopContractTest, APostShortensTheWaitOfTheWorkerOnlyIfItsTaskIsDueEarlier) {
    postEntryDelayed(hours(1), "never");
    LoopDriver::settle(*loop);
    postEntryDelayed(milliseconds(20), "early");
    LoopDriver::settle(*loop);
    postEntryDelayed(hours(2), "never");
    postEntryDelayed(milliseconds(60), "later");
    expectRun({"early", "later"}, milliseconds(60));
    postEntry("now");
    expectRun({"early", "later", "now"});
}

TEST_F(LoopContractTest, AnIdleLoopRunsEachTaskThatIsPostedAlone) {
    for (size_t i = 1; i <= 100; ++i) {
        LoopDriver::settle(*loop);
        postEntry("task");
        ASSERT_TRUE(LoopDriver::run(journal, i)) << "task " << i;
    }
}

TEST_F(LoopContractTest, OfTwoDelayedTasksTheHeapOrdersTheLaterDeadlineAsLess) {
    const auto start = steady_clock::now();
    const DelayTask early{start, [] {}};
    const DelayTask late{start + std::chrono::nanoseconds(1), [] {}};
    EXPECT_TRUE(DelayTaskCmp()(late, early));
    EXPECT_FALSE(DelayTaskCmp()(early, late));
    EXPECT_FALSE(DelayTaskCmp()(early, early));
}

// ---- Futures ----

TEST_F(LoopContractTest, TheFutureBecomesReadyOnceTheTaskHasRun) {
    std::future<void> immediate;
    std::future<void> delayed;
    bool isReadyInside = true;
    {
        const Hold hold(*loop);
        immediate = loop->PostTask([&] {
            isReadyInside = isReady(immediate);
            journal.add("immediate");
        });
        delayed = postEntryDelayed(milliseconds(1), "delayed");
        ASSERT_TRUE(immediate.valid());
        ASSERT_TRUE(delayed.valid());
        EXPECT_FALSE(isReady(immediate));
        EXPECT_FALSE(isReady(delayed));
    }
    expectRun({"immediate", "delayed"}, milliseconds(1));
    EXPECT_FALSE(isReadyInside);
    EXPECT_TRUE(isReady(immediate));
    EXPECT_TRUE(isReady(delayed));
}

// ---- Callables ----

TEST_F(LoopContractTest, ATaskPostedAsAnLvalueIsCopied) {
    auto shared = std::make_shared<int>(0);  // not const: a const capture would hide a wrong move
    auto task = [this, shared] { journal.add(shared ? "ran" : "lost its capture"); };
    const auto& constTask = task;
    {
        const Hold hold(*loop);
        loop->PostTask(task);
        loop->DelayPostTask(milliseconds(0), constTask);
        EXPECT_EQ(shared.use_count(), 4) << "`shared`, `task` and the two posted copies";
    }
    expectRun({"ran", "ran"});
    EXPECT_EQ(shared.use_count(), 2) << "both copies are destroyed";
}

int plainFunctionCalls = 0;
void plainFunction() {
    ++plainFunctionCalls;
}

TEST_F(LoopContractTest, APlainFunctionIsATask) {
    plainFunctionCalls = 0;
    loop->PostTask(plainFunction);
    loop->DelayPostTask(milliseconds(0), &plainFunction);
    postEntryDelayed(milliseconds(1), "end");
    expectRun({"end"}, milliseconds(1));
    loop->stop();
    EXPECT_EQ(plainFunctionCalls, 2);
}

// ---- Posting from tasks ----

TEST_F(LoopContractTest, ATaskPostedByATaskRunsBehindThoseAlreadyQueued) {
    {
        const Hold hold(*loop);
        loop->PostTask([this] {
            postEntryDelayed(milliseconds(2), "d");
            postEntry("c");
            journal.add("a");
        });
        postEntry("b");
    }
    expectRun({"a", "b", "c", "d"}, milliseconds(2));
}

TEST_F(LoopContractTest, TheDestructorOfATaskThatRanMayPost) {
    auto postsWhenDestroyed = OnDestruction([this] {
        postEntry("posted");
        postEntryDelayed(milliseconds(1), "posted delayed");
    });
    loop->PostTask([this, end = std::move(postsWhenDestroyed)] { journal.add("ran"); });
    expectRun({"ran", "posted", "posted delayed"}, milliseconds(1));
}

TEST_F(LoopContractTest, TheDestructorOfATaskThatRanMayStop) {
    {
        const Hold hold(*loop);
        loop->PostTask([this, end = OnDestruction([this] { loop->stop(); })] { journal.add("ran"); });
        post("unrun");
    }
    ASSERT_TRUE(LoopDriver::run(journal, 2));
    LoopDriver::drain();
    EXPECT_THAT(journal.all(), ElementsAre("ran", "~unrun"));
}

// ---- Stop ----

TEST_F(LoopContractTest, APostAfterStopGivesAnEmptyFutureAndDestroysTheTaskUnrun) {
    post("before");
    ASSERT_TRUE(LoopDriver::run(journal, 2));
    loop->stop();
    loop->stop();  // a second call has no effect

    EXPECT_FALSE(post("a").valid());
    EXPECT_FALSE(postDelayed(milliseconds(0), "b").valid());
    EXPECT_FALSE(postDelayed(hours(1), "c").valid());

    LoopDriver::drain();
    EXPECT_THAT(journal.all(), ElementsAre("before", "~before", "~a", "~b", "~c"));
}

TEST_F(LoopContractTest, ALoopStoppedBeforeAnyPostRefusesAllPostsAndLoopReturns) {
    loop->stop();
    loop->Loop();
    EXPECT_FALSE(post("a").valid());
    EXPECT_FALSE(postDelayed(milliseconds(0), "b").valid());
    LoopDriver::drain();
    EXPECT_THAT(journal.all(), ElementsAre("~a", "~b"));
}

TEST_F(LoopContractTest, StopDestroysWhatHasNotBegunUnrun) {
    postDelayed(hours(1), "a");
    postDelayed(hours(2), "b");
    LoopDriver::settle(*loop);
    EXPECT_THAT(journal.all(), IsEmpty());

    loop->stop();
    EXPECT_THAT(journal.all(), UnorderedElementsAre("~a", "~b"));
    LoopDriver::drain();
    EXPECT_EQ(journal.size(), 2u);
}

TEST_F(LoopContractTest, StopOnTheWorkerDestroysWhatHasNotBegunAndTheRunningTaskEnds) {
    {
        const Hold hold(*loop);
        loop->PostTask([this] {
            loop->stop();
            loop->stop();
            journal.add("ends");
        });
        post("a");
        post("b");
        postDelayed(milliseconds(0), "c");
        postDelayed(hours(1), "d");
    }
    ASSERT_TRUE(LoopDriver::run(journal, 5));
    LoopDriver::drain();
    EXPECT_THAT(journal.all(), UnorderedElementsAre("~a", "~b", "~c", "~d", "ends"));
    EXPECT_EQ(journal.all().back(), "ends") << "stop() destroys the pending tasks before it returns";
    loop->stop();
    EXPECT_FALSE(post("e").valid());
}

TEST_F(LoopContractTest, TheDestructorOfATaskThatIsNotRunMayPostAndStop) {
    for (const bool stopsOnWorker : {true, false}) {
        Journal<std::string> outcome;
        const WatchedLoop stopped;
        const auto end = [&] {
            return OnDestruction([&] {
                const bool isAccepted =
                    stopped->PostTask([] {}).valid() || stopped->DelayPostTask(milliseconds(0), [] {}).valid();
                stopped->stop();
                outcome.add(isAccepted ? "accepted" : "refused");
            });
        };
        {
            const Hold hold(*stopped);
            stopped->DelayPostTask(hours(1), [end = end()] {});
            if (stopsOnWorker) {
                stopped->PostTask([&] { stopped->stop(); });
                stopped->PostTask([&, end = end()] { outcome.add("ran"); });
            }
        }
        if (stopsOnWorker) {
            ASSERT_TRUE(LoopDriver::run(outcome, 2));
        }
        stopped->stop();
        stopped->PostTask([end = end()] {});
        EXPECT_THAT(outcome.all(), testing::Each("refused"));
        EXPECT_EQ(outcome.size(), stopsOnWorker ? 3u : 2u);
    }
}

// ---- Ownership ----

TEST_F(LoopContractTest, ALoopWithoutAPostEndsWithItsLastReference) {
    EXPECT_EQ(loop.awaitEnd(), std::this_thread::get_id());
}

TEST_F(LoopContractTest, AStoppedLoopEndsWithItsLastReference) {
    post("a");
    postDelayed(hours(1), "b");
    ASSERT_TRUE(LoopDriver::run(journal, 2));
    loop->stop();
    EXPECT_EQ(loop.awaitEnd(), std::this_thread::get_id());
    EXPECT_THAT(journal.all(), ElementsAre("a", "~a", "~b"));
}

TEST_F(LoopContractTest, ALoopThatLosesItsLastReferenceInItsOwnTaskIsDestroyedOnThatThread) {
    std::thread::id worker;
    postDelayed(hours(1), "unrun");
    {
        const Hold hold(*loop);
        KstMessageLoop& itself = *loop;
        itself.PostTask([this, &worker, owner = loop.release()]() mutable {
            worker = std::this_thread::get_id();
            owner->stop();
            owner.reset();
            journal.add("released");
        });
    }
    ASSERT_TRUE(LoopDriver::run(journal, 2));
    EXPECT_EQ(loop.awaitEnd(), worker);
    EXPECT_THAT(journal.all(), ElementsAre("~unrun", "released"));
}

TEST_F(LoopContractTest, TwoLoopsRunTheirOwnTasks) {
    const WatchedLoop other;
    other->PostTask([this] { journal.add("other"); });
    ASSERT_TRUE(LoopDriver::run(journal, 1));
    other->stop();

    post("a");
    expectRun({"other", "a", "~a"});
}

TEST_F(LoopContractDeathTest, PostingOnALoopThatNoSharedPointerOwnsEndsTheProcess) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    KstMessageLoop unowned;
    EXPECT_DEATH(unowned.PostTask([] {}), "");
    EXPECT_DEATH(unowned.DelayPostTask(milliseconds(1), [] {}), "");
}

}  // namespace
