// Drives the real loop for LoopContractTest. The worker runs by itself, so these functions only wait for it.

#ifndef VEXALIVE_TESTS_LOOP_LOOP_DRIVER_H
#define VEXALIVE_TESTS_LOOP_LOOP_DRIVER_H

#include <unistd.h>

#include <chrono>
#include <fstream>
#include <future>
#include <iterator>
#include <string>
#include <thread>
#include <utility>

#include "base/KstMessageLoop.h"
#include "support/Journal.h"

class LoopDriver {
public:
    static std::chrono::steady_clock::time_point now() { return std::chrono::steady_clock::now(); }
    static void pass(std::chrono::milliseconds time) { std::this_thread::sleep_for(time); }

    // While a Hold exists, the loop begins no other task: the worker runs a task that waits for the Hold's destructor.
    class Hold {
    public:
        explicit Hold(KstMessageLoop& loop) {
            std::promise<void> begun;
            const std::future<void> hasBegun = begun.get_future();
            loop.PostTask([begun = std::move(begun), open = mOpen.get_future()]() mutable {
                begun.set_value();
                open.wait();
            });
            hasBegun.wait();
        }
        ~Hold() { mOpen.set_value(); }
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;

    private:
        std::promise<void> mOpen;
    };

    // Waits until the journal has `count` entries; false on a timeout.
    static bool run(Journal<std::string>& journal, size_t count, std::chrono::milliseconds /*time*/ = {}) {
        return journal.await(count);
    }

    // Lets the loop run until its worker sleeps, waiting for a post or a deadline.
    static void settle(KstMessageLoop& loop) {
        std::promise<pid_t> worker;
        std::future<pid_t> workerId = worker.get_future();
        loop.PostTask([worker = std::move(worker)]() mutable { worker.set_value(gettid()); });
        const std::string status = "/proc/self/task/" + std::to_string(workerId.get()) + "/stat";
        while (stateIn(status) != 'S') {
            std::this_thread::yield();
        }
    }

    // Lets a stopped loop run what is still pending. Here that is nothing: the worker has ended.
    static void drain() {}

private:
    // The state letter in a "stat" file of /proc. It follows the thread's name, which is in parentheses.
    static char stateIn(const std::string& path) {
        std::ifstream file(path);
        const std::string line{std::istreambuf_iterator<char>(file), {}};
        const size_t nameEnd = line.rfind(')');
        return nameEnd == std::string::npos ? '?' : line[nameEnd + 2];
    }
};

#endif
