// A queue that carries items from any thread to the main thread. It has a file descriptor, so one poll() can wait for
// items, signals and file changes.

#ifndef VEXALIVE_TOOLS_EVENT_QUEUE_H
#define VEXALIVE_TOOLS_EVENT_QUEUE_H

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
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "base/Mutex.h"
#include "common/Descriptor.h"
#include "common/Result.h"

namespace vexalive {

template <class T>
class EventQueue {
public:
    // push() drops its item if `capacity` items are queued. Fails if no descriptor is free.
    static Result<std::unique_ptr<EventQueue>> make(size_t capacity = std::numeric_limits<size_t>::max()) {
        Descriptor event(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
        if (!event.isOpen()) {
            return failure("cannot create a queue of events: " + systemMessage(errno));
        }
        return std::unique_ptr<EventQueue>(new EventQueue(std::move(event), capacity));
    }

    // Any thread; does not block.
    void push(T item) KST_EXCLUDES(mMutex) {
        {
            KstMutexLock lock(mMutex);
            if (mItems.size() < mCapacity) {
                mItems.push_back(std::move(item));
            } else {
                ++mDropped;
            }
        }
        const uint64_t one = 1;
        [[maybe_unused]] const auto written =
            ::write(mEvent.get(), &one, sizeof one);  // fails only if the descriptor is already readable
    }

    // Removes and returns all items, oldest first; does not block.
    std::deque<T> drain() KST_EXCLUDES(mMutex) {
        uint64_t count = 0;
        [[maybe_unused]] const auto length = ::read(mEvent.get(), &count, sizeof count);
        std::deque<T> items;
        KstMutexLock lock(mMutex);
        items.swap(mItems);
        return items;
    }

    // Returns the number of items that were dropped since the last call. To keep the order, call drain() next: the
    // dropped items are newer than all items that it returns.
    uint64_t drainDropped() KST_EXCLUDES(mMutex) {
        KstMutexLock lock(mMutex);
        return std::exchange(mDropped, 0);
    }

    // Blocks until an item is queued, one of the descriptors `fds` is readable (-1 is ignored), or `timeout` expires.
    // std::nullopt: no timeout.
    void wait(std::initializer_list<int> fds, std::optional<std::chrono::milliseconds> timeout = std::nullopt) const {
        std::vector<pollfd> sources = {{mEvent.get(), POLLIN, 0}};
        for (const int fd : fds) {
            sources.push_back({fd, POLLIN, 0});
        }
        poll(sources.data(), sources.size(), timeout ? static_cast<int>(timeout->count()) : -1);
    }

private:
    EventQueue(Descriptor event, size_t capacity) : mEvent(std::move(event)), mCapacity(capacity) {}

    const Descriptor mEvent;
    const size_t mCapacity;
    KstMutex mMutex;
    std::deque<T> mItems KST_GUARDED_BY(mMutex);
    uint64_t mDropped KST_GUARDED_BY(mMutex) = 0;
};

}  // namespace vexalive

#endif
