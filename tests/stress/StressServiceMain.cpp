// Runs the local service until the parent process ends.
//
//     stress_service PORT SEED FOLDER random|none|slow|large
//
// The last argument selects the faults: random ones, none, slow responses, or responses just below the client's limit.
// Prints the path of its certificate authority's file once it listens.

#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
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
constexpr int kRequestsPerOutage =
    1'500;  // failed requests to one interface; enough for some to fail eleven times in a row
constexpr const char* kInterfaces[] = {"add_relay_stream_url", "remove_relay_stream_url", "set_live_mix_transcoding"};

class RandomFaults {
public:
    explicit RandomFaults(unsigned seed) : mRandom(seed) {}

    // Selects the fault of the next request. Called at each response.
    void injectNext(LiveService& service) {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (++mRequests % kRequestsBetweenOutages == 0) {
            Fault outage;
            outage.kind = Fault::Kind::kStatus;
            outage.count = kRequestsPerOutage;
            outage.interfaceName = kInterfaces[below(std::size(kInterfaces))];
            service.inject(outage);
        } else if (below(100) < kPercentFaulty) {
            service.inject(randomFault());
        }
    }

private:
    Fault randomFault() {
        static constexpr Fault::Kind kKinds[] = {
            Fault::Kind::kDelay, Fault::Kind::kStatus, Fault::Kind::kEmpty, Fault::Kind::kGarbage,
            Fault::Kind::kCut,   Fault::Kind::kClose,  Fault::Kind::kCode,
        };
        static constexpr int kStatuses[] = {503, 500, 429, 404, 301};
        static constexpr int kCodes[] = {1, -1, 3, 505, -505, 10017, 77, -2147483647};  // the adapter retries some
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
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (argc != 5) {
        return 2;
    }
    RandomFaults faults(static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)));
    std::atomic<LiveService*> itself{nullptr};
    LiveServiceOptions options;
    options.port = static_cast<uint16_t>(std::atoi(argv[1]));
    options.stateFolder = argv[3];
    options.pushDomainSuffix = "livepush.vexa.example";
    if (std::strcmp(argv[4], "random") == 0) {
        options.observer = [&](const LiveServiceEvent&) { faults.injectNext(*itself.load()); };
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
    pause();
    return 0;
}
