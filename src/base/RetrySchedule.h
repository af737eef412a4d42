/// @file
/// When the adapter sends a failed request again. A progress display can show this schedule.

#ifndef VEXALIVE_BASE_RETRY_SCHEDULE_H
#define VEXALIVE_BASE_RETRY_SCHEDULE_H

#include <cstdint>

/// The maximum number of retries of a request. A request is thus sent at most kRetryBudget + 1 times.
constexpr int32_t kRetryBudget = 10;

/// The delay before retry `n`, in milliseconds. The adapter counts retries from 1, so it never uses the entry for 0.
constexpr int retryDelay(int n) {
    constexpr int kDelays[] = {1000, 1000, 1000, 2000, 2000, 2000};
    return n >= 0 && n <= 5 ? kDelays[n] : 5000;
}

#endif
