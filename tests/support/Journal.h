// What happened, in order. The loop's tests write into it from tasks and read it on the test's thread.

#ifndef VEXALIVE_TESTS_SUPPORT_JOURNAL_H
#define VEXALIVE_TESTS_SUPPORT_JOURNAL_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

class Journal {
public:
    void add(std::string entry) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mEntries.push_back(std::move(entry));
        mGrown.notify_all();
    }

    std::vector<std::string> entries() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mEntries;
    }

    size_t size() const { return entries().size(); }

    // Waits until there are `count` entries; false if they do not come within half a minute, which is to say never.
    bool await(size_t count) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mGrown.wait_for(lock, std::chrono::seconds(30), [&] { return mEntries.size() >= count; });
    }

private:
    mutable std::mutex mMutex;
    std::condition_variable mGrown;
    std::vector<std::string> mEntries;
};

// A task that tells the journal when it runs ("a") and when it is destroyed ("~a"). Can be moved, not copied.
class JournalTask {
public:
    JournalTask(Journal& journal, std::string name) : mJournal(&journal), mName(std::move(name)) {}
    JournalTask(JournalTask&& other) noexcept
        : mJournal(std::exchange(other.mJournal, nullptr)), mName(std::move(other.mName)) {}
    JournalTask& operator=(JournalTask&&) = delete;
    ~JournalTask() {
        if (mJournal) {
            mJournal->add("~" + mName);
        }
    }

    void operator()() { mJournal->add(mName); }

private:
    Journal* mJournal;
    std::string mName;
};

// Calls a function when it is destroyed. Can be moved, not copied.
template <class F>
class AtTheEnd {
public:
    explicit AtTheEnd(F function) : mFunction(std::move(function)) {}
    AtTheEnd(AtTheEnd&& other) noexcept
        : mFunction(std::move(other.mFunction)), mArmed(std::exchange(other.mArmed, false)) {}
    AtTheEnd& operator=(AtTheEnd&&) = delete;
    ~AtTheEnd() {
        if (mArmed) {
            mFunction();
        }
    }

private:
    F mFunction;
    bool mArmed = true;
};

#endif
