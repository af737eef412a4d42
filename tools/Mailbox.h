// A queue from any thread to the main one, which waits for it together with signals and files: all that a command hears
// of, it hears through one of these.

#ifndef VEXALIVE_TOOLS_MAILBOX_H
#define VEXALIVE_TOOLS_MAILBOX_H

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <limits>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "base/Mutex.h"

namespace vexalive {

template <class T>
class Mailbox {
public:
    // Items that come while `most` wait are left out.
    explicit Mailbox(size_t most = std::numeric_limits<size_t>::max())
        : mFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)), mMost(most) {
        if (mFd < 0) {
            throw std::system_error(errno, std::generic_category(), "eventfd");
        }
    }
    ~Mailbox() { close(mFd); }
    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;

    // Any thread; does not wait.
    void put(T item) KST_EXCLUDES(mMutex) {
        {
            KstMutexLock lock(mMutex);
            if (mItems.size() < mMost) {
                mItems.push_back(std::move(item));
            } else {
                ++mOmitted;
            }
        }
        const uint64_t one = 1;
        [[maybe_unused]] const auto written = write(mFd, &one, sizeof one);  // fails only if it is readable anyway
    }

    // All that came since the last call, in order; does not wait.
    std::deque<T> takeAll() KST_EXCLUDES(mMutex) {
        uint64_t count = 0;
        [[maybe_unused]] const auto taken = read(mFd, &count, sizeof count);
        std::deque<T> items;
        KstMutexLock lock(mMutex);
        items.swap(mItems);
        return items;
    }

    // How many items were left out since the last call; they came after what takeAll() gives next.
    uint64_t takeOmitted() KST_EXCLUDES(mMutex) {
        KstMutexLock lock(mMutex);
        return std::exchange(mOmitted, 0);
    }

    // Waits until an item is there, one of `others` can be read (-1: none), or `patience` has passed; for ever if there
    // is none.
    void wait(std::initializer_list<int> others,
              std::optional<std::chrono::milliseconds> patience = std::nullopt) const {
        std::vector<pollfd> sources = {{mFd, POLLIN, 0}};
        for (const int fd : others) {
            sources.push_back({fd, POLLIN, 0});
        }
        poll(sources.data(), sources.size(), patience ? static_cast<int>(patience->count()) : -1);
    }

private:
    const int mFd;
    const size_t mMost;
    KstMutex mMutex;
    std::deque<T> mItems KST_GUARDED_BY(mMutex);
    uint64_t mOmitted KST_GUARDED_BY(mMutex) = 0;
};

}  // namespace vexalive

#endif
