// A process that runs out of descriptors or threads, or whose callback blocks. Each test needs its own process, because
// the engine of the HTTPS client starts once in a process.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "StressService.h"
#include "ThreadRefusal.h"
#include "base/CVexaHttpSendRecv.h"
#include "platform/Platform.h"
#include "support/OwnService.h"
#include "support/Poll.h"
#include "support/RoomMember.h"

namespace {

using namespace std::chrono_literals;

void trust(const StressService& service) {
    vexalive::HttpOptions options;
    options.caFile = service.caFile();
    ASSERT_TRUE(vexalive::setHttpOptions(options));
    vexalive::setLogSink([](auto&&...) {});
    vexalive::setEventSink([](auto&&...) {});
}

// Records the return codes of all requests from now on.
std::shared_ptr<Journal<int>> observeRetCodes() {
    const auto retCodes = std::make_shared<Journal<int>>();
    vexalive::setHttpObserver([retCodes](const vexalive::HttpExchange& exchange) {
        if (exchange.phase == vexalive::HttpExchange::kCompleted) {
            retCodes->add(exchange.retCode);
        }
    });
    return retCodes;
}

// ---- Descriptors ----------------------------------------------------------------------------------------------------

// As long as this object exists, the process has only `free` free descriptors.
class DescriptorShortage {
public:
    explicit DescriptorShortage(size_t free) {
        getrlimit(RLIMIT_NOFILE, &mBefore);
        rlimit limit = mBefore;
        limit.rlim_cur = std::min<rlim_t>(128, mBefore.rlim_cur);
        setrlimit(RLIMIT_NOFILE, &limit);
        for (int next = open("/dev/null", O_RDONLY); next >= 0; next = dup(mOpen.front())) {
            mOpen.push_back(next);
        }
        for (; free > 0 && !mOpen.empty(); --free) {
            close(mOpen.back());
            mOpen.pop_back();
        }
    }

    ~DescriptorShortage() {
        for (const int each : mOpen) {
            close(each);
        }
        setrlimit(RLIMIT_NOFILE, &mBefore);
    }

private:
    rlimit mBefore{};
    std::vector<int> mOpen;
};

class Descriptors : public testing::TestWithParam<size_t> {};

// The first request of the process needs descriptors to start the engine, open a socket and read the authorities.
TEST_P(Descriptors, FirstRequestWithoutEnoughDescriptorsIsRetriedAndSucceeds) {
    const StressService service("none");
    trust(service);
    const auto retCodes = observeRetCodes();
    Member member("u-first");
    {
        const DescriptorShortage shortage(GetParam());
        member.adapter->startPublishStreamUrl(relayParam());
        const std::vector<int> observed = retCodes->waitFor(1);
        ASSERT_FALSE(observed.empty());
        std::printf("with %zu descriptors left: retCode %d\n", GetParam(), observed[0]);
        EXPECT_TRUE(observed[0] == CVexaHttpSendRecv::kSuccess || observed[0] == CVexaHttpSendRecv::kRetryable);
        if (observed[0] == CVexaHttpSendRecv::kRetryable) {
            EXPECT_EQ(CVexaHttpSendRecv::kRetryable, retCodes->waitFor(2).back());
        }
    }
    EXPECT_EQ((std::vector<Call>{{"startRelay", 0, "sucess"}}), member.listener->calls.waitFor(1));
    vexalive::setHttpObserver(nullptr);
}

INSTANTIATE_TEST_SUITE_P(Free, Descriptors, testing::Values(0, 1, 2, 3, 4, 5, 6));

// The service responds slowly, so that there are more requests in flight than possible connections.
TEST(Descriptors, ConcurrentRequestsShareTwoDescriptors) {
    const StressService service("slow");
    trust(service);
    Member first("u-first");
    first.adapter->startPublishStreamUrl(relayParam());
    ASSERT_EQ(1u, first.listener->calls.waitFor(1).size());

    const auto retCodes = observeRetCodes();
    constexpr size_t kMembers = 64;
    std::vector<std::unique_ptr<Member>> members;
    {
        const DescriptorShortage shortage(2);
        for (size_t i = 0; i < kMembers; ++i) {
            members.push_back(std::make_unique<Member>("u-" + std::to_string(i)));
            members.back()->adapter->startPublishStreamUrl(relayParam());
        }
        retCodes->waitFor(kMembers);
    }
    for (const auto& member : members) {
        EXPECT_EQ((std::vector<Call>{{"startRelay", 0, "sucess"}}), member->listener->calls.waitFor(1));
    }
    const std::vector<int> observed = retCodes->all();
    const auto retried = std::count(observed.begin(), observed.end(), static_cast<int>(CVexaHttpSendRecv::kRetryable));
    const auto succeeded = std::count(observed.begin(), observed.end(), static_cast<int>(CVexaHttpSendRecv::kSuccess));
    std::printf("%zd succeeded, %zd retried\n", succeeded, retried);
    EXPECT_GT(retried, 0);
    EXPECT_EQ(static_cast<std::ptrdiff_t>(observed.size()), succeeded + retried);
    vexalive::setHttpObserver(nullptr);
}

// ---- Threads --------------------------------------------------------------------------------------------------------

// The adapter's first request starts three threads: its worker and two of the HTTPS client.
void startWithThreads(int allowed) noexcept {
    vexalive::setLogSink([](auto&&...) {});
    const auto adapter = std::make_shared<LiveTranscodingAdapter>();
    threadsAllowed = allowed;
    adapter->updateUserInfo(1400, "signature", "u-threads");
    adapter->updateEnterRoomInfo("r1", "key");
    adapter->startPublishStreamUrl(relayParam());
    std::this_thread::sleep_for(kTestTimeout);  // the process aborts during this sleep
}

TEST(ThreadsDeathTest, ProcessAbortsIfAWorkerOrAFirstThreadOfTheClientCannotBeStarted) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    for (const int allowed : {0, 1, 2}) {
        EXPECT_EXIT(startWithThreads(allowed), testing::KilledBySignal(SIGABRT), "terminate called") << allowed;
    }
}

// If two threads exist and no other can be started, responses are only delayed.
TEST(Threads, ResponsesArriveIfNoFurtherThreadCanBeStarted) {
    const StressService service("none");
    trust(service);
    std::vector<std::unique_ptr<Member>> members;
    for (int i = 0; i < 8; ++i) {
        members.push_back(std::make_unique<Member>("u-" + std::to_string(i)));
        members.back()->adapter->setLiveMixTranscoding({});  // is refused, but starts the worker
        ASSERT_EQ(1u, members.back()->listener->calls.waitFor(1).size());
    }
    threadsAllowed = 2;  // the first two threads of the HTTPS client
    for (const auto& member : members) {
        member->adapter->startPublishStreamUrl(relayParam());
    }
    for (const auto& member : members) {
        EXPECT_EQ((Call{"startRelay", 0, "sucess"}), member->listener->calls.waitFor(2).back());
    }
    EXPECT_EQ(0, threadsAllowed);
    threadsAllowed = -1;
}

// ---- Memory ---------------------------------------------------------------------------------------------------------

size_t residentBytes() {
    size_t pages = 0;
    size_t resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// While a callback blocks, the complete responses of all other requests wait for delivery.
TEST(Memory, LargeResponsesWaitForABlockedCallbackAndEachIsDeliveredOnce) {
    constexpr size_t kResponses = 48;
    constexpr size_t kResponseBytes = (size_t{1} << 20) - 1;
    const StressService service("large");
    trust(service);
    const std::string url =
        "https://127.0.0.1:" + std::to_string(ownServicePort()) + "/v3/liveinterface/add_relay_stream_url?usersig=s";
    const std::string text = "{}";
    KstCopyOnWriteBuffer body(reinterpret_cast<const uint8_t*>(text.data()), text.size());

    Journal<size_t> sizes;
    Journal<bool> entered;
    Gate unblock;
    std::map<size_t, int> notified;
    const size_t before = residentBytes();
    {
        CVexaHttpSendRecv client;
        for (size_t i = 0; i < kResponses; ++i) {
            client.sendHttpsRequest(body, url, [&, i](int, KstCopyOnWriteBuffer& response) {
                ++notified[i];  // not atomic: callbacks of a client run one at a time
                entered.add(true);
                unblock.pass();
                sizes.add(response.size());
            });
        }
        ASSERT_FALSE(entered.waitFor(1).empty());
        // Only the memory usage shows that all responses have arrived.
        pollUntil([&] { return residentBytes() >= before + kResponses * kResponseBytes; }, 60s);
        std::printf("%zu responses of 1 MiB behind one blocked callback: %.1f MiB more\n", kResponses,
                    static_cast<double>(residentBytes() - before) / (1 << 20));
        unblock.open();
        EXPECT_EQ(kResponses, sizes.waitFor(kResponses).size());
    }
    for (const size_t each : sizes.all()) {
        EXPECT_EQ(kResponseBytes, each);
    }
    EXPECT_EQ(kResponses, notified.size());
    std::printf("after the last callback: %.1f MiB more\n", static_cast<double>(residentBytes() - before) / (1 << 20));
}

}  // namespace
