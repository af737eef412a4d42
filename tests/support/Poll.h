#ifndef VEXALIVE_TESTS_SUPPORT_POLL_H
#define VEXALIVE_TESTS_SUPPORT_POLL_H

#include <chrono>
#include <thread>

#include "support/Journal.h"

// Polls until the condition holds; false on a timeout.
template <class Condition>
bool pollUntil(Condition holds, std::chrono::milliseconds timeout = kTestTimeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

#endif
