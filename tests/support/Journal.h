// A thread-safe list whose entries other threads can wait for, and a gate that threads can wait at.

#ifndef VEXALIVE_TESTS_SUPPORT_JOURNAL_H
#define VEXALIVE_TESTS_SUPPORT_JOURNAL_H

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <iterator>
#include <mutex>
#include <utility>
#include <vector>

constexpr auto kTestTimeout = std::chrono::seconds(90);  // after which a wait fails; no passing test waits this long

// Any thread may call any member.
template <class T>
class Journal {
public:
    void add(T entry) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mEntries.push_back(std::move(entry));
        mChanged.notify_all();
    }

    std::vector<T> all() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mEntries;
    }

    size_t size() const { return all().size(); }

    void clear() {
        const std::lock_guard<std::mutex> lock(mMutex);
        mEntries.clear();
    }

    // Waits for `count` entries; false on a timeout.
    bool await(size_t count) const { return waitFor(count).size() >= count; }

    // Waits for `count` entries; returns those that exist, fewer on a timeout.
    std::vector<T> waitFor(size_t count) const {
        return waitFor(count, [](const T&) { return true; });
    }

    // The same for the entries for which `matches` is true.
    template <class Predicate>
    std::vector<T> waitFor(size_t count, Predicate matches) const {
        std::unique_lock<std::mutex> lock(mMutex);
        std::vector<T> found;
        mChanged.wait_for(lock, kTestTimeout, [&] {
            found.clear();
            std::copy_if(mEntries.begin(), mEntries.end(), std::back_inserter(found), matches);
            return found.size() >= count;
        });
        return found;
    }

private:
    mutable std::mutex mMutex;
    mutable std::condition_variable mChanged;
    std::vector<T> mEntries;
};

// A gate that opens once. pass() waits until it is open; false on a timeout.
class Gate {
public:
    void open() { mOpened.add(true); }
    bool pass() const { return mOpened.await(1); }

private:
    Journal<bool> mOpened;
};

#endif
