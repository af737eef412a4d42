// What every benchmark program shares. A program holds the contenders of one row of the table; it is run once for each
// contender and round as `bench_loop vexalive`, in a process of its own, and prints one line for each figure: its name,
// a tab, its value. bench/run.py alternates the contenders and compares what they printed.

#ifndef VEXALIVE_BENCH_CONTEST_H
#define VEXALIVE_BENCH_CONTEST_H

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

// Runs the contender that the first argument names. The exit status is 2 if there is none of that name.
int contest(int argc, char** argv, std::initializer_list<Contender> contenders);

void print(const char* figure, double value);

// The value below which `share` (0 to 1) of the values lie. Sorts them.
double percentile(std::vector<double>& values, double share);

// Since a moment that the clock chooses; the clock of std::chrono::steady_clock.
double seconds();

// User and system time of this process, all threads.
double cpuSeconds();

// What the process holds in memory at this moment; that without the pages of files; and the most it ever held.
double residentBytes();
double anonymousBytes();
double peakResidentBytes();

// Threads of this process at this moment.
int threads();

// While it lives, the calling thread shares one processor with the threads that it starts, which stay there.
class OneProcessor {
public:
    OneProcessor();
    ~OneProcessor();
    OneProcessor(const OneProcessor&) = delete;
    OneProcessor& operator=(const OneProcessor&) = delete;

private:
    cpu_set_t mBefore{};
};

// As above, and the processor is kept from sleeping: waking a thread is then a switch, and neither an interrupt from
// one virtual processor to another nor the end of a halt, whose prices are the host's and differ from hour to hour.
class AwakeProcessor {
public:
    AwakeProcessor();
    ~AwakeProcessor();
    AwakeProcessor(const AwakeProcessor&) = delete;
    AwakeProcessor& operator=(const AwakeProcessor&) = delete;

private:
    OneProcessor mOne;
    std::atomic<bool> mEnded{false};
    std::thread mFiller;  // runs when no other thread of the processor does
};

// Connections from this machine to that port of loopback which are open at this moment.
int connectionsTo(int port);

}  // namespace bench

#endif
