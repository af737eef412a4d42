// Runs many adapters in one process against a service with injected faults, and compares their behaviour with the
// oracle.
//
// Exits with 0 if no rule was violated: no operation was lost or executed twice, each had the outcome that the oracle
// gives, and each request was completed. In a run of at least five minutes, memory, threads and descriptors must not
// grow, either. These are sampled every 30 s, while all adapters are idle.

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <queue>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Com/LiveTranscodingAdapter.h"
#include "Ledger.h"
#include "StressService.h"
#include "support/Poll.h"
#include "support/RoomMember.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr double kOperationsInARound = 1.6;          // on average
constexpr int kRoundsBetweenJointOnes = 40;          // a joint round has operations of both families
constexpr std::chrono::seconds kRequestTimeout(20);  // longer than a busy machine delays a response
constexpr std::chrono::seconds kSampleInterval(30);
constexpr std::chrono::seconds kRoundTimeout(150);  // after this time, a round counts as lost
constexpr double kMaxRisePercent = 1.0;             // memory
constexpr double kMaxRise = 10;                     // number of threads; number of descriptors

struct Options {
    int seconds = 600;
    int adapters = 1000;
    double rate = 750;  // operations per second
    unsigned seed = 1;
    std::string samples;
};

// ---- Resources of the idle process ----------------------------------------------------------------------------------

struct Sample {
    double second;
    double allocated;  // KiB that the program has allocated
    double resident;   // KiB that the system counts
    double threads;
    double descriptors;
    double operations;
};

double countEntries(const char* folder) {
    const auto entries = std::filesystem::directory_iterator(folder);
    return static_cast<double>(std::distance(begin(entries), end(entries)));
}

Sample sampleNow(double second, const Ledger& ledger) {
    malloc_trim(0);  // returns unused memory to the system
    long pages = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    const struct mallinfo2 heap = mallinfo2();
    return {second,
            static_cast<double>(heap.uordblks + heap.hblkhd) / 1024,
            static_cast<double>(resident * (sysconf(_SC_PAGESIZE) / 1024)),
            countEntries("/proc/self/task"),
            countEntries("/proc/self/fd"),
            static_cast<double>(ledger.operations)};
}

// The rise of a regression line through the samples, in units and in percent of the mean.
struct Rise {
    double units = 0;
    double percent = 0;
};

Rise riseSince(double first, double Sample::*figure, const std::vector<Sample>& samples) {
    double count = 0, x = 0, y = 0, xx = 0, xy = 0, earliest = 0;
    for (const Sample& each : samples) {
        if (each.second >= first) {
            earliest = count == 0 ? each.second : earliest;
            ++count;
            x += each.second;
            y += each.*figure;
            xx += each.second * each.second;
            xy += each.second * each.*figure;
        }
    }
    if (count < 2) {
        return {};
    }
    const double slope = (count * xy - x * y) / (count * xx - x * x);
    const double units = slope * (samples.back().second - earliest);
    return {units, 100 * units / (y / count)};
}

// ---- The driver: one thread that calls all adapters -----------------------------------------------------------------

enum class Action { kStart, kRefusedStart, kStop, kEnterRoom, kReset, kDrop };

struct Step {
    milliseconds pause;  // before the step
    Action action;
    Family family;
};

// A user whose adapter is dropped and replaced from time to time. A lane is the relay or the mix of the user.
struct Slot {
    struct Lane {
        bool isBusy = false;
        int epoch = 0;             // number of the round; appointments of earlier rounds are ignored
        Clock::time_point since;   // start of the round
        std::vector<Step> script;  // remaining steps in reverse order; a joint round uses the script of the relay lane
    };
    size_t number;
    Account* account;
    std::shared_ptr<Listener> listener{};
    std::shared_ptr<LiveTranscodingAdapter> adapter{};
    std::array<Lane, 2> lanes{};
    bool isJointRound = false;
    bool needsJointRound = false;
    bool isInRoom = false;
    bool hasStarted = false;  // whether the adapter has ever started a relay or a mix
    int lastNumber = 0;       // number of the last operation; makes parameters unique

    std::string userId() const { return "user" + std::to_string(number); }
};

class Driver {
public:
    explicit Driver(const Options& options) : mOptions(options), mRandom(options.seed) {
        for (size_t number = 0; number < static_cast<size_t>(options.adapters); ++number) {
            Slot& slot = mSlots.emplace_back(Slot{number, &mLedger.account(number)});
            createAdapter(slot);
            scheduleRound(slot, kRelay);
            scheduleRound(slot, kMix);
        }
        mLedger.installHooks();
    }

    Ledger& ledger() { return mLedger; }

    // Runs until the time is over and every round is complete. Regularly waits until all are idle and takes a sample.
    std::vector<Sample> run() {
        const auto start = Clock::now();
        const auto end = start + std::chrono::seconds(mOptions.seconds);
        std::vector<Sample> samples;
        samples.reserve(static_cast<size_t>(mOptions.seconds / kSampleInterval.count()) + 2);
        auto nextSample = start;
        while (Clock::now() < end || anyBusy()) {
            mIsClosing = Clock::now() >= end;
            mIsPausing = Clock::now() >= nextSample;
            if (mIsPausing && !anyBusy() && mLedger.inFlight() == 0) {
                samples.push_back(sampleNow(std::chrono::duration<double>(Clock::now() - start).count(), mLedger));
                nextSample += kSampleInterval;
                mIsPausing = false;
            }
            while (!mAppointments.empty() && mAppointments.top().when <= Clock::now()) {
                const Appointment appointment = mAppointments.top();
                mAppointments.pop();
                carryOut(appointment);
            }
            auto wake = Clock::now() + milliseconds(100);
            if (!mAppointments.empty()) {
                wake = std::min(wake, mAppointments.top().when);
            }
            std::vector<std::pair<size_t, Family>> settled;
            {
                std::unique_lock<std::mutex> lock(mMutex);
                mWork.wait_until(lock, wake, [this] { return !mSettled.empty(); });
                settled.swap(mSettled);
            }
            for (const auto& [number, family] : settled) {
                Slot& slot = mSlots[number];
                slot.lanes[family].isBusy = false;
                scheduleRound(slot, family);
            }
            abandonOldRounds();
        }
        samples.push_back(sampleNow(std::chrono::duration<double>(Clock::now() - start).count(), mLedger));
        return samples;
    }

    void dropAll() {
        for (Slot& slot : mSlots) {
            drop(slot);
        }
    }

private:
    struct Appointment {
        Clock::time_point when;
        Slot* slot;
        Family family;
        int epoch;
        bool operator<(const Appointment& other) const { return when > other.when; }
    };

    int randomBelow(int end) { return static_cast<int>(mRandom() % static_cast<unsigned>(end)); }

    void createAdapter(Slot& slot) {
        slot.adapter = std::make_shared<LiveTranscodingAdapter>();
        slot.listener = std::make_shared<Listener>();
        slot.listener->during = [this, &calls = slot.listener->calls](const Call& call) {
            mLedger.onNotified(call);
            calls.clear();  // limits the memory
        };
        slot.adapter->setLiveTranscodingDelegate(slot.listener);
        slot.adapter->updateUserInfo(1400, "signature", slot.userId());
        slot.isInRoom = slot.hasStarted = false;
    }

    // Drops the adapter and waits until it is destroyed: tasks and callbacks may still own it.
    void drop(Slot& slot) {
        const std::weak_ptr<LiveTranscodingAdapter> adapter = slot.adapter;
        slot.account->beginDrop();
        slot.adapter.reset();
        while (!adapter.expired()) {
            std::this_thread::sleep_for(milliseconds(1));
        }
        slot.account->endDrop();
    }

    bool anyBusy() const {
        return std::any_of(mSlots.begin(), mSlots.end(),
                           [](const Slot& slot) { return slot.lanes[kRelay].isBusy || slot.lanes[kMix].isBusy; });
    }

    void abandonOldRounds() {
        for (Slot& slot : mSlots) {
            for (const Family family : {kRelay, kMix}) {
                Slot::Lane& lane = slot.lanes[family];
                if (lane.isBusy && Clock::now() - lane.since > kRoundTimeout) {
                    slot.account->abandonRound(family);
                    lane.isBusy = false;  // the lane gets no further appointment
                }
            }
        }
    }

    // Schedules the next round of a lane after a random time that yields the requested rate.
    void scheduleRound(Slot& slot, Family family) {
        const double mean = 2 * static_cast<double>(mSlots.size()) * kOperationsInARound / mOptions.rate;
        const std::chrono::duration<double> pause(std::uniform_real_distribution<>(0, 2 * mean)(mRandom));
        const auto when = Clock::now() + std::chrono::duration_cast<Clock::duration>(pause);
        mAppointments.push({when, &slot, family, slot.lanes[family].epoch});
    }

    void carryOut(const Appointment& appointment) {
        Slot& slot = *appointment.slot;
        const Family family = appointment.family;
        Slot::Lane& lane = slot.lanes[family];
        if (appointment.epoch != lane.epoch) {
            return;
        }
        if (lane.isBusy) {
            performStep(slot, family);
        } else if (mIsPausing) {
            scheduleRound(slot, family);
        } else if (!mIsClosing) {
            beginRound(slot, family);
        }
    }

    void beginRound(Slot& slot, Family family) {
        slot.needsJointRound = slot.needsJointRound || !slot.isInRoom || randomBelow(kRoundsBetweenJointOnes) == 0;
        if (!slot.needsJointRound) {
            slot.lanes[family].script = scriptOf(family);
            markBusy(slot, family);
            performStep(slot, family);
        } else if (!slot.lanes[kRelay].isBusy && !slot.lanes[kMix].isBusy) {
            slot.isJointRound = true;
            slot.needsJointRound = false;
            slot.lanes[kRelay].script = jointRoundOf(slot);
            markBusy(slot, kRelay);
            markBusy(slot, kMix);
            performStep(slot, kRelay);
        }  // else: the other lane is busy, and begins the joint round at its next appointment
    }

    void markBusy(Slot& slot, Family family) {
        Slot::Lane& lane = slot.lanes[family];
        lane.isBusy = true;
        ++lane.epoch;
        lane.since = Clock::now();
    }

    void performStep(Slot& slot, Family family) {
        std::vector<Step>& script = slot.lanes[family].script;
        const Step step = script.back();
        script.pop_back();
        perform(slot, step);
        if (!script.empty()) {
            mAppointments.push({Clock::now() + script.back().pause, &slot, family, slot.lanes[family].epoch});
        } else if (step.action == Action::kDrop) {
            slot.lanes[kRelay].isBusy = slot.lanes[kMix].isBusy = false;
            slot.isJointRound = false;
            scheduleRound(slot, kRelay);
            scheduleRound(slot, kMix);
        } else if (slot.isJointRound) {
            slot.isJointRound = false;
            slot.account->closeScript(kRelay);
            slot.account->closeScript(kMix);
        } else {
            slot.account->closeScript(family);
        }
    }

    milliseconds shortPause() { return milliseconds(randomBelow(3) == 0 ? 0 : randomBelow(80)); }

    // One operation, or a few operations that each supersede the previous one.
    std::vector<Step> scriptOf(Family family) {
        std::vector<Step> script;
        for (int count = randomBelow(4) == 0 ? 2 + randomBelow(2) : 1; count > 0; --count) {
            const int roll = randomBelow(20);
            const Action action = roll < 11 ? Action::kStart : roll < 19 ? Action::kStop : Action::kRefusedStart;
            script.push_back({shortPause(), action, family});
            if (randomBelow(10) == 0) {
                script.push_back({shortPause(), Action::kEnterRoom, family});  // has no effect: no start is deferred
            }
        }
        return script;
    }

    // A round of both families. The steps are in reverse order.
    std::vector<Step> jointRoundOf(const Slot& slot) {
        const milliseconds pause = shortPause();
        const milliseconds none(0);
        if (!slot.hasStarted && randomBelow(2) == 0) {
            return {{pause, Action::kStop, kMix}, {pause, Action::kStop, kRelay}};
        }
        std::vector<Step> script = {
            {pause, Action::kEnterRoom, kRelay}, {none, Action::kStart, kMix}, {none, Action::kStart, kRelay}};
        if (!slot.isInRoom) {
            return script;
        }
        if (randomBelow(2) == 0) {
            return {{pause, Action::kDrop, kRelay}, {none, Action::kStart, kMix}, {pause, Action::kStart, kRelay}};
        }
        script.push_back({pause, Action::kReset, kRelay});
        script.push_back({none, Action::kStart, kMix});
        script.push_back({pause, Action::kStop, kRelay});
        return script;
    }

    void perform(Slot& slot, const Step& step) {
        Account& account = *slot.account;
        switch (step.action) {
            case Action::kStart:
                start(slot, step.family, slot.isInRoom ? Operation::kSends : Operation::kWaitsForRoom);
                slot.hasStarted = true;
                break;
            case Action::kRefusedStart:
                start(slot, step.family, Operation::kRefused);
                break;
            case Action::kStop:
                account.beginOperation({step.family == kRelay ? oracle::kRemoveRelay : oracle::kCancelMix,
                                        slot.hasStarted ? Operation::kSends : Operation::kRefused, ""});
                step.family == kRelay ? slot.adapter->stopPublishStreamUrl() : slot.adapter->stopLiveMixTranscoding();
                break;
            case Action::kEnterRoom:
                account.beginRoomEntry();
                slot.isInRoom = true;
                slot.adapter->updateEnterRoomInfo("r1", "key");
                break;
            case Action::kReset:
                account.beginReset();
                slot.isInRoom = false;
                slot.adapter->resetInfo();
                break;
            case Action::kDrop:
                drop(slot);
                createAdapter(slot);
                break;
        }
        account.endCall();
    }

    // The number of the operation is part of the report's information and of the request.
    void start(Slot& slot, Family family, Operation::Outcome outcome) {
        const int number = ++slot.lastNumber;
        const bool isRefused = outcome == Operation::kRefused;
        if (family == kRelay) {
            auto param = relayParam();
            param.url = "rtmp://cdn.example/" + slot.userId() + "/" + std::to_string(number);
            param.bizId = isRefused ? 0 : param.bizId;
            slot.account->beginOperation({oracle::kAddRelay, outcome, param.to_string()});
            slot.adapter->startPublishStreamUrl(param);
        } else {
            auto config = mixConfig(2 + randomBelow(4));
            config.videoBitrate = number;
            config.bizId = isRefused ? 0 : config.bizId;
            slot.account->beginOperation({oracle::kStartMix, outcome, config.to_string()});
            slot.adapter->setLiveMixTranscoding(config);
        }
    }

    const Options mOptions;
    std::mt19937 mRandom;
    std::deque<Slot> mSlots;
    std::priority_queue<Appointment> mAppointments;
    bool mIsClosing = false;
    bool mIsPausing = false;  // true: no round begins until all rounds have ended

    std::mutex mMutex;
    std::condition_variable mWork;
    std::vector<std::pair<size_t, Family>> mSettled;

    // Never destroyed: threads of the platform may still use the ledger when the process exits.
    Ledger& mLedger = *new Ledger(static_cast<size_t>(mOptions.adapters), [this](size_t number, Family family) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mSettled.push_back({number, family});
        mWork.notify_one();
    });
};

void allowDescriptors() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

long long count(const std::atomic<int64_t>& figure) {
    return figure;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Runs many adapters against a service with injected faults");
    app.add_option("--seconds", options.seconds)->check(CLI::PositiveNumber)->capture_default_str();
    app.add_option("--adapters", options.adapters)->check(CLI::PositiveNumber)->capture_default_str();
    app.add_option("--rate", options.rate, "operations a second")->check(CLI::PositiveNumber)->capture_default_str();
    app.add_option("--seed", options.seed)->capture_default_str();
    app.add_option("--samples", options.samples, "write the samples to this file");
    CLI11_PARSE(app, argc, argv);

    allowDescriptors();
    StressService service("random", options.seed);
    vexalive::HttpOptions httpOptions;
    httpOptions.caFile = service.caFile();
    httpOptions.connectTimeout = httpOptions.totalTimeout = kRequestTimeout;
    vexalive::setHttpOptions(httpOptions);

    std::printf("%d adapters for %d s, seed %u\n", options.adapters, options.seconds, options.seed);
    Driver driver(options);
    Ledger& ledger = driver.ledger();
    const std::vector<Sample> samples = driver.run();
    driver.dropAll();
    pollUntil([&] { return ledger.inFlight() == 0; }, kRoundTimeout);
    const size_t incomplete = ledger.inFlight();

    std::printf("operations %lld, and %lld of adapters destroyed meanwhile\n", count(ledger.operations),
                count(ledger.abandoned));
    std::printf("requests %lld, retries %lld, requests that failed eleven times %lld\n", count(ledger.requests),
                count(ledger.retries), count(ledger.exhausted));
    const std::array<int, 3> violations = {ledger.violations[0], ledger.violations[1], ledger.violations[2]};
    std::printf("lost %d, doubled %d, wrong %d, incomplete %zu\n", violations[Ledger::kLost],
                violations[Ledger::kDoubled], violations[Ledger::kWrong], incomplete);

    const double first = std::min(120.0, options.seconds / 5.0);
    const Rise memory = riseSince(first, &Sample::allocated, samples);
    const Rise resident = riseSince(first, &Sample::resident, samples);
    const Rise threads = riseSince(first, &Sample::threads, samples);
    const Rise descriptors = riseSince(first, &Sample::descriptors, samples);
    const Sample& last = samples.back();
    std::printf("from second %.0f on: memory %+.2f %% (resident %+.2f %%), threads %+.1f, descriptors %+.1f\n", first,
                memory.percent, resident.percent, threads.units, descriptors.units);
    std::printf("at the end: %.1f MiB (resident %.1f MiB), %.0f threads, %.0f descriptors\n", last.allocated / 1024,
                last.resident / 1024, last.threads, last.descriptors);
    if (!options.samples.empty()) {
        std::ofstream file(options.samples);
        file << "second,allocated,resident,threads,descriptors,operations\n";
        for (const Sample& each : samples) {
            file << each.second << ',' << each.allocated << ',' << each.resident << ',' << each.threads << ','
                 << each.descriptors << ',' << each.operations << '\n';
        }
    }
    const bool grows = options.seconds >= 300 &&
                       (memory.percent > kMaxRisePercent || threads.units > kMaxRise || descriptors.units > kMaxRise);
    if (grows) {
        std::printf("memory, threads or descriptors grow\n");
    }
    const bool isClean = violations == std::array<int, 3>{} && incomplete == 0 && !grows && ledger.operations > 0;
    std::printf("%s\n", isClean ? "no rule was violated" : "A RULE WAS VIOLATED");
    return isClean ? 0 : 1;
}
