// `vexalive serve --media` as a process of its own: what it says, and what is left of it when it is killed or told to
// stop.

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "service/Child.h"
#include "service/LineReader.h"
#include "service/Origin.h"
#include "support/ServiceTesting.h"

using namespace servicetesting;
using namespace std::chrono_literals;

namespace {

class ServiceProcess : public ::testing::Test {
protected:
    // With an nginx of its own where there is one.
    void SetUp() override {
        ::setenv("VEXALIVE_MEDIA_WORKER", FAKE_WORKER, 1);
        std::vector<std::string> arguments = {VEXALIVE_TOOL,  "serve",  "--media",       "--state-dir",
                                              mFolder.path(), "--json", "--push-domain", kSuffix};
        if (!vexalive::Origin().prepare(mFolder.path())) {
            arguments.insert(arguments.end(), {"--origin", "rtmp://127.0.0.1:1"});
        }
        auto started = vexalive::Child::start(arguments);
        ::unsetenv("VEXALIVE_MEDIA_WORKER");
        ASSERT_TRUE(started) << started.error().message;
        mTool = std::move(*started);
        ASSERT_TRUE(eventually([&] {
            read();
            return mEvents.count("listening") == 1 && mEvents.count("console") == 1 && mEvents.count("origin") == 1;
        }));
        const std::string url = mEvents["console"]["url"];
        mConsole = std::make_unique<httplib::Client>(url.substr(0, url.size() - 1));

        httplib::Client client("https://" + mEvents["listening"]["service"].get<std::string>());
        client.set_ca_cert_path(mEvents["listening"]["caFile"].get<std::string>());
        client.enable_server_certificate_verification(true);
        client.set_url_encode(false);
        ASSERT_EQ(0, post(client, addRelayBody())["code"]);
        ASSERT_TRUE(eventually([&] { return worker() != 0; }));
    }

    void read() {
        mReader.read(mTool->output.get(), std::chrono::steady_clock::now(), [this](const std::string& line) {
            const json event = json::parse(line);
            mEvents[event["event"]] = event;
            ++mCounts[event["event"]];
        });
    }

    pid_t worker() {
        const auto state = mConsole->Get("/state");
        const json media = json::parse(state->body)["relays"][0]["media"];
        const std::string said = media["error"];
        const size_t at = said.find(" of ");
        return at == std::string::npos ? 0 : std::atoi(said.c_str() + at + 4);
    }

    // Processes whose command line names the folder, which an nginx of the service's has in it.
    size_t processesOfFolder() const {
        size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
            const std::string name = entry.path().filename();
            std::ifstream file(entry.path() / "cmdline");
            const std::string line((std::istreambuf_iterator<char>(file)), {});
            count +=
                name.find_first_not_of("0123456789") == std::string::npos && line.find(mFolder.path()) != line.npos;
        }
        return count;
    }

    const TemporaryFolder mFolder;
    std::unique_ptr<vexalive::Child> mTool;
    vexalive::LineReader mReader{{100000, 10000, 10000000}};
    std::map<std::string, json> mEvents;  // the last of each kind
    std::map<std::string, int> mCounts;
    std::unique_ptr<httplib::Client> mConsole;
};

}  // namespace

TEST_F(ServiceProcess, LeavesNoProcess) {
    const pid_t pid = worker();
    ASSERT_EQ(0, ::kill(pid, 0));
    ASSERT_GE(processesOfFolder(), 1u);
    mTool->signal(SIGKILL);
    EXPECT_TRUE(eventually([&] { return ::kill(pid, 0) != 0; }));
    EXPECT_TRUE(eventually([&] {
        mTool->reap();
        return processesOfFolder() == 0;
    }));
}

TEST_F(ServiceProcess, StopsInOrderOnSigterm) {
    const pid_t pid = worker();
    const auto begun = std::chrono::steady_clock::now();
    mTool->signal(SIGTERM);
    std::optional<std::string> end;
    ASSERT_TRUE(eventually([&] {
        read();
        end = mTool->reap();
        return end.has_value();
    }));
    EXPECT_EQ("exited with status 0", *end);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, 3s);
    EXPECT_NE(0, ::kill(pid, 0));
    EXPECT_EQ(0u, processesOfFolder());
    read();
    EXPECT_EQ("stopped", mEvents["media"]["state"]);
    EXPECT_EQ("SIGTERM", mEvents["stopped"]["why"]);
}

TEST_F(ServiceProcess, SaysWhoMayNotPublish) {
    const auto answer =
        mConsole->Post("/origin/publish", "call=publish&name=alice", "application/x-www-form-urlencoded");
    ASSERT_TRUE(answer);
    EXPECT_EQ(403, answer->status);
    ASSERT_TRUE(eventually([&] {
        read();
        return mEvents.count("publish") == 1;
    }));
    EXPECT_EQ("alice", mEvents["publish"]["streamId"]);
    EXPECT_EQ(0u, mEvents["publish"]["refused"].get<std::string>().find("found \"alice\" as the name of the stream"));
}

TEST_F(ServiceProcess, LeavesOutWhatAStuckOutputDoesNotTakeAndSaysHowMuch) {
    constexpr int kPublishes = 2500;
    mConsole->set_keep_alive(true);
    mConsole->set_tcp_nodelay(true);
    for (int number = 0; number < kPublishes; ++number) {
        ASSERT_TRUE(mConsole->Post("/origin/publish", "name=alice", "application/x-www-form-urlencoded"));
    }
    ASSERT_TRUE(eventually([&] {
        read();
        return mEvents.count("omitted") == 1;
    }));
    EXPECT_EQ(1, mCounts["omitted"]);
    const int omitted = mEvents["omitted"]["lines"];
    EXPECT_GT(omitted, 0);
    EXPECT_GE(mCounts["publish"], 1000);
    EXPECT_GE(mCounts["publish"] + omitted, kPublishes);
    EXPECT_LT(mCounts["publish"] + omitted, kPublishes + 10);  // of origin and relay may be among what is left out
}
