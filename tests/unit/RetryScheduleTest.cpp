#include <gtest/gtest.h>

#include <limits>

#include "base/RetrySchedule.h"

namespace {

static_assert(kRetryBudget == 10, "a request is sent eleven times at most");
static_assert(retryDelay(3) == 2000, "the schedule is known to the compiler");

// In total, the pauses before the ten retries of a request are 33 s.
TEST(RetryScheduleTest, TheFirstSixEntriesRiseFromOneSecondToTwo) {
    const int expected[] = {1000, 1000, 1000, 2000, 2000, 2000};
    for (int n = 0; n < 6; ++n) {
        EXPECT_EQ(retryDelay(n), expected[n]) << "entry " << n;
    }
}

TEST(RetryScheduleTest, EveryOtherEntryIsFiveSeconds) {
    for (const int n : {6, 7, 10, 11, 1000, std::numeric_limits<int>::max(), -1, -2, std::numeric_limits<int>::min()}) {
        EXPECT_EQ(retryDelay(n), 5000) << "entry " << n;
    }
}

}  // namespace
