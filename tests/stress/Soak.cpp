// Runs many adapters in one process for minutes against a service with injected faults, and compares what they do with
// the oracle.
//
//     soak [--seconds N] [--adapters N] [--rate N] [--seed N] [--samples FILE]
//
// Exits with 0 if no rule was violated: no operation lost or doubled, none with another outcome than its rules give,
// no request incomplete, and, in a run of five minutes or more, memory, threads and descriptors that do not grow. These
// are looked at every half minute, when all work has come to its end and none begins.

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <queue>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Com/LiveTranscodingAdapter.h"
#include "Ledger.h"
#include "StressService.h"
#include "support/RoomMember.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr double kOperationsInARound = 1.6;  // about
constexpr int kRoundsBetweenJointOnes = 40;
constexpr std::chrono::milliseconds kTimeout(20000);  // of a request: a busy machine is no fault of the service's
constexpr std::chrono::seconds kSampleInterval(30);
constexpr auto kRoundTimeout = std::chrono::seconds(300);  // with a round, before it counts as lost
constexpr double kFlatPercent = 1.0;                       // of memory
constexpr double kFlat = 10;                               // threads, or descriptors

struct Options {
    int seconds = 600;
    int adapters = 1000;
    double rate = 750;  // operations a second to aim at
    unsigned seed = 1;
    std::string samples;
};

Options optionsFrom(int argc, char** argv) {
    Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        if (name == "--seconds") {
            options.seconds = std::atoi(argv[i + 1]);
        } else if (name == "--adapters") {
            options.adapters = std::atoi(argv[i + 1]);
        } else if (name == "--rate") {
            options.rate = std::atof(argv[i + 1]);
        } else if (name == "--seed") {
            options.seed = static_cast<unsigned>(std::atoi(argv[i + 1]));
        } else if (name == "--samples") {
            options.samples = argv[i + 1];
        } else {
            argc = 0;
        }
    }
    if (argc % 2 == 0 || options.seconds < 1 || options.adapters < 1 || options.rate <= 0) {
        std::fprintf(stderr, "soak [--seconds N] [--adapters N] [--rate N] [--seed N] [--samples FILE]\n");
        std::exit(2);
    }
    return options;
}

// ---- Resources of the idle process ----------------------------------------------------------------------------------

struct Sample {
    double second;
    double allocated;  // KiB that the program has allocated
    double resident;   // KiB that the system counts: those, what lies between them, stacks and code
    double threads;
    double descriptors;
    double operations;
};

double countEntries(const char* folder) {
    const auto entries = std::filesystem::directory_iterator(folder);
    return static_cast<double>(std::distance(begin(entries), end(entries)));
}

Sample sampleNow(double second, const Ledger& ledger) {
    malloc_trim(0);  // back to the system with what is only held ready
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

// How much a straight line through the samples from `first` on rises, in units and in percent of its mean.
struct Rise {
    double units = 0;
    double percent = 0;
};

Rise riseOf(double Sample::*figure, const std::vector<Sample>& samples, double first) {
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

enum class Action {
    kStartRelay,
    kRefusedRelay,
    kStopRelay,
    kSetMix,
    kRefusedMix,
    kRefusedUsers,
    kCancelMix,
    kEnterRoom,
    kReset,
    kDrop,
};

struct Step {
    milliseconds pause;  // before it
    Action call;
};

// One adapter after another under the same name.
struct Slot {
    struct Lane {
        bool isBusy = false;
        int epoch = 0;  // of its rounds: appointments made before are void
        Clock::time_point since;
    };
    std::string userId;
    std::shared_ptr<Account> account;
    std::shared_ptr<LedgerListener> listener;
    std::shared_ptr<LiveTranscodingAdapter> adapter;
    std::array<Lane, 2> lanes;
    std::array<std::vector<Step>, 2>
        scripts;  // the remaining steps, the next one last; that of a joint round is the relay's
    bool isJointRound = false;
    bool needsJointRound = false;
    bool isInRoom = false;
    bool hasStarted = false;  // a relay or a mix, ever
    int lastNumber = 0;
};

class Driver {
public:
    Driver(Ledger& ledger, const Options& options)
        : mLedger(ledger), mOptions(options), mRandom(options.seed), mSlots(static_cast<size_t>(options.adapters)) {
        mLedger.onRoundCompleted = [this](Account& account, Family family) {
            const std::lock_guard<std::mutex> lock(mMutex);
            mSettled.push_back({&account, family});
            mWork.notify_one();
        };
        for (size_t i = 0; i < mSlots.size(); ++i) {
            Slot& slot = mSlots[i];
            slot.userId = "user" + std::to_string(i);
            slot.account = mLedger.openAccount(slot.userId);
            mSlotOf[slot.account.get()] = &slot;
            createAdapter(slot);
            scheduleRound(slot, kRelay);
            scheduleRound(slot, kMix);
        }
    }

    // Runs until the time is over and every round is complete; pauses regularly to take a sample.
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
            std::vector<std::pair<Account*, Family>> settled;
            {
                std::unique_lock<std::mutex> lock(mMutex);
                mWork.wait_until(lock, wake, [this] { return !mSettled.empty(); });
                settled.swap(mSettled);
            }
            for (const auto& [account, family] : settled) {
                Slot& slot = *mSlotOf.at(account);
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
        slot.listener = std::make_shared<LedgerListener>(mLedger, slot.account);
        slot.adapter->setLiveTranscodingDelegate(slot.listener);
        slot.adapter->updateUserInfo(1400, "signature", slot.userId);
        slot.isInRoom = slot.hasStarted = false;
    }

    // Waits until no task and no callback holds the adapter.
    void drop(Slot& slot) {
        const std::weak_ptr<LiveTranscodingAdapter> adapter = slot.adapter;
        slot.account->beginDrop();
        slot.adapter.reset();
        while (!adapter.expired()) {
            std::this_thread::sleep_for(milliseconds(1));
        }
        slot.listener->close();
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
                    lane.isBusy = false;  // for good: there is no next appointment
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
            slot.scripts[family] = scriptOf(family);
            markBusy(slot, family);
            performStep(slot, family);
        } else if (!slot.lanes[kRelay].isBusy && !slot.lanes[kMix].isBusy) {
            slot.isJointRound = true;
            slot.needsJointRound = false;
            slot.scripts[kRelay] = jointRoundOf(slot);
            markBusy(slot, kRelay);
            markBusy(slot, kMix);
            performStep(slot, kRelay);
        }  // else the other lane begins it at its next appointment
    }

    void markBusy(Slot& slot, Family family) {
        Slot::Lane& lane = slot.lanes[family];
        lane.isBusy = true;
        ++lane.epoch;
        lane.since = Clock::now();
    }

    void performStep(Slot& slot, Family family) {
        std::vector<Step>& script = slot.scripts[family];
        const Action call = script.back().call;
        script.pop_back();
        perform(slot, call);
        if (!script.empty()) {
            mAppointments.push({Clock::now() + script.back().pause, &slot, family, slot.lanes[family].epoch});
        } else if (call == Action::kDrop) {
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

    // One operation, or a few of which each makes the one before stale.
    std::vector<Step> scriptOf(Family family) {
        std::vector<Step> script;
        bool hasRefusedUsers = false;
        for (int count = randomBelow(4) == 0 ? 2 + randomBelow(2) : 1; count > 0; --count) {
            const int roll = randomBelow(20);
            const Action relay = roll < 11   ? Action::kStartRelay
                                 : roll < 19 ? Action::kStopRelay
                                             : Action::kRefusedRelay;
            // One refusal of users at most: of two in a row only the second must be notified, and they are equal.
            const Action mix = roll < 11                      ? Action::kSetMix
                               : roll < 18                    ? Action::kCancelMix
                               : roll < 19 || hasRefusedUsers ? Action::kRefusedMix
                                                              : Action::kRefusedUsers;
            hasRefusedUsers = hasRefusedUsers || mix == Action::kRefusedUsers;
            script.push_back({shortPause(), family == kRelay ? relay : mix});
            if (randomBelow(10) == 0) {
                script.push_back({shortPause(), Action::kEnterRoom});  // once more: nothing waits for it
            }
        }
        return script;
    }

    // A round that involves relay and mix. Steps are in reverse order.
    std::vector<Step> jointRoundOf(const Slot& slot) {
        const milliseconds pause = shortPause();
        if (!slot.hasStarted && randomBelow(2) == 0) {
            return {{pause, Action::kCancelMix}, {pause, Action::kStopRelay}};
        }
        std::vector<Step> script = {
            {pause, Action::kEnterRoom}, {milliseconds(0), Action::kSetMix}, {milliseconds(0), Action::kStartRelay}};
        if (!slot.isInRoom) {
            return script;
        }
        if (randomBelow(2) == 0) {
            return {{pause, Action::kDrop}, {milliseconds(0), Action::kSetMix}, {pause, Action::kStartRelay}};
        }
        script.push_back({pause, Action::kReset});
        script.push_back({milliseconds(0), Action::kSetMix});
        script.push_back({pause, Action::kStopRelay});
        return script;
    }

    void perform(Slot& slot, Action call) {
        LiveTranscodingAdapter& adapter = *slot.adapter;
        const int number = ++slot.lastNumber;
        const auto outcome = slot.isInRoom ? Operation::kSends : Operation::kWaitsForRoom;
        switch (call) {
            case Action::kStartRelay: {
                auto param = relayParam();
                param.url = "rtmp://cdn.example/" + slot.userId + "/" + std::to_string(number);
                slot.account->beginOperation({oracle::kAddRelay, number, outcome, param.to_string()});
                slot.hasStarted = true;
                adapter.startPublishStreamUrl(param);
                break;
            }
            case Action::kRefusedRelay: {
                kstmedia::VexaPublishCDNParamInternal param;
                param.appId = number;
                slot.account->beginOperation(
                    {oracle::kAddRelay,
                     number,
                     Operation::kRefused,
                     param.to_string(),
                     {"startRelay", -3323, "startPublishStreamUrl failure, param is invalid"}});
                adapter.startPublishStreamUrl(param);
                break;
            }
            case Action::kStopRelay:
                slot.account->beginOperation(
                    {oracle::kRemoveRelay,
                     number,
                     slot.hasStarted ? Operation::kSends : Operation::kRefused,
                     "",
                     {"stopMix", -3323,
                      "stopPublishStreamUrl error, appid = 0, should call startPublishStreamUrl before"},
                     false});
                adapter.stopPublishStreamUrl();
                break;
            case Action::kSetMix:
            case Action::kRefusedMix:
            case Action::kRefusedUsers: {
                auto config = mixConfig(2 + randomBelow(4));
                config.videoBitrate = number;
                Operation operation{oracle::kStartMix, number, outcome};
                if (call == Action::kRefusedMix) {
                    config.bizId = 0;
                    operation.outcome = Operation::kRefused;
                    operation.refusal = {"startRelay", -3324, "setLiveMixTranscoding failure, param is invalid"};
                } else if (call == Action::kRefusedUsers) {
                    config.mixUsersArray[0].zOrder = config.mixUsersArray[1].zOrder;
                    operation.outcome = Operation::kRefused;
                    operation.refusal = {"startRelay", -3324, "mixUsersArray is invalid"};
                    operation.refusedEvenIfStale = false;
                } else {
                    slot.hasStarted = true;
                }
                operation.information = config.to_string();
                slot.account->beginOperation(operation);
                adapter.setLiveMixTranscoding(config);
                break;
            }
            case Action::kCancelMix:
                slot.account->beginOperation(
                    {oracle::kCancelMix,
                     number,
                     slot.hasStarted ? Operation::kSends : Operation::kRefused,
                     "",
                     {"stopMix", -3324,
                      "stopLiveMixTranscoding error, appid = 0, should call startMixTranscoding before"},
                     false});
                adapter.stopLiveMixTranscoding();
                break;
            case Action::kEnterRoom:
                slot.account->beginRoomEntry();
                slot.isInRoom = true;
                adapter.updateEnterRoomInfo("r1", "key");
                break;
            case Action::kReset:
                slot.account->beginReset();
                slot.isInRoom = false;
                adapter.resetInfo();
                break;
            case Action::kDrop:
                drop(slot);
                createAdapter(slot);
                break;
        }
        slot.account->endCall();
    }

    Ledger& mLedger;
    const Options mOptions;
    std::mt19937 mRandom;
    std::vector<Slot> mSlots;
    std::unordered_map<Account*, Slot*> mSlotOf;
    std::priority_queue<Appointment> mAppointments;
    bool mIsClosing = false;
    bool mIsPausing = false;  // no round begins until all have ended

    std::mutex mMutex;
    std::condition_variable mWork;
    std::vector<std::pair<Account*, Family>> mSettled;
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
    const Options options = optionsFrom(argc, argv);
    allowDescriptors();
    StressService service("random", options.seed);
    vexalive::HttpOptions httpOptions;
    httpOptions.caFile = service.caFile();
    httpOptions.connectTimeout = httpOptions.totalTimeout = kTimeout;
    vexalive::setHttpOptions(httpOptions);

    std::printf("%d adapters for %d s, seed %u\n", options.adapters, options.seconds, options.seed);
    static Ledger& ledger = *new Ledger();  // the platform's threads may still use it at exit
    ledger.installHooks();
    Driver driver(ledger, options);
    const std::vector<Sample> samples = driver.run();
    driver.dropAll();
    for (const auto patience = Clock::now() + kRoundTimeout; ledger.inFlight() > 0 && Clock::now() < patience;) {
        std::this_thread::sleep_for(milliseconds(10));
    }
    const auto incomplete = static_cast<long long>(ledger.inFlight());

    std::printf("operations %lld: succeeded %lld, refused %lld, waited for the room %lld, superseded %lld\n",
                count(ledger.operations), count(ledger.succeeded), count(ledger.refused), count(ledger.deferred),
                count(ledger.superseded));
    std::printf("of adapters dropped meanwhile %lld\n", count(ledger.abandoned));
    std::printf("requests %lld, completed %lld, of which retried %lld; failed eleven times %lld\n",
                count(ledger.started), count(ledger.delivered), count(ledger.retries), count(ledger.exhausted));
    std::printf("lost %lld, doubled %lld, wrong %lld, incomplete %lld\n", count(ledger.lost), count(ledger.doubled),
                count(ledger.wrong), incomplete);

    const double first = std::min(120.0, options.seconds / 5.0);
    const Rise memory = riseOf(&Sample::allocated, samples, first);
    const Rise resident = riseOf(&Sample::resident, samples, first);
    const Rise threads = riseOf(&Sample::threads, samples, first);
    const Rise descriptors = riseOf(&Sample::descriptors, samples, first);
    const Sample& last = samples.back();
    std::printf("from second %.0f on: memory %+.2f %% (resident %+.2f %%), threads %+.1f, descriptors %+.1f\n", first,
                memory.percent, resident.percent, threads.units, descriptors.units);
    std::printf("at the last rest: %.1f MiB (resident %.1f MiB), %.0f threads, %.0f descriptors\n",
                last.allocated / 1024, last.resident / 1024, last.threads, last.descriptors);
    if (!options.samples.empty()) {
        std::ofstream file(options.samples);
        file << "second,allocated,resident,threads,descriptors,operations\n";
        for (const Sample& each : samples) {
            file << each.second << ',' << each.allocated << ',' << each.resident << ',' << each.threads << ','
                 << each.descriptors << ',' << each.operations << '\n';
        }
    }
    const bool grows =
        options.seconds >= 300 && (memory.percent > kFlatPercent || threads.units > kFlat || descriptors.units > kFlat);
    if (grows) {
        std::printf("something grows\n");
    }
    const bool isClean = ledger.violations() == 0 && incomplete == 0 && !grows && ledger.operations > 0;
    std::printf("%s\n", isClean ? "no rule was violated" : "A RULE WAS VIOLATED");
    return isClean ? 0 : 1;
}
