// Shared by all benchmark programs. A program contains the contenders of one row of the table. It runs one contender
// per process, for example `bench_loop vexalive`, and prints one line per figure: its name, a tab, its value.
// bench/run.py alternates the contenders and compares their figures.

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

// Runs the contender named by the first argument. Returns the exit status: 2 if the name is unknown.
int runContender(int argc, char** argv, std::initializer_list<Contender> contenders);

void print(const char* figure, double value);

// The percentile `share` (0 to 1). Sorts the values.
double percentile(std::vector<double>& values, double share);

// Seconds on std::chrono::steady_clock.
double seconds();

// User and system time of this process, all threads.
double cpuSeconds();

// Resident memory now, resident memory without file pages, and the peak of the resident memory.
double residentBytes();
double anonymousBytes();
double peakResidentBytes();

// Current number of threads of this process.
int threads();

// Pins the calling thread to its current processor until destruction. Threads started meanwhile stay pinned.
class PinnedToOneProcessor {
public:
    PinnedToOneProcessor();
    ~PinnedToOneProcessor();
    PinnedToOneProcessor(const PinnedToOneProcessor&) = delete;
    PinnedToOneProcessor& operator=(const PinnedToOneProcessor&) = delete;

private:
    cpu_set_t mBefore{};
};

// As above, and keeps the processor busy. A wake-up is then a context switch only. Without it, the cost includes an
// interrupt between virtual processors or the end of a halt, which depends on the host of the virtual machine.
class BusyProcessor {
public:
    BusyProcessor();
    ~BusyProcessor();
    BusyProcessor(const BusyProcessor&) = delete;
    BusyProcessor& operator=(const BusyProcessor&) = delete;

private:
    PinnedToOneProcessor mOne;
    std::atomic<bool> mEnded{false};
    std::thread mFiller;  // SCHED_IDLE: runs only when no other thread is ready
};

// Number of established connections to that port of 127.0.0.1.
int connectionsTo(int port);

}  // namespace bench

#endif
