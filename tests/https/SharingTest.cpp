// A hundred adapters share a connection. The local service is behind nginx, which logs the connection of each request.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Nginx.h"
#include "platform/Platform.h"
#include "service/LiveService.h"
#include "support/OwnService.h"
#include "support/RoomMember.h"
#include "support/TestCertificates.h"

namespace {

constexpr int kAdapters = 100;

class ConnectionSharing : public testing::TestWithParam<oracle::Kind> {};

INSTANTIATE_TEST_SUITE_P(, ConnectionSharing, testing::Values(oracle::kAddRelay, oracle::kStartMix),
                         [](const auto& test) { return oracle::rulesOf(test.param).name; });

TEST_P(ConnectionSharing, AHundredAdaptersThatStartAtOnceShareOneConnection) {
    vexalive::LiveServiceOptions options;
    options.tls = false;
    vexalive::LiveService service(options);
    ASSERT_TRUE(service.start());
    ASSERT_TRUE(Nginx::isInstalled());
    const Nginx nginx(ownServicePort(), "http", service.address());

    std::vector<std::unique_ptr<Member>> members;
    for (int i = 0; i < kAdapters; ++i) {
        members.push_back(std::make_unique<Member>("u" + std::to_string(i)));
    }
    for (const auto& member : members) {
        callOperation(*member->adapter, GetParam());
    }
    for (const auto& member : members) {
        EXPECT_EQ((Call{oracle::rulesOf(GetParam()).name, 0, "sucess"}), member->listener->calls.waitFor(1).at(0));
    }

    const auto lines = nginx.log(kAdapters);
    EXPECT_EQ(size_t{kAdapters}, lines.size());
    EXPECT_THAT(lines, testing::Each(testing::AllOf(lines.at(0), testing::HasSubstr(" HTTP/2.0 200"))));
    members.clear();
    service.stop();
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    vexalive::HttpOptions options;
    options.caFile = testAuthorityFile();
    vexalive::setLogSink([](auto&&...) {});
    vexalive::setEventSink([](auto&&...) {});
    return vexalive::setHttpOptions(options) ? RUN_ALL_TESTS() : 1;
}
