// All benchmark programs share this file. A program contains the contenders (vexalive and its references) of one row of
// bench/rows.py. A process runs one contender, for example `bench_loop vexalive`, and prints one line per figure: the
// figure's name, a tab, the value. bench/run.py alternates the contenders and compares their figures.

#ifndef VEXALIVE_BENCH_BENCHMARK_H
#define VEXALIVE_BENCH_BENCHMARK_H

#include <sched.h>

#include <atomic>
#include <chrono>
#include <initializer_list>
#include <thread>
#include <vector>

namespace bench {

struct Contender {
    const char* name;
    void (*run)();
};

// Runs the contender whose name is the first argument. Returns the exit status: 0, or 2 if the name is unknown.
int runContender(int argc, char** argv, std::initializer_list<Contender> contenders);

void print(const char* figure, double value);

// Returns a percentile of the values; `share` is from 0 to 1, for example 0.99. Sorts `values`.
double percentile(std::vector<double>& values, double share);

// The time of std::chrono::steady_clock in seconds.
double seconds();

// The user and system time of all threads of this process, in seconds.
double cpuSeconds();

// The resident memory of this process: the current value, the current value without file pages, and the peak.
double residentBytes();
double anonymousBytes();
double peakResidentBytes();

// The current number of threads of this process.
int threads();

// Pins the calling thread to its current processor until destruction. Threads that it starts meanwhile stay pinned.
class PinnedToOneProcessor {
public:
    PinnedToOneProcessor();
    ~PinnedToOneProcessor();
    PinnedToOneProcessor(const PinnedToOneProcessor&) = delete;
    PinnedToOneProcessor& operator=(const PinnedToOneProcessor&) = delete;

private:
    cpu_set_t mBefore{};
};

// Like PinnedToOneProcessor, and keeps that processor busy, so that a wake-up costs a context switch only. The wake-up
// of an idle or another processor also costs an interrupt, and its cost depends on the host of the virtual machine.
class BusyProcessor {
public:
    BusyProcessor();
    ~BusyProcessor();
    BusyProcessor(const BusyProcessor&) = delete;
    BusyProcessor& operator=(const BusyProcessor&) = delete;

private:
    PinnedToOneProcessor mOne;
    std::atomic<bool> mEnded{false};
    std::thread mFiller;  // a busy loop; with SCHED_IDLE, it runs only when no other thread is ready
};

// The number of established connections to `port` of 127.0.0.1.
int connectionsTo(int port);

}  // namespace bench

#endif
