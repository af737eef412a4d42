#include "Contest.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>

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

}  // namespace

int contest(int argc, char** argv, std::initializer_list<Contender> contenders) {
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
    double pages = 0;
    double resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

double peakResidentBytes() {
    return static_cast<double>(usage().ru_maxrss) * 1024;
}

}  // namespace bench
