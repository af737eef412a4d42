// The local service until its standard input ends.
//
//     stress_service PORT SEED FOLDER random|good|slow|large
//
// It misbehaves at random, or never, or takes its time, or sends answers that almost reach the adapter's limit. Prints
// the file of its certificate authority once it listens.

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <mutex>
#include <random>

#include "service/LiveService.h"

using vexalive::LiveService;
using vexalive::LiveServiceEvent;
using vexalive::LiveServiceOptions;
using vexalive::Misbehaviour;

namespace {

constexpr int kPercentMisbehaved = 25;
constexpr int kRequestsBetweenOutages = 15'000;
constexpr int kOutage = 1'500;  // requests to one interface: enough for some to fail eleven times
constexpr const char* kInterfaces[] = {"add_relay_stream_url", "remove_relay_stream_url", "set_live_mix_transcoding"};

class Whims {
public:
    explicit Whims(unsigned seed) : mRandom(seed) {}

    // How the next request may be treated, asked for at each answer.
    void follow(LiveService& service) {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (++mRequests % kRequestsBetweenOutages == 0) {
            Misbehaviour outage;
            outage.kind = Misbehaviour::Kind::kStatus;
            outage.times = kOutage;
            outage.interfaceName = kInterfaces[below(std::size(kInterfaces))];
            service.misbehave(outage);
        } else if (below(100) < kPercentMisbehaved) {
            service.misbehave(any());
        }
    }

private:
    Misbehaviour any() {
        static constexpr Misbehaviour::Kind kKinds[] = {
            Misbehaviour::Kind::kDelay,      Misbehaviour::Kind::kStatus, Misbehaviour::Kind::kEmpty,
            Misbehaviour::Kind::kGarbage,    Misbehaviour::Kind::kCut,    Misbehaviour::Kind::kClose,
            Misbehaviour::Kind::kServerCode,
        };
        static constexpr int kStatuses[] = {503, 500, 429, 404, 301};
        static constexpr int kCodes[] = {1, -1, 3, 505, -505, 10017, 77, -2147483647};  // some are retried
        Misbehaviour misbehaviour;
        misbehaviour.kind = below(200) == 0 ? Misbehaviour::Kind::kHuge : kKinds[below(std::size(kKinds))];
        misbehaviour.delayMs = misbehaviour.kind == Misbehaviour::Kind::kDelay || below(4) == 0 ? 1 + below(300) : 0;
        misbehaviour.status = kStatuses[below(std::size(kStatuses))];
        misbehaviour.code = kCodes[below(std::size(kCodes))];
        misbehaviour.errorCodeKeys = below(2) == 0;
        return misbehaviour;
    }

    int below(size_t end) { return static_cast<int>(mRandom() % end); }

    std::mutex mMutex;
    std::mt19937 mRandom;
    int mRequests = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        return 2;
    }
    Whims whims(static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)));
    std::atomic<LiveService*> itself{nullptr};
    LiveServiceOptions options;
    options.port = static_cast<uint16_t>(std::atoi(argv[1]));
    options.stateFolder = argv[3];
    options.pushDomainSuffix = "livepush.vexa.example";
    if (std::strcmp(argv[4], "random") == 0) {
        options.observer = [&](const LiveServiceEvent&) { whims.follow(*itself.load()); };
    }
    LiveService service(options);
    itself = &service;
    if (!service.start()) {
        std::fprintf(stderr, "%s\n", service.error().c_str());
        return 1;
    }
    Misbehaviour always;
    always.times = 0;
    if (std::strcmp(argv[4], "slow") == 0) {
        always.kind = Misbehaviour::Kind::kDelay;
        always.delayMs = 200;
        service.misbehave(always);
    } else if (std::strcmp(argv[4], "large") == 0) {
        always.kind = Misbehaviour::Kind::kHuge;
        always.size = (size_t{1} << 20) - 1;
        service.misbehave(always);
    }
    std::printf("%s\n", service.caFile().c_str());
    std::fflush(stdout);
    char letter = 0;
    while (read(STDIN_FILENO, &letter, 1) > 0) {
    }
    return 0;
}
