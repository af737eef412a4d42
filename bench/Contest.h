// What every benchmark program shares. A program holds the contenders of one row of the table; it is run once for each
// contender and round as `bench_loop vexalive`, in a process of its own, and prints one line for each figure: its name,
// a tab, its value. bench/run.py alternates the contenders and compares what they printed.

#ifndef VEXALIVE_BENCH_CONTEST_H
#define VEXALIVE_BENCH_CONTEST_H

#include <sched.h>

#include <chrono>
#include <initializer_list>
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

// While it lives, the calling thread and those that it starts share one processor: waking a thread is then a switch,
// and no interrupt from one virtual processor to another, whose price is the host's and differs from hour to hour.
class OneProcessor {
public:
    OneProcessor();
    ~OneProcessor();
    OneProcessor(const OneProcessor&) = delete;
    OneProcessor& operator=(const OneProcessor&) = delete;

private:
    cpu_set_t mBefore{};
};

// Connections from this machine to that port of loopback which are open at this moment.
int connectionsTo(int port);

}  // namespace bench

#endif
