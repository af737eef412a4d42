// The local service until its standard input ends.
//
//     stress_service PORT SEED FOLDER random|good|slow|large
//
// It injects faults at random, or none, or responds slowly, or sends responses that almost reach the client's limit.
// Prints the file of its certificate authority once it listens.

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <mutex>
#include <random>

#include "service/LiveService.h"

using vexalive::Fault;
using vexalive::LiveService;
using vexalive::LiveServiceEvent;
using vexalive::LiveServiceOptions;

namespace {

constexpr int kPercentFaulty = 25;
constexpr int kRequestsBetweenOutages = 15'000;
constexpr int kOutage = 1'500;  // requests to one interface: enough for some to fail eleven times
constexpr const char* kInterfaces[] = {"add_relay_stream_url", "remove_relay_stream_url", "set_live_mix_transcoding"};

class Whims {
public:
    explicit Whims(unsigned seed) : mRandom(seed) {}

    // The fault for the next request, chosen at each response.
    void follow(LiveService& service) {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (++mRequests % kRequestsBetweenOutages == 0) {
            Fault outage;
            outage.kind = Fault::Kind::kStatus;
            outage.count = kOutage;
            outage.interfaceName = kInterfaces[below(std::size(kInterfaces))];
            service.inject(outage);
        } else if (below(100) < kPercentFaulty) {
            service.inject(any());
        }
    }

private:
    Fault any() {
        static constexpr Fault::Kind kKinds[] = {
            Fault::Kind::kDelay, Fault::Kind::kStatus, Fault::Kind::kEmpty, Fault::Kind::kGarbage,
            Fault::Kind::kCut,   Fault::Kind::kClose,  Fault::Kind::kCode,
        };
        static constexpr int kStatuses[] = {503, 500, 429, 404, 301};
        static constexpr int kCodes[] = {1, -1, 3, 505, -505, 10017, 77, -2147483647};  // some are retried
        Fault fault;
        fault.kind = below(200) == 0 ? Fault::Kind::kHuge : kKinds[below(std::size(kKinds))];
        fault.delayMs = fault.kind == Fault::Kind::kDelay || below(4) == 0 ? 1 + below(300) : 0;
        fault.status = kStatuses[below(std::size(kStatuses))];
        fault.code = kCodes[below(std::size(kCodes))];
        fault.errorCodeKeys = below(2) == 0;
        return fault;
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
    if (const vexalive::Result<void> started = service.start(); !started) {
        std::fprintf(stderr, "%s\n", started.error().message.c_str());
        return 1;
    }
    Fault always;
    always.count = 0;
    if (std::strcmp(argv[4], "slow") == 0) {
        always.kind = Fault::Kind::kDelay;
        always.delayMs = 200;
        service.inject(always);
    } else if (std::strcmp(argv[4], "large") == 0) {
        always.kind = Fault::Kind::kHuge;
        always.size = (size_t{1} << 20) - 1;
        service.inject(always);
    }
    std::printf("%s\n", service.caFile().c_str());
    std::fflush(stdout);
    char letter = 0;
    while (read(STDIN_FILENO, &letter, 1) > 0) {
    }
    return 0;
}
