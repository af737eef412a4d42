// `vexalive serve --media` as a child process: its events, and the end of its own child processes.

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "service/Origin.h"
#include "support/ChildProcess.h"
#include "support/ServiceTesting.h"

using namespace servicetesting;

namespace {

class ServiceProcess : public ::testing::Test {
protected:
    // If nginx is installed, the service starts it as its origin.
    void SetUp() override {
        std::vector<std::string> arguments = {VEXALIVE_TOOL,  "serve",  "--media",       "--state-dir",
                                              mFolder.path(), "--json", "--push-domain", kSuffix};
        if (!vexalive::Origin().prepare(mFolder.path())) {
            arguments.insert(arguments.end(), {"--origin", "rtmp://127.0.0.1:1"});
        }
        mTool = std::make_unique<ChildProcess>(
            arguments, std::map<std::string, std::string>{{"VEXALIVE_MEDIA_WORKER", FAKE_WORKER}});
        const json listening = event("listening");
        const std::string url = event("console")["url"];
        event("origin");
        mConsole = std::make_unique<HttpClient>(url.substr(0, url.size() - 1));
        HttpClient client("https://" + listening["service"].get<std::string>(), listening["caFile"]);
        ASSERT_EQ(0, post(client, addRelayBody())["code"]);
        ASSERT_TRUE(pollUntil([&] {
            const json relay = json::parse(mConsole->get("/state").body)["relays"][0];
            mWorker = parseWorkerReport(relay["media"]["error"]).pid;
            return mWorker != 0;
        }));
        ASSERT_EQ(0, ::kill(mWorker, 0));
        ASSERT_GE(processesOfFolder(), 1u);
    }

    std::vector<json> events(const std::string& name) const {
        std::vector<json> found;
        std::istringstream lines(mTool->output());
        for (std::string line; std::getline(lines, line) && !lines.eof();) {
            json event = json::parse(line);
            if (event["event"] == name) {
                found.push_back(event);
            }
        }
        return found;
    }

    // Waits for an event with this name, and returns the latest one.
    json event(const std::string& name) {
        EXPECT_TRUE(mTool->awaitOutput("\"event\":\"" + name + "\"")) << mTool->errors();
        if (!mTool->output().empty() && mTool->output().back() != '\n') {
            mTool->awaitOutput("\n", occurrences(mTool->output(), "\n") + 1);
        }
        const std::vector<json> found = events(name);
        return found.empty() ? json() : found.back();
    }

    int publish(const std::string& name) {
        return mConsole->post("/origin/publish", "call=publish&name=" + name, "application/x-www-form-urlencoded")
            .status;
    }

    // The number of processes whose command line contains the folder: the tool and its nginx.
    size_t processesOfFolder() const {
        size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
            std::ifstream file(entry.path() / "cmdline");
            const std::string line((std::istreambuf_iterator<char>(file)), {});
            count += line.find(mFolder.path()) != line.npos;
        }
        return count;
    }

    const TemporaryFolder mFolder;
    std::unique_ptr<ChildProcess> mTool;
    std::unique_ptr<HttpClient> mConsole;
    pid_t mWorker = 0;
};

}  // namespace

TEST_F(ServiceProcess, LeavesNoProcessWhenItIsKilled) {
    mTool->sendSignal(SIGKILL);
    EXPECT_EQ(1000 + SIGKILL, mTool->awaitExit());
    EXPECT_TRUE(pollUntil([&] { return ::kill(mWorker, 0) != 0 && processesOfFolder() == 0; }));
}

TEST_F(ServiceProcess, StopsItsProcessesOnSigterm) {
    mTool->sendSignal(SIGTERM);
    EXPECT_EQ(0, mTool->awaitExit());
    EXPECT_NE(0, ::kill(mWorker, 0));
    EXPECT_EQ(0u, processesOfFolder());
    EXPECT_EQ("stopped", event("media")["state"]);
    EXPECT_EQ("SIGTERM", event("stopped")["why"]);
}

TEST_F(ServiceProcess, ReportsRefusedPublishersAndOmitsAndCountsLinesWhileItsOutputIsNotRead) {
    constexpr int kPublishes = 2500;
    for (int number = 0; number < kPublishes; ++number) {
        ASSERT_EQ(403, publish("alice"));
    }
    const json refused = event("publish");
    EXPECT_EQ("alice", refused["streamId"]);
    EXPECT_EQ(0u, refused["refused"].get<std::string>().find("found \"alice\" as the name of the stream"));
    const int omitted = event("omitted")["lines"];
    EXPECT_EQ(1u, events("omitted").size());
    const int written = static_cast<int>(events("publish").size());
    EXPECT_GT(omitted, 0);
    EXPECT_GE(written, 1000);
    EXPECT_GE(written + omitted, kPublishes);
    EXPECT_LT(written + omitted, kPublishes + 10);  // the omitted lines may include events of the origin and the relay
}
