// What the real loop takes from the system: memory for each post, and one thread.

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
    // The worker is held, so that only this thread allocates.
    LoopResourcesTest() : mHold(std::make_unique<LoopDriver::Hold>(*loop)) {}
    ~LoopResourcesTest() override {
        mHold.reset();
        loop->stop();
    }

    // The allocations of `times` calls.
    template <class F>
    static size_t allocationsOf(size_t times, F call) {
        const size_t before = allocations;
        for (size_t i = 0; i < times; ++i) {
            call();
        }
        return allocations - before;
    }

    std::shared_ptr<KstMessageLoop> loop = std::make_shared<KstMessageLoop>();

private:
    std::unique_ptr<LoopDriver::Hold> mHold;
};

// What a task and its future cost without any loop: the standard library's own share.
size_t allocationsOfOnePackagedTask() {
    const size_t before = allocations;
    {
        const auto task = std::make_shared<std::packaged_task<void()>>([] {});
        task->get_future();
    }
    return allocations - before;
}

TEST_F(LoopResourcesTest, AnImmediatePostAllocatesThePackagedTaskAndNowAndThenRoomInTheQueue) {
    const size_t used = allocationsOf(kPosts, [this] { loop->PostTask([] {}); });
    EXPECT_GE(used, kPosts * allocationsOfOnePackagedTask());
    EXPECT_LE(used, kPosts * allocationsOfOnePackagedTask() + kPosts / 16);
}

TEST_F(LoopResourcesTest, ADelayedPostAllocatesThePackagedTaskOnceTheHeapHasGrown) {
    allocationsOf(kPosts, [this] { loop->DelayPostTask(hours(1), [] {}); });
    // The heap doubles, so there is room for almost as many again after one more growth.
    const size_t used = allocationsOf(kPosts - 1, [this] { loop->DelayPostTask(hours(1), [] {}); });
    EXPECT_GE(used, (kPosts - 1) * allocationsOfOnePackagedTask());
    EXPECT_LE(used, (kPosts - 1) * allocationsOfOnePackagedTask() + 1);
}

TEST_F(LoopResourcesTest, ARefusedPostAllocatesNothing) {
    const auto stopped = std::make_shared<KstMessageLoop>();
    stopped->stop();
    EXPECT_EQ(allocationsOf(1, [&] { stopped->PostTask([] {}); }), 0u);
    EXPECT_EQ(allocationsOf(1, [&] { stopped->DelayPostTask(hours(1), [] {}); }), 0u);
}

TEST(LoopThreadDeathTest, AWorkerThatCannotBeStartedEndsTheProcess) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    // Without a handler on the way, as in the adapter and its threads.
    const auto post = []() noexcept {
        const auto loop = std::make_shared<KstMessageLoop>();
        refuseThreads = true;
        loop->PostTask([] {});
    };
    const auto postDelayed = []() noexcept {
        const auto loop = std::make_shared<KstMessageLoop>();
        refuseThreads = true;
        loop->DelayPostTask(hours(1), [] {});
    };
    EXPECT_DEATH(post(), "terminate called");
    EXPECT_DEATH(postDelayed(), "terminate called");
}

}  // namespace
