// A hundred adapters and one connection: the local service behind nginx, which speaks HTTP/2 and logs the connection of
// each request.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Nginx.h"
#include "base/ServiceAddress.h"
#include "platform/Platform.h"
#include "service/LiveService.h"
#include "support/RoomMember.h"
#include "support/TestCertificates.h"

namespace {

constexpr int kAdapters = 100;

// The request that all adapters send at once.
struct Start {
    const char* name;
    void (*ask)(LiveTranscodingAdapter& adapter);
    Call notified;
};

class ConnectionSharing : public testing::TestWithParam<Start> {
protected:
    static void SetUpTestSuite() {
        std::ofstream(caFile()) << testAuthority().pem();
        vexalive::HttpOptions http;
        http.caFile = caFile();
        ASSERT_TRUE(vexalive::setHttpOptions(http));
        vexalive::setLogSink([](auto&&...) {});
        vexalive::setEventSink([](auto&&...) {});
    }

    static void TearDownTestSuite() { std::remove(caFile().c_str()); }

    static std::string caFile() {
        return testing::TempDir() + "vexalive-sharing-test-" + std::to_string(getpid()) + ".pem";
    }
};

INSTANTIATE_TEST_SUITE_P(
    , ConnectionSharing,
    testing::Values(Start{"ARelay",
                          [](LiveTranscodingAdapter& adapter) { adapter.startPublishStreamUrl(relayParam()); },
                          {"startRelay", 0, "sucess"}},
                    Start{"AMix",
                          [](LiveTranscodingAdapter& adapter) { adapter.setLiveMixTranscoding(mixConfig()); },
                          {"setMix", 0, "sucess"}}),
    [](const auto& test) { return test.param.name; });

TEST_P(ConnectionSharing, AHundredAdaptersThatStartAtOnceShareOneConnection) {
    vexalive::LiveServiceOptions options;
    options.tls = false;
    vexalive::LiveService service(options);
    ASSERT_TRUE(service.start());
    ASSERT_TRUE(Nginx::isInstalled());
    const std::string host = kstf_get_live_service_host();
    const Nginx nginx(std::stoi(host.substr(host.find(':') + 1)), "http", service.address());

    std::vector<std::unique_ptr<Member>> members;
    for (int i = 0; i < kAdapters; ++i) {
        members.push_back(std::make_unique<Member>("u" + std::to_string(i)));
    }
    for (const auto& member : members) {
        GetParam().ask(*member->adapter);
    }
    for (const auto& member : members) {
        EXPECT_EQ(GetParam().notified, member->listener->calls.waitFor(1).at(0));
    }

    const auto lines = nginx.log(kAdapters);
    EXPECT_EQ(size_t{kAdapters}, lines.size());
    EXPECT_THAT(lines, testing::Each(testing::AllOf(lines.at(0), testing::HasSubstr(" HTTP/2.0 200"))));
    members.clear();
    service.stop();
}

}  // namespace
