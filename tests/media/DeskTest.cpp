// The desk as a whole: who may publish, what is left when the service is killed, and what its numbers say.

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "MediaTesting.h"
#include "support/ChildProcess.h"

namespace mediatesting {
namespace {

// The processes of this machine with that text in their command line or their environment.
int processesWith(const std::string& text) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        for (const char* name : {"cmdline", "environ"}) {
            std::ifstream file(entry.path() / name, std::ios::binary);
            const std::string content{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
            if (content.find(text) != std::string::npos) {
                ++count;
                break;
            }
        }
    }
    return count;
}

TEST(Desk, APublishUnderAWrongIdIsRefusedWithAReason) {
    const Desk desk;
    const auto stranger = publish(desk.origin() + "/live/alice", {"red", 440});
    EXPECT_TRUE(eventually([&] { return stranger->hasEnded(); }));
    ASSERT_TRUE(eventually([&] { return !desk.refusals().empty(); }));
    EXPECT_NE(desk.refusals()[0].find("alice"), std::string::npos) << desk.refusals()[0];
    const auto alice = publish(desk.memberUrl(1), {"red", 440});
    const Viewer viewer(desk.memberUrl(1), 640, 360);
    EXPECT_TRUE(viewer.comesToSee({{320, 180, kRed}}));
}

TEST(Desk, AKilledServiceLeavesNoProcessBehind) {
    const servicetesting::TemporaryFolder folder;
    const std::string mark = "VEXALIVE_TEST_MARK=" + folder.path();
    ChildProcess service({VEXALIVE_TOOL, "serve", "--media", "--json", "--state-dir", folder.path() + "/state",
                          "--push-domain", servicetesting::kSuffix},
                         {{"VEXALIVE_TEST_MARK", folder.path()}});
    ASSERT_TRUE(service.awaitOutput("VEXALIVE_CA_FILE")) << service.errors();
    std::string address = service.output();
    address = address.substr(address.find("VEXALIVE_SERVICE_HOST=") + 22);
    httplib::Client client("https://" + address.substr(0, address.find('"')));
    client.set_ca_cert_path(folder.path() + "/state/ca.pem");
    client.enable_server_certificate_verification(false);
    EXPECT_EQ(servicetesting::post(client, mixBody({{1, 0, 0, 640, 360}}))["code"], 0);
    EXPECT_EQ(servicetesting::post(client, relayBody(2, "rtmp://127.0.0.1:9/cdn/nobody"))["code"], 0);
    ASSERT_TRUE(eventually([&] { return processesWith(mark) == 4; })) << processesWith(mark);  // nginx and two workers
    service.sendSignal(SIGKILL);
    service.awaitExit();
    EXPECT_TRUE(eventually([&] { return processesWith(mark) == 0; })) << processesWith(mark);
}

TEST(Desk, ItsNumbersAreThereForAMonitor) {
    Desk desk;
    const auto alice = publish(desk.memberUrl(1), {"red", 440});
    ASSERT_EQ(desk.ask(relayBody(1, desk.origin() + "/cdn/alice")), 0);
    ASSERT_TRUE(eventually([&] { return desk.relay()["media"]["state"] == "running"; })) << desk.relay();
    const std::string metrics = desk.get("/metrics");
    EXPECT_NE(metrics.find("# TYPE vexalive_"), std::string::npos) << metrics;
    EXPECT_NE(metrics.find(streamIdOf(1)), std::string::npos) << metrics;
}

}  // namespace
}  // namespace mediatesting
