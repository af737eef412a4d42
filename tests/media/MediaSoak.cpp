// Minutes of random updates, losses of inputs and faults, on one mix and two relays: is anything left behind?
//
//     media_soak SECONDS SAMPLES.csv
//
// Every ten seconds it notes the memory, descriptors and threads of the service, its workers and its origin. At the end
// the middle of the last third of the samples is compared with that of the first third, once all has warmed up. The
// exit status is 0 if nothing has grown, no worker was restarted, and the mix kept its connection.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "MediaTesting.h"

namespace mediatesting {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kBetweenSamples{10};
constexpr int kMembers = 4;
constexpr const char* kColours[] = {"red", "lime", "blue", "yellow"};
// What a sample may have grown by: the allocators of three workers come to rest slowly.
constexpr double kMaxGrowth = 1.1;
constexpr long kMaxMoreDescriptors = 4;
constexpr long kMaxMoreThreads = 4;

struct Sample {
    long seconds = 0;
    long kibibytes = 0;  // resident, all processes of ours
    long descriptors = 0;
    long threads = 0;
    long processes = 0;
};

// 0 if the process has gone.
long fieldOfStatus(pid_t pid, const std::string& name) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(name + ":", 0) == 0) {
            return std::atol(line.c_str() + name.size() + 1);
        }
    }
    return 0;
}

long descriptorsOf(pid_t pid) {
    std::error_code gone;
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd", gone);
    return gone ? 0 : static_cast<long>(std::distance(begin(all), end(all)));
}

std::vector<pid_t> processesOfOurs() {
    std::vector<pid_t> all = Desk::children("vexalive-media");
    for (const pid_t origin : Desk::children("nginx")) {
        all.push_back(origin);
    }
    return all;
}

// The workers and the origin; this process holds FFmpeg's pipes and pictures, too, and is left out.
Sample take(Clock::time_point begun) {
    Sample sample;
    sample.seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begun).count();
    for (const pid_t pid : processesOfOurs()) {
        ++sample.processes;
        sample.kibibytes += fieldOfStatus(pid, "VmRSS");
        sample.threads += fieldOfStatus(pid, "Threads");
        sample.descriptors += descriptorsOf(pid);
    }
    return sample;
}

long middle(std::vector<Sample> samples, size_t from, size_t to, long Sample::*member) {
    const auto begin = samples.begin() + static_cast<std::ptrdiff_t>(from);
    const auto end = samples.begin() + static_cast<std::ptrdiff_t>(to);
    const auto half = begin + (end - begin) / 2;
    std::nth_element(begin, half, end, [member](const Sample& a, const Sample& b) { return a.*member < b.*member; });
    return *half.*member;
}

class Play {
public:
    Play() : mMembers(kMembers) {
        for (int number = 1; number <= kMembers; ++number) {
            join(number);
        }
    }

    bool begin() {
        return mDesk.ask(mixBody({{1, 0, 0, 640, 360}})) == 0 &&
               mDesk.ask(relayBody(1, mDesk.origin() + "/cdn/one")) == 0 &&
               mDesk.ask(relayBody(2, "rtmp://127.0.0.1:9/cdn/nobody")) == 0 &&
               eventually([this] { return mDesk.mix()["media"]["state"] == "running"; });
    }

    // Something happens.
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
                freeze(number, SIGSTOP);
                ++losses;
                break;
            case 4:
            case 5:
                freeze(number, SIGCONT);
                break;
            case 6:
                fault();
                break;
            default:
                update();
        }
    }

    Desk& desk() { return mDesk; }
    int updates = 0;  // that were accepted
    int losses = 0;
    int faults = 0;

private:
    int from(int low, int high) { return std::uniform_int_distribution<int>(low, high)(mRandom); }

    void join(int number) {
        auto& member = mMembers[static_cast<size_t>(number - 1)];
        member.reset();
        const int sizes[][2] = {{640, 360}, {320, 240}, {360, 640}};
        const auto& size = sizes[from(0, 2)];
        member = publish(mDesk.memberUrl(number),
                         {kColours[number - 1], 220 * (number + 1), size[0], size[1], from(0, 1) == 0 ? 15 : 20});
    }

    void freeze(int number, int signal) {
        if (const auto& member = mMembers[static_cast<size_t>(number - 1)]) {
            ::kill(member->pid(), signal);
        }
    }

    // The service answers wrongly, or a relay goes where nobody is.
    void fault() {
        vexalive::Fault fault;
        fault.kind = vexalive::Fault::Kind::kServerCode;
        mDesk.injectFault(fault);
        mDesk.ask(mixBody({{1, 0, 0, 640, 360}}));
        mDesk.ask(relayBody(2, from(0, 1) == 0 ? "rtmp://127.0.0.1:9/cdn/nobody" : mDesk.origin() + "/cdn/two"));
        ++faults;
    }

    void update() {
        std::vector<Place> places;
        for (int number = 1; number <= kMembers; ++number) {
            if (from(0, 3) != 0) {
                places.push_back(
                    {number, from(-100, 500), from(-100, 300), from(1, 640), from(1, 360), from(0, 5) == 0});
            }
        }
        places.push_back({5, 0, 0, 64, 36});  // of whom nothing ever comes
        std::shuffle(places.begin(), places.end(), mRandom);
        updates += mDesk.ask(mixBody(places)) == 0 ? 1 : 0;
    }

    Desk mDesk;
    std::mt19937 mRandom{11};
    std::vector<std::unique_ptr<Program>> mMembers;
};

int soak(std::chrono::seconds time, const char* file) {
    Play play;
    if (!play.begin()) {
        std::fprintf(stderr, "the mix does not start\n");
        return 1;
    }
    const std::vector<pid_t> processes = processesOfOurs();
    std::ofstream table(file);
    table << "seconds,kibibytes,descriptors,threads,processes\n";
    std::vector<Sample> samples;
    const auto begun = Clock::now();
    for (auto next = begun + kBetweenSamples; Clock::now() < begun + time;) {
        play.act();
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        if (Clock::now() >= next) {
            next += kBetweenSamples;
            samples.push_back(take(begun));
            const Sample& now = samples.back();
            table << now.seconds << ',' << now.kibibytes << ',' << now.descriptors << ',' << now.threads << ','
                  << now.processes << std::endl;
        }
    }
    if (samples.size() < 3) {
        std::fprintf(stderr, "too short to compare: half a minute at least\n");
        return 1;
    }

    const json mix = play.desk().mix()["media"];
    const bool isTheSame = processesOfOurs() == processes;
    const size_t third = samples.size() / 3;
    const auto first = [&](long Sample::*member) { return middle(samples, 0, third, member); };
    const auto last = [&](long Sample::*member) {
        return middle(samples, samples.size() - third, samples.size(), member);
    };
    std::printf("updates %d, losses of inputs %d, faults %d\n", play.updates, play.losses, play.faults);
    std::printf("memory    %ld -> %ld KiB\ndescriptors %ld -> %ld\nthreads   %ld -> %ld\n", first(&Sample::kibibytes),
                last(&Sample::kibibytes), first(&Sample::descriptors), last(&Sample::descriptors),
                first(&Sample::threads), last(&Sample::threads));
    std::printf("mix: %s\n", mix.dump().c_str());
    const bool isKept =
        play.updates > 0 && isTheSame && mix["restarts"] == 0 && mix["reconnects"] == 0 && mix["state"] == "running";
    const bool isFlat =
        last(&Sample::threads) <= first(&Sample::threads) + kMaxMoreThreads &&
        static_cast<double>(last(&Sample::kibibytes)) <= kMaxGrowth * static_cast<double>(first(&Sample::kibibytes)) &&
        last(&Sample::descriptors) <= first(&Sample::descriptors) + kMaxMoreDescriptors;
    std::printf("%s\n%s\n",
                isKept ? "every process and the mix's connection were kept" : "A PROCESS OR CONNECTION WAS LOST",
                isFlat ? "nothing has grown" : "SOMETHING HAS GROWN");
    return isKept && isFlat ? 0 : 1;
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
