// Tasks that record when they run and when they are destroyed.

#ifndef VEXALIVE_TESTS_LOOP_JOURNAL_TASK_H
#define VEXALIVE_TESTS_LOOP_JOURNAL_TASK_H

#include <string>
#include <utility>

#include "support/Journal.h"

// A task that writes its name to the journal when it runs ("a") and when it is destroyed ("~a"). Movable, not copyable.
class JournalTask {
public:
    JournalTask(Journal<std::string>& journal, std::string name) : mJournal(&journal), mName(std::move(name)) {}
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
    Journal<std::string>* mJournal;
    std::string mName;
};

// Calls a function when it is destroyed. Movable, not copyable.
template <class F>
class OnDestruction {
public:
    explicit OnDestruction(F function) : mFunction(std::move(function)) {}
    OnDestruction(OnDestruction&& other) noexcept
        : mFunction(std::move(other.mFunction)), mArmed(std::exchange(other.mArmed, false)) {}
    OnDestruction& operator=(OnDestruction&&) = delete;
    ~OnDestruction() {
        if (mArmed) {
            mFunction();
        }
    }

private:
    F mFunction;
    bool mArmed = true;
};

#endif
