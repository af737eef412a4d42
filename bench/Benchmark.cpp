#include "Benchmark.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

namespace bench {
namespace {

double secondsOf(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

rusage usage() {
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    return used;
}

// Reads a value of /proc/self/status, which is in KiB.
double statusBytes(const std::string& name) {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == name) {
            double kibibytes = 0;
            status >> kibibytes;
            return kibibytes * 1024;
        }
    }
    return 0;
}

}  // namespace

int runContender(int argc, char** argv, std::initializer_list<Contender> contenders) {
    for (const Contender& contender : contenders) {
        if (argc >= 2 && std::strcmp(argv[1], contender.name) == 0) {
            contender.run();
            return 0;
        }
    }
    std::fprintf(stderr, "%s takes one of:", argv[0]);
    for (const Contender& contender : contenders) {
        std::fprintf(stderr, " %s", contender.name);
    }
    std::fprintf(stderr, "\n");
    return 2;
}

void print(const char* figure, double value) {
    std::printf("%s\t%.9g\n", figure, value);
}

double percentile(std::vector<double>& values, double share) {
    std::sort(values.begin(), values.end());
    return values.at(std::min(values.size() - 1, static_cast<size_t>(share * static_cast<double>(values.size()))));
}

double seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double cpuSeconds() {
    const rusage used = usage();
    return secondsOf(used.ru_utime) + secondsOf(used.ru_stime);
}

double residentBytes() {
    return statusBytes("VmRSS:");
}

double anonymousBytes() {
    return statusBytes("RssAnon:");
}

double peakResidentBytes() {
    return statusBytes("VmHWM:");
}

int threads() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<int>(std::distance(begin(tasks), end(tasks)));
}

PinnedToOneProcessor::PinnedToOneProcessor() {
    sched_getaffinity(0, sizeof mBefore, &mBefore);
    cpu_set_t here{};
    CPU_SET(sched_getcpu(), &here);
    sched_setaffinity(0, sizeof here, &here);
}

PinnedToOneProcessor::~PinnedToOneProcessor() {
    sched_setaffinity(0, sizeof mBefore, &mBefore);
}

BusyProcessor::BusyProcessor() {
    mFiller = std::thread([this] {
        const sched_param none{};
        if (sched_setscheduler(0, SCHED_IDLE, &none) != 0) {
            std::perror("sched_setscheduler");
            std::exit(1);
        }
        while (!mEnded) {
        }
    });
}

BusyProcessor::~BusyProcessor() {
    mEnded = true;
    mFiller.join();
}

int connectionsTo(int port) {
    constexpr const char* kEstablished = "01";
    char remote[32];
    std::snprintf(remote, sizeof remote, "0100007F:%04X", static_cast<unsigned>(port));
    int open = 0;
    std::ifstream table("/proc/self/net/tcp");
    std::string line;
    std::getline(table, line);  // header line
    while (std::getline(table, line)) {
        std::string number;
        std::string from;
        std::string to;
        std::string state;
        std::istringstream(line) >> number >> from >> to >> state;
        open += to == remote && state == kEstablished ? 1 : 0;
    }
    return open;
}

}  // namespace bench
