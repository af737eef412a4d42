// A loop whose test ends only after the loop is destroyed: the destructor stops the loop and waits. Without this wait,
// a worker that stopped its own loop is not joined, and may still use variables of the test that its tasks captured.

#ifndef VEXALIVE_TESTS_LOOP_WATCHED_LOOP_H
#define VEXALIVE_TESTS_LOOP_WATCHED_LOOP_H

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <utility>

#include "base/KstMessageLoop.h"

class WatchedLoop {
public:
    WatchedLoop() {
        std::promise<std::thread::id> ended;
        mEnded = ended.get_future();
        mLoop.reset(new KstMessageLoop, [ended = std::move(ended)](KstMessageLoop* last) mutable {
            delete last;
            ended.set_value(std::this_thread::get_id());
        });
    }

    ~WatchedLoop() {
        if (mLoop) {
            mLoop->stop();
        }
        if (mEnded.valid()) {
            awaitEnd();
        }
    }

    WatchedLoop(const WatchedLoop&) = delete;
    WatchedLoop& operator=(const WatchedLoop&) = delete;

    KstMessageLoop* operator->() const { return mLoop.get(); }
    KstMessageLoop& operator*() const { return *mLoop; }

    // Hands the reference to another owner.
    std::shared_ptr<KstMessageLoop> release() { return std::move(mLoop); }

    // Releases the loop and waits until it is destroyed; returns the thread that destroyed it.
    std::thread::id awaitEnd() {
        mLoop.reset();
        if (mEnded.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
            ADD_FAILURE() << "timeout: the loop is not destroyed";
            return {};
        }
        return mEnded.get();
    }

private:
    std::shared_ptr<KstMessageLoop> mLoop;
    std::future<std::thread::id> mEnded;
};

#endif
