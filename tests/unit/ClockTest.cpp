#include <gtest/gtest.h>

#include <chrono>

#include "base/Clock.h"

namespace {

template <class Clock>
uint64_t millisecondsOf() {
    const auto sinceOrigin = Clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(sinceOrigin).count());
}

TEST(ClockTest, TheTickCountIsTheMonotonicClockInMilliseconds) {
    const uint64_t before = millisecondsOf<std::chrono::steady_clock>();
    const uint64_t tick = kstf_gettickcount();
    const uint64_t after = millisecondsOf<std::chrono::steady_clock>();

    EXPECT_LE(before, tick);
    EXPECT_LE(tick, after);
}

TEST(ClockTest, TheUtcTickIsMillisecondsSince1970) {
    const uint64_t before = millisecondsOf<std::chrono::system_clock>();
    const uint64_t tick = kstf_getutctick();
    const uint64_t after = millisecondsOf<std::chrono::system_clock>();

    EXPECT_LE(before, tick);
    EXPECT_LE(tick, after);
}

}  // namespace
