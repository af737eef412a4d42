// When a request that failed is sent again: the adapter follows this schedule, and a progress display can show it.

#ifndef VEXALIVE_BASE_RETRY_SCHEDULE_H
#define VEXALIVE_BASE_RETRY_SCHEDULE_H

#include <cstdint>

// Retries that follow a first send at most; a request is thus sent at most kRetryBudget + 1 times.
constexpr int32_t kRetryBudget = 10;

// Milliseconds to wait before retry n. Retries are counted from 1, so the entry for 0 is never waited for.
constexpr int retryDelay(int n) {
    constexpr int kDelays[] = {1000, 1000, 1000, 2000, 2000, 2000};
    return n >= 0 && n <= 5 ? kDelays[n] : 5000;
}

#endif
