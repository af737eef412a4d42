// The local service with media: who may publish, and that the child processes of a killed service end.

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "MediaTesting.h"
#include "support/ChildProcess.h"

namespace mediatesting {
namespace {

// The number of processes on this machine that have `mark` in their command line or environment.
int processesWith(const std::string& mark) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        for (const char* name : {"cmdline", "environ"}) {
            std::ifstream file(entry.path() / name, std::ios::binary);
            const std::string content{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
            if (content.find(mark) != std::string::npos) {
                ++count;
                break;
            }
        }
    }
    return count;
}

TEST(LocalService, RefusesAPublisherUnderAWrongIdWithAReason) {
    const LocalService service;
    const auto stranger = publish(service.origin() + "/live/alice", {"red", 440});
    EXPECT_TRUE(pollUntil([&] { return stranger->hasEnded(); }));
    ASSERT_TRUE(pollUntil([&] { return !service.refusals().empty(); }));
    EXPECT_NE(service.refusals()[0].find("alice"), std::string::npos) << service.refusals()[0];
    const auto alice = publish(service.memberUrl(1), {"red", 440});
    EXPECT_TRUE(Viewer(service.memberUrl(1)).comesToShow({{320, 180, kRed}}));
}

TEST(LocalService, LeavesNoProcessWhenItIsKilled) {
    const servicetesting::TemporaryFolder folder;
    const std::string mark = "VEXALIVE_TEST_MARK=" + folder.path();
    ChildProcess service({VEXALIVE_TOOL, "serve", "--media", "--json", "--state-dir", folder.path() + "/state",
                          "--push-domain", servicetesting::kSuffix},
                         {{"VEXALIVE_TEST_MARK", folder.path()}});
    ASSERT_TRUE(service.awaitOutput("VEXALIVE_CA_FILE")) << service.errors();
    std::string address = service.output();
    address = address.substr(address.find("VEXALIVE_SERVICE_HOST=") + 22);
    HttpClient client("https://" + address.substr(0, address.find('"')), folder.path() + "/state/ca.pem");
    EXPECT_EQ(servicetesting::post(client, mixBody({{1, 0, 0, 640, 360}}))["code"], 0);
    EXPECT_EQ(servicetesting::post(client, relayOf(2, "rtmp://127.0.0.1:9/cdn/nobody"))["code"], 0);
    // The service, nginx and two workers.
    ASSERT_TRUE(pollUntil([&] { return processesWith(mark) == 4; })) << processesWith(mark);
    service.sendSignal(SIGKILL);
    service.awaitExit();
    EXPECT_TRUE(pollUntil([&] { return processesWith(mark) == 0; })) << processesWith(mark);
}

}  // namespace
}  // namespace mediatesting
