// A soak test that searches for leaks: random updates, losses of inputs and faults, on one mix and two relays.
//
//     media_soak SECONDS SAMPLES.csv
//
// Every ten seconds, it records the memory, descriptors and threads of the workers and of the origin. At the end, it
// compares the medians of the first and the last third of the samples. The exit status is 0 if no median has grown
// beyond its bound, no worker was restarted, and the mix did not reconnect.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "MediaTesting.h"

namespace mediatesting {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kBetweenSamples{10};
constexpr int kMembers = 4;
constexpr const char* kColours[] = {"red", "lime", "blue", "yellow"};

// A measured sum over all workers and the origin, with the bound of its growth. Memory may grow by a tenth: the
// allocators of three workers need minutes to reach their steady state.
struct Quantity {
    const char* name;
    double maxFactor;
    double maxMore;
};
constexpr Quantity kQuantities[] = {{"kibibytes", 1.1, 0}, {"descriptors", 1, 4}, {"threads", 1, 4}};
using Sample = std::array<double, std::size(kQuantities)>;

// The workers and the origin. This process is not measured: it also has the pipes and frames of FFmpeg's programs.
std::vector<pid_t> measuredProcesses() {
    std::vector<pid_t> all = LocalService::children("vexalive-media");
    for (const pid_t origin : LocalService::children("nginx")) {
        all.push_back(origin);
    }
    return all;
}

Sample measure() {
    Sample sum{};
    for (const pid_t pid : measuredProcesses()) {
        std::error_code error;
        const std::filesystem::directory_iterator descriptors("/proc/" + std::to_string(pid) + "/fd", error);
        sum[0] += static_cast<double>(processField(pid, "VmRSS"));
        sum[1] += error ? 0 : static_cast<double>(std::distance(begin(descriptors), end(descriptors)));
        sum[2] += static_cast<double>(processField(pid, "Threads"));
    }
    return sum;
}

// The median of one quantity in `count` samples, the first of which is `begin`.
double median(const std::vector<Sample>& samples, size_t begin, size_t count, size_t quantity) {
    std::vector<double> values;
    for (size_t i = begin; i < begin + count; ++i) {
        values.push_back(samples[i][quantity]);
    }
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(count / 2), values.end());
    return values[count / 2];
}

class Scenario {
public:
    Scenario() : mMembers(kMembers) {
        for (int number = 1; number <= kMembers; ++number) {
            join(number);
        }
    }

    bool begin() {
        return mService.post(mixBody({{1, 0, 0, 640, 360}})) == 0 &&
               mService.post(relayOf(1, mService.origin() + "/cdn/one")) == 0 &&
               mService.post(relayOf(2, "rtmp://127.0.0.1:9/cdn/nobody")) == 0 && mService.mixReaches("running");
    }

    void act() {
        const int number = from(1, kMembers);
        switch (from(0, 19)) {
            case 0:
                mMembers[static_cast<size_t>(number - 1)].reset();
                ++losses;
                break;
            case 1:
            case 2:
                join(number);
                break;
            case 3:
                signal(number, SIGSTOP);
                ++losses;
                break;
            case 4:
            case 5:
                signal(number, SIGCONT);
                break;
            case 6:
                injectFault();
                break;
            default:
                update();
        }
    }

    LocalService& service() { return mService; }
    int updates = 0;  // accepted updates
    int losses = 0;
    int faults = 0;

private:
    int from(int low, int high) { return mLayouts.between(low, high); }

    void join(int number) {
        auto& member = mMembers[static_cast<size_t>(number - 1)];
        member.reset();
        const int sizes[][2] = {{640, 360}, {320, 240}, {360, 640}};
        const auto& size = sizes[from(0, 2)];
        member = publish(mService.memberUrl(number),
                         {kColours[number - 1], 220 * (number + 1), size[0], size[1], from(0, 1) == 0 ? 15 : 20});
    }

    void signal(int number, int signalNumber) {
        if (const auto& member = mMembers[static_cast<size_t>(number - 1)]) {
            member->signal(signalNumber);
        }
    }

    // The service refuses an update of the mix. Then the second relay gets a destination that may be absent.
    void injectFault() {
        vexalive::Fault fault;
        fault.kind = vexalive::Fault::Kind::kCode;
        mService.injectFault(fault);
        mService.post(mixBody({{1, 0, 0, 640, 360}}));
        mService.post(relayOf(2, from(0, 1) == 0 ? "rtmp://127.0.0.1:9/cdn/nobody" : mService.origin() + "/cdn/two"));
        ++faults;
    }

    void update() { updates += mService.post(mixBody(mLayouts.next(kMembers))) == 0 ? 1 : 0; }

    LocalService mService;
    RandomLayouts mLayouts{11};
    std::vector<std::unique_ptr<Program>> mMembers;
};

int soak(std::chrono::seconds time, const char* file) {
    Scenario scenario;
    if (!scenario.begin()) {
        std::fprintf(stderr, "the mix does not start\n");
        return 1;
    }
    const std::vector<pid_t> processes = measuredProcesses();
    std::ofstream table(file);
    table << "seconds";
    for (const Quantity& each : kQuantities) {
        table << ',' << each.name;
    }
    std::vector<Sample> samples;
    const auto start = Clock::now();
    for (auto next = start + kBetweenSamples; Clock::now() < start + time;) {
        scenario.act();
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        if (Clock::now() >= next) {
            next += kBetweenSamples;
            samples.push_back(measure());
            table << '\n' << std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count();
            for (const double each : samples.back()) {
                table << ',' << each;
            }
            table.flush();
        }
    }
    const size_t third = samples.size() / 3;
    if (third == 0) {
        std::fprintf(stderr, "too short to compare: half a minute at least\n");
        return 1;
    }

    const json mix = scenario.service().mix();
    std::printf("updates %d, losses of inputs %d, faults %d\nmix: %s\n", scenario.updates, scenario.losses,
                scenario.faults, mix.dump().c_str());
    bool isFlat = true;
    for (size_t i = 0; i < std::size(kQuantities); ++i) {
        const double first = median(samples, 0, third, i);
        const double last = median(samples, samples.size() - third, third, i);
        std::printf("%s %.0f -> %.0f\n", kQuantities[i].name, first, last);
        isFlat = isFlat && last <= kQuantities[i].maxFactor * first + kQuantities[i].maxMore;
    }
    const bool isStable = scenario.updates > 0 && measuredProcesses() == processes && mix["restarts"] == 0 &&
                          mix["reconnects"] == 0 && mix["state"] == "running";
    std::printf(
        "%s\n%s\n",
        isStable ? "no process was restarted, and the mix did not reconnect" : "A PROCESS OR CONNECTION WAS LOST",
        isFlat ? "nothing has grown" : "SOMETHING HAS GROWN");
    return isStable && isFlat ? 0 : 1;
}

}  // namespace
}  // namespace mediatesting

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const int seconds = argc == 3 ? std::atoi(argv[1]) : 0;
    if (seconds <= 0) {
        std::fprintf(stderr, "usage: media_soak SECONDS SAMPLES.csv\n");
        return 2;
    }
    return mediatesting::soak(std::chrono::seconds(seconds), argv[2]);
}
