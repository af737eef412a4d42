// The resources of the real loop: the allocations of each post, and its thread.

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>

#include "CountedSystem.h"
#include "LoopDriver.h"
#include "base/KstMessageLoop.h"

namespace {

using std::chrono::hours;

constexpr size_t kPosts = 512;

class LoopResourcesTest : public testing::Test {
protected:
    // The worker is held: it would allocate, too.
    LoopResourcesTest() : mHold(std::make_unique<LoopDriver::Hold>(*loop)) {}
    ~LoopResourcesTest() override {
        mHold.reset();
        loop->stop();
    }

    // The number of allocations during `times` calls.
    template <class F>
    static size_t allocationsOf(size_t times, F call) {
        const size_t before = allocations;
        for (size_t i = 0; i < times; ++i) {
            call();
        }
        return allocations - before;
    }

    // Lets the queued tasks run, and then holds the worker again.
    void releaseAndHold() {
        mHold.reset();
        mHold = std::make_unique<LoopDriver::Hold>(*loop);
    }

    std::shared_ptr<KstMessageLoop> loop = std::make_shared<KstMessageLoop>();

private:
    std::unique_ptr<LoopDriver::Hold> mHold;
};

// The allocations of one std::packaged_task: the task with its callable, and the result that its future reads.
constexpr size_t kPackagedTask = 2;

TEST_F(LoopResourcesTest, AnImmediatePostAllocatesThePackagedTaskOnceTheQueueHasGrown) {
    const size_t growing = allocationsOf(kPosts, [this] { loop->PostTask([] {}); });
    EXPECT_LE(growing, kPosts * kPackagedTask + 10);
    // The queue doubles its capacity when it grows. So it grows at most once during the next kPosts - 1 posts.
    const size_t used = allocationsOf(kPosts - 1, [this] { loop->PostTask([] {}); });
    EXPECT_GE(used, (kPosts - 1) * kPackagedTask);
    EXPECT_LE(used, (kPosts - 1) * kPackagedTask + 1);
}

TEST_F(LoopResourcesTest, AQueueThatEmptiesAndFillsAgainRetainsItsCapacity) {
    constexpr size_t kRounds = 16;
    constexpr size_t kGrowth = 2 * 10;  // two queues (waiting and running) grow from 0 to kPosts once
    size_t used = 0;
    for (size_t round = 0; round < kRounds; ++round) {
        used += allocationsOf(kPosts, [this] { loop->PostTask([] {}); });
        releaseAndHold();
    }
    EXPECT_GE(used, kRounds * kPosts * kPackagedTask);
    EXPECT_LE(used, kRounds * kPosts * kPackagedTask + kGrowth);
}

TEST_F(LoopResourcesTest, ADelayedPostAllocatesThePackagedTaskOnceTheHeapHasGrown) {
    allocationsOf(kPosts, [this] { loop->DelayPostTask(hours(1), [] {}); });
    const size_t used = allocationsOf(kPosts - 1, [this] { loop->DelayPostTask(hours(1), [] {}); });
    EXPECT_GE(used, (kPosts - 1) * kPackagedTask);
    EXPECT_LE(used, (kPosts - 1) * kPackagedTask + 1);
}

TEST_F(LoopResourcesTest, ALoopThatWasNeverPostedToAllocatesNothing) {
    EXPECT_EQ(allocationsOf(1, [] { KstMessageLoop(); }), 0u);
}

TEST_F(LoopResourcesTest, ARefusedPostAllocatesNothing) {
    const auto stopped = std::make_shared<KstMessageLoop>();
    stopped->stop();
    EXPECT_EQ(allocationsOf(1, [&] { stopped->PostTask([] {}); }), 0u);
    EXPECT_EQ(allocationsOf(1, [&] { stopped->DelayPostTask(hours(1), [] {}); }), 0u);
}

// noexcept like the threads of the adapter, in which nothing handles this exception. The loop is never destroyed: it is
// unusable after the exception, and clang unwinds the stack before it terminates.
template <class F>
void postWithoutThreads(F post) noexcept {
    auto& loop = *new std::shared_ptr<KstMessageLoop>(std::make_shared<KstMessageLoop>());
    refuseThreads = true;
    post(loop);
}

TEST(LoopThreadDeathTest, AWorkerThatCannotBeStartedEndsTheProcess) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(postWithoutThreads([](auto& loop) { loop->PostTask([] {}); }), "terminate called");
    EXPECT_DEATH(postWithoutThreads([](auto& loop) { loop->DelayPostTask(hours(1), [] {}); }), "terminate called");
}

}  // namespace
