// The contract of KstMessageLoop. The file is built twice: for the real loop and for the one in virtual time, each with
// the LoopDriver.h that the include path finds first.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
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

    // A task that adds its name when it runs.
    std::future<void> postEntry(const std::string& name) {
        return loop->PostTask([this, name] { journal.add(name); });
    }
    std::future<void> postEntryDelayed(milliseconds delay, const std::string& name) {
        return loop->DelayPostTask(delay, [this, name] { journal.add(name); });
    }

    // Lets `sequence.size()` entries come, within `time` on the loop's clock; they must be these.
    void expectRun(const std::vector<std::string>& sequence, milliseconds time = {}) {
        ASSERT_TRUE(LoopDriver::run(journal, sequence.size(), time));
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
    ASSERT_TRUE(LoopDriver::run(journal, 200));
    LoopDriver::settle(*loop);
    EXPECT_EQ(journal.all(), expected);
}

TEST_F(LoopContractTest, ATaskIsDestroyedBeforeTheNextBegins) {
    {
        const Hold hold(*loop);
        post("a");
        post("b");
    }
    expectRun({"a", "~a", "b", "~b"});
}

TEST_F(LoopContractTest, ADelayedTaskIsDestroyedBeforeTheNextBegins) {
    {
        const Hold hold(*loop);
        postDelayed(milliseconds(0), "a");
        postDelayed(milliseconds(1), "b");
    }
    expectRun({"a", "~a", "b", "~b"}, milliseconds(1));
}

// The subject is the timer, so this measures time.
TEST_F(LoopContractTest, DelayedTasksRunInTheOrderOfTheirDeadlinesAndNoneTooEarly) {
    // given tasks whose deadlines lie between two known moments each
    struct Span {
        steady_clock::time_point earliest, latest, ran;
    };
    const int delays[] = {60, 20, 45, 5, 30, 55, 10, 40, 0, 25, 50, 15, 35};
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

    // then no task ran before its deadline, or before one whose deadline is surely earlier
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

TEST_F(LoopContractTest, DelayedTasksOfEqualDelayAllRun) {
    {
        const Hold hold(*loop);
        for (const char* name : {"a", "b", "c", "d"}) {
            postEntryDelayed(milliseconds(10), name);
        }
    }
    ASSERT_TRUE(LoopDriver::run(journal, 4, milliseconds(10)));
    LoopDriver::settle(*loop);
    EXPECT_THAT(journal.all(), UnorderedElementsAre("a", "b", "c", "d"));
}

TEST_F(LoopContractTest, AnImmediateTaskDoesNotWaitForADelayedOnePostedBefore) {
    postDelayed(hours(1), "late");
    post("now");
    expectRun({"now", "~now"});
}

// One kind of task posts itself again and again; a task of the other kind runs nevertheless.
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

TEST_F(LoopContractTest, ADelayOfZeroOrLessIsDueAtOnce) {
    {
        const Hold hold(*loop);
        postEntryDelayed(milliseconds(0), "zero");
        postEntryDelayed(milliseconds(-1), "negative");
        postEntryDelayed(milliseconds::min(), "lowest");
        postEntryDelayed(milliseconds(int64_t{-18'446'740'473'709}), "an hour, if it wraps");
    }
    ASSERT_TRUE(LoopDriver::run(journal, 4));
    EXPECT_THAT(journal.all(), UnorderedElementsAre("zero", "negative", "lowest", "an hour, if it wraps"));
}

TEST_F(LoopContractTest, ANegativeDelayIsADeadlineInThePast) {
    {
        const Hold hold(*loop);
        for (const int delay : {0, -1000, -2000}) {
            postEntryDelayed(milliseconds(delay), std::to_string(delay));
        }
    }
    expectRun({"-2000", "-1000", "0"});
}

// Takes time to package: its move constructor lasts 30 ms on the loop's clock.
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

// The subject is the timer, so this measures time.
TEST_F(LoopContractTest, ADelayIsMeasuredFromTheMomentAtWhichTheTaskIsPackaged) {
    loop->DelayPostTask(milliseconds(20), SlowToPackage(journal));
    expectRun({"in time"}, milliseconds(20));
}

// The subject is the timer, so this measures time.
TEST_F(LoopContractTest, ADelayIsMeasuredFromTheMomentOfPosting) {
    // given a delayed task whose deadline passes while the worker is busy
    steady_clock::time_point posted;
    steady_clock::time_point ran;
    {
        const Hold hold(*loop);
        posted = LoopDriver::now();
        loop->DelayPostTask(milliseconds(20), [&] {
            ran = LoopDriver::now();
            journal.add("ran");
        });
        postEntry("before");
    }
    expectRun({"before", "ran"}, milliseconds(20));
    EXPECT_GE(ran - posted, milliseconds(20));
}

TEST_F(LoopContractTest, TheLongestDelaysNeverComeDueAndDisturbNothing) {
    for (const milliseconds delay : {milliseconds::max(), milliseconds::max() - milliseconds(1),
                                     milliseconds(int64_t{9'223'372'036'854}), milliseconds(int64_t{1} << 62)}) {
        postDelayed(delay, "never");
    }
    LoopDriver::settle(*loop);
    postEntry("now");
    postEntryDelayed(milliseconds(10), "soon");

    ASSERT_TRUE(LoopDriver::run(journal, 2, milliseconds(10)));
    LoopDriver::settle(*loop);
    EXPECT_THAT(journal.all(), ElementsAre("now", "soon"));

    loop->stop();
    LoopDriver::drain();
    EXPECT_THAT(journal.all(), ElementsAre("now", "soon", "~never", "~never", "~never", "~never"));
}

TEST_F(LoopContractTest, APostDuringAWaitShortensItIfItIsDueEarlierAndElseLeavesIt) {
    postEntryDelayed(hours(1), "never");
    LoopDriver::settle(*loop);
    postEntryDelayed(milliseconds(20), "early");
    LoopDriver::settle(*loop);
    postEntryDelayed(hours(2), "never");
    postEntryDelayed(milliseconds(60), "later");
    expectRun({"early", "later"}, milliseconds(60));
    LoopDriver::settle(*loop);
    postEntry("now");
    expectRun({"early", "later", "now"});
}

TEST_F(LoopContractTest, AnIdleLoopRunsEveryTaskThatComesSinglyLater) {
    for (size_t i = 1; i <= 100; ++i) {
        LoopDriver::settle(*loop);
        postEntry("task");
        ASSERT_TRUE(LoopDriver::run(journal, i)) << "task " << i;
    }
}

TEST_F(LoopContractTest, TheTaskWithTheEarliestDeadlineIsAtTheFrontOfTheHeap) {
    const auto start = steady_clock::now();
    std::vector<DelayTask> heap;
    for (const int delay : {2000, 1000, 1500, 500, 3000}) {
        heap.push_back(DelayTask{start + milliseconds(delay), [] {}});
        std::push_heap(heap.begin(), heap.end(), DelayTaskCmp());
        if (delay == 1000) {
            EXPECT_EQ(heap.front().deadline, start + milliseconds(1000));
        }
    }
    for (const int delay : {500, 1000, 1500, 2000, 3000}) {
        EXPECT_EQ(heap.front().deadline, start + milliseconds(delay));
        std::pop_heap(heap.begin(), heap.end(), DelayTaskCmp());
        heap.pop_back();
    }
}

TEST_F(LoopContractTest, TheHeapComparesDeadlinesOnlyTheLaterOneIsLess) {
    const auto start = steady_clock::now();
    const DelayTask early{start, [] {}};
    const DelayTask late{start + std::chrono::nanoseconds(1), [] {}};
    EXPECT_TRUE(DelayTaskCmp()(late, early));
    EXPECT_FALSE(DelayTaskCmp()(early, late));
    EXPECT_FALSE(DelayTaskCmp()(early, early));
}

TEST_F(LoopContractTest, ADelayedTaskIsADeadlineAndThenATask) {
    bool ran = false;
    DelayTask entry{steady_clock::time_point(), [&ran] { ran = true; }};
    auto& [deadline, task] = entry;
    static_assert(std::is_same<decltype(deadline), steady_clock::time_point>::value, "the deadline comes first");
    static_assert(std::is_same<steady_clock::duration, std::chrono::nanoseconds>::value, "in nanoseconds");
    task();
    EXPECT_TRUE(ran);
}

// ---- Futures ----

TEST_F(LoopContractTest, TheFutureBecomesReadyWhenTheTaskHasRun) {
    std::future<void> immediate;
    std::future<void> delayed;
    {
        const Hold hold(*loop);
        immediate = postEntry("immediate");
        delayed = postEntryDelayed(milliseconds(1), "delayed");
        ASSERT_TRUE(immediate.valid());
        ASSERT_TRUE(delayed.valid());
        EXPECT_FALSE(isReady(immediate));
        EXPECT_FALSE(isReady(delayed));
    }
    ASSERT_TRUE(LoopDriver::run(journal, 2, milliseconds(1)));
    LoopDriver::settle(*loop);
    EXPECT_TRUE(isReady(immediate));
    EXPECT_TRUE(isReady(delayed));
    EXPECT_THAT(journal.all(), ElementsAre("immediate", "delayed"));
}

TEST_F(LoopContractTest, TheFutureIsNotYetReadyWhileTheTaskRuns) {
    bool readyInside = true;
    std::future<void> done;
    {
        const Hold hold(*loop);
        done = loop->PostTask([&] {
            readyInside = isReady(done);
            journal.add("ran");
        });
    }
    ASSERT_TRUE(LoopDriver::run(journal, 1));
    LoopDriver::settle(*loop);
    EXPECT_FALSE(readyInside);
    EXPECT_TRUE(isReady(done));
}

TEST_F(LoopContractTest, DestroyingTheFutureDoesNotWaitForTheTask) {
    {
        const Hold hold(*loop);
        { const std::future<void> dropped = postEntry("immediate"); }
        { const std::future<void> dropped = postEntryDelayed(milliseconds(1), "delayed"); }
        EXPECT_THAT(journal.all(), IsEmpty());
    }
    expectRun({"immediate", "delayed"}, milliseconds(1));
}

// ---- Callables ----

TEST_F(LoopContractTest, ATaskThatCanOnlyBeMovedIsMovedInAndNeverCopied) {
    auto owned = std::make_unique<int>(7);
    int seen = 0;
    loop->PostTask([&, owned = std::move(owned)] {
        seen = *owned;
        journal.add("ran");
    });
    ASSERT_TRUE(LoopDriver::run(journal, 1));
    EXPECT_EQ(seen, 7);
}

TEST_F(LoopContractTest, ATaskGivenByNameIsCopiedAndStaysWithItsOwner) {
    auto shared = std::make_shared<int>(0);  // not const, so that a move from a copy of the task would be noticed
    auto task = [this, shared] { journal.add(shared ? "ran" : "lost its capture"); };
    const auto& constTask = task;
    {
        const Hold hold(*loop);
        loop->PostTask(task);
        loop->DelayPostTask(milliseconds(0), constTask);
        EXPECT_EQ(shared.use_count(), 4) << "the owner's, the named task's and one of each copy";
    }
    ASSERT_TRUE(LoopDriver::run(journal, 2));
    LoopDriver::settle(*loop);
    EXPECT_EQ(shared.use_count(), 2) << "both copies are gone";
    EXPECT_THAT(journal.all(), ElementsAre("ran", "ran"));
}

int plainFunctionCalls = 0;
void plainFunction() {
    ++plainFunctionCalls;
}

TEST_F(LoopContractTest, APlainFunctionIsATask) {
    plainFunctionCalls = 0;
    {
        const Hold hold(*loop);
        loop->PostTask(plainFunction);
        loop->DelayPostTask(milliseconds(0), &plainFunction);
        postEntryDelayed(milliseconds(1), "end");
    }
    ASSERT_TRUE(LoopDriver::run(journal, 1, milliseconds(1)));
    loop->stop();
    EXPECT_EQ(plainFunctionCalls, 2);
}

// ---- Posting from tasks ----

TEST_F(LoopContractTest, ATaskPostedByATaskRunsBehindThoseAlreadyQueued) {
    {
        const Hold hold(*loop);
        loop->PostTask([this] {
            postEntry("c");
            journal.add("a");
        });
        postEntry("b");
    }
    ASSERT_TRUE(LoopDriver::run(journal, 3));
    EXPECT_THAT(journal.all(), ElementsAre("a", "b", "c")) << "none runs inside the call that posts it";
}

TEST_F(LoopContractTest, ATaskMayPostDelayedTasks) {
    loop->PostTask([this] {
        loop->DelayPostTask(milliseconds(2), [this] {
            postEntryDelayed(milliseconds(2), "third");
            journal.add("second");
        });
        journal.add("first");
    });
    expectRun({"first", "second", "third"}, milliseconds(4));
}

TEST_F(LoopContractTest, TheDestructorOfATaskThatRanMayPost) {
    auto postsWhenDestroyed = AtTheEnd([this] {
        postEntry("posted");
        postEntryDelayed(milliseconds(1), "posted delayed");
    });
    loop->PostTask([this, end = std::move(postsWhenDestroyed)] { journal.add("ran"); });
    expectRun({"ran", "posted", "posted delayed"}, milliseconds(1));
}

TEST_F(LoopContractTest, TheDestructorOfATaskThatRanMayStop) {
    {
        const Hold hold(*loop);
        loop->PostTask([this, end = AtTheEnd([this] { loop->stop(); })] { journal.add("ran"); });
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
    loop->stop();  // has no further effect

    EXPECT_FALSE(post("a").valid());
    EXPECT_FALSE(postDelayed(milliseconds(0), "b").valid());
    EXPECT_FALSE(postDelayed(hours(1), "c").valid());

    LoopDriver::drain();
    EXPECT_THAT(journal.all(), ElementsAre("before", "~before", "~a", "~b", "~c"));
}

TEST_F(LoopContractTest, ALoopStoppedBeforeAnyPostRefusesThemAll) {
    loop->stop();
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
    EXPECT_EQ(journal.all().back(), "ends") << "stop has destroyed them by the time it returns";
    EXPECT_FALSE(post("e").valid());
}

TEST_F(LoopContractTest, StopMayBeCalledAgainOnTheWorkerAndAfterwards) {
    postDelayed(hours(1), "a");
    loop->PostTask([this] {
        loop->stop();
        loop->stop();
        journal.add("stopped");
    });
    expectRun({"~a", "stopped"});
    loop->stop();
    loop->stop();
    EXPECT_FALSE(post("b").valid());
    EXPECT_THAT(journal.all(), ElementsAre("~a", "stopped", "~b"));
}

TEST_F(LoopContractTest, TheDestructorOfATaskThatIsNotRunMayPostAndStop) {
    const auto end = [this] {
        return AtTheEnd([this] {
            const bool isAccepted =
                loop->PostTask([] {}).valid() || loop->DelayPostTask(milliseconds(0), [] {}).valid();
            loop->stop();
            journal.add(isAccepted || loop->PostTask([] {}).valid() ? "accepted" : "refused");
        });
    };
    // Two are queued when the worker stops; one is refused.
    {
        const Hold hold(*loop);
        loop->DelayPostTask(hours(1), [end = end()] {});
        loop->PostTask([this] { loop->stop(); });
        loop->PostTask([this, end = end()] { journal.add("ran"); });
    }
    ASSERT_TRUE(LoopDriver::run(journal, 2));
    LoopDriver::drain();
    loop->PostTask([end = end()] {});
    EXPECT_THAT(journal.all(), ElementsAre("refused", "refused", "refused"));

    const WatchedLoop other;
    Journal<std::string> outcome;
    other->DelayPostTask(hours(1), [end = AtTheEnd([&] {
                                        other->stop();
                                        outcome.add(other->PostTask([] {}).valid() ? "accepted" : "refused");
                                    })] {});
    LoopDriver::settle(*other);
    other->stop();  // on a thread that is not the worker
    EXPECT_THAT(outcome.all(), ElementsAre("refused"));
}

TEST_F(LoopContractTest, TheLoopsBodyReturnsAtOnceAfterStop) {
    loop->stop();
    loop->Loop();
    EXPECT_FALSE(post("a").valid());
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

TEST_F(LoopContractTest, ALoopMayLoseItsLastReferenceInItsOwnTask) {
    postDelayed(hours(1), "unrun");
    {
        const Hold hold(*loop);
        KstMessageLoop& itself = *loop;
        itself.PostTask([this, owner = loop.take()]() mutable {
            owner->stop();
            owner.reset();
            journal.add("let go");
        });
    }
    ASSERT_TRUE(LoopDriver::run(journal, 2));
    loop.awaitEnd();
    EXPECT_THAT(journal.all(), ElementsAre("~unrun", "let go"));
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
    EXPECT_DEATH(
        {
            KstMessageLoop unowned;
            unowned.PostTask([] {});
        },
        "");
    EXPECT_DEATH(
        {
            KstMessageLoop unowned;
            unowned.DelayPostTask(milliseconds(1), [] {});
        },
        "");
}

}  // namespace
