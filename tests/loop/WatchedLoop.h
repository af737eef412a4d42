// A loop that is stopped at the end of its test, which waits until it is destroyed. A worker that stopped itself is not
// joined and may use what its tasks captured for a moment longer.

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

    // Passes the reference on to another owner.
    std::shared_ptr<KstMessageLoop> release() { return std::move(mLoop); }

    // Releases the loop and waits until it is destroyed; returns the thread that destroyed it.
    std::thread::id awaitEnd() {
        mLoop.reset();
        if (mEnded.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
            ADD_FAILURE() << "the loop does not end";
            return {};
        }
        return mEnded.get();
    }

private:
    std::shared_ptr<KstMessageLoop> mLoop;
    std::future<std::thread::id> mEnded;
};

#endif
