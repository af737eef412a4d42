// `vexalive mix` as a child process, against a service in this one.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <thread>

#include "ToolTest.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kSet = "set_live_mix_transcoding";

class MixTool : public ToolTest {
protected:
    void SetUp() override {
        ToolTest::SetUp();
        mFile = mFolder + "/layout.json";
        save(layout(1280));
    }

    std::vector<std::string> arguments(const std::vector<std::string>& more = {}) const {
        std::vector<std::string> all = {VEXALIVE_TOOL, "mix", mFile};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }

    // Two inputs on a canvas so wide.
    static std::string layout(int width, int secondLayer = 2) {
        return R"({"appId": 1250, "bizId": 3891, "videoWidth": )" + std::to_string(width) + R"(, "videoHeight": 720,
            "mixUsersArray": [
                {"userId": "alice", "rect": {"x": 0, "y": 0, "w": 640, "h": 720}, "zOrder": 1},
                {"userId": "bob", "rect": {"x": 640, "y": 0, "w": 640, "h": 720}, "zOrder": )" +
               std::to_string(secondLayer) + "}]}";
    }

    // As an editor that writes into the file.
    void save(const std::string& text) const { std::ofstream(mFile) << text; }

    // As an editor that puts a new file in its place.
    void replace(const std::string& text) const {
        std::ofstream(mFile + ".new") << text;
        ASSERT_EQ(std::rename((mFile + ".new").c_str(), mFile.c_str()), 0);
    }

    nlohmann::json mix() const { return state().at("mixes").at(0); }

    std::string mFile;
};

// ---- Running and cancelling -----------------------------------------------------------------------------------------

TEST_F(MixTool, HoldsTheMixUntilCtrlCAndCancelsIt) {
    ChildProcess tool(arguments(), environment());
    ASSERT_TRUE(tool.awaitOutput("the mix is running; Ctrl-C cancels it\n"));
    EXPECT_EQ(mix().at("running"), true);
    EXPECT_EQ(mix().at("inputs").size(), 2u);

    tool.sendSignal(SIGINT);

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_EQ(mix().at("running"), false);
    EXPECT_THAT(tool.output(), HasSubstr("\nmix start: attempt 1 of 11: accepted (code 0: \"ok\")"));
    EXPECT_THAT(tool.output(), HasSubstr("\nmix start: done, the mix is running\n"));
    EXPECT_THAT(tool.output(), HasSubstr("\nmix start: reported as event 31 of type 10004"));
    EXPECT_THAT(tool.output(), HasSubstr("\ncancelling the mix on SIGINT"));
    EXPECT_THAT(tool.output(), HasSubstr("\nmix cancel: done, the mix is cancelled\n"));
    EXPECT_THAT(tool.output(), HasSubstr("\nmix cancel: reported as event 31 of type 10004"));
    EXPECT_EQ(tool.errors(), "");
    expectNoSecrets(tool);
}

TEST_F(MixTool, LeavesTheMixRunningIfDetached) {
    ChildProcess tool(arguments({"--detach"}), environment());

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_EQ(mix().at("running"), true);
    EXPECT_THAT(tool.output(), Not(HasSubstr("mix cancel:")));
}

TEST_F(MixTool, ShowsRetriesAndARefusal) {
    injectFault(status(503, 1));
    injectFault(serverCode(42, "no"));
    ChildProcess tool(arguments(), environment());

    EXPECT_EQ(tool.awaitExit(), 1);
    EXPECT_THAT(tool.output(), HasSubstr("\nmix start: next try, attempt 2 of 11, in 1 s\n"));
    EXPECT_THAT(tool.output(), HasSubstr("\nmix start: failed, refused by the service\n"));
    EXPECT_THAT(tool.output(), HasSubstr("listener code -300042"));
    EXPECT_THAT(tool.output(), Not(HasSubstr("mix cancel:")));
}

TEST_F(MixTool, NoUsableAnswerIsStatus3) {
    auto variables = environment();
    variables["VEXALIVE_CA_FILE"] = "";  // so that the service's certificate is not trusted
    ChildProcess tool(arguments(), variables);

    EXPECT_EQ(tool.awaitExit(), 3);
    EXPECT_THAT(tool.output(), HasSubstr("listener code -3322"));
}

// Many times, since the first request is being handed over at some of them while the process ends.
TEST_F(MixTool, ASecondCtrlCEndsAtOnce) {
    vexalive::Fault slow = delay(5000, kSet);
    slow.times = 0;
    injectFault(slow);
    for (int i = 0; i < 10; ++i) {
        ChildProcess tool(arguments(), environment());
        ASSERT_TRUE(tool.awaitOutput("mix start: attempt 1 of 11"));
        tool.sendSignal(SIGINT);
        ASSERT_TRUE(tool.awaitOutput("cancelling the mix on SIGINT, once the attempt under way is answered"));

        tool.sendSignal(SIGINT);

        ASSERT_EQ(tool.awaitExit(), 130);
    }
}

// ---- The file -------------------------------------------------------------------------------------------------------

TEST_F(MixTool, TellsTheMistakesOfItsFileAndSendsNothing) {
    save("{\n  \"appId\": 1250,\n  \"bizId\": \"x\",\n  \"mixUsersArray\": []\n}\n");
    ChildProcess tool(arguments(), environment());

    EXPECT_EQ(tool.awaitExit(), 2);
    EXPECT_EQ(tool.output(), "");
    EXPECT_THAT(tool.errors(), HasSubstr(mFile + ":3:12: field bizId: expected an integer"));
    EXPECT_TRUE(state().at("requests").empty());
}

TEST_F(MixTool, TellsWhatTheAdapterWouldRefuseAndSendsNothing) {
    save(layout(1280, 1));
    ChildProcess tool(arguments(), environment());

    EXPECT_EQ(tool.awaitExit(), 2);
    EXPECT_THAT(tool.errors(), HasSubstr(mFile + ": the adapter would refuse it: field mixUsersArray[1].zOrder"));
    EXPECT_TRUE(state().at("requests").empty());
}

TEST_F(MixTool, TellsThatItsFileIsNotThere) {
    ChildProcess tool({VEXALIVE_TOOL, "mix", mFolder + "/nowhere/layout.json", "--watch"}, environment());

    EXPECT_EQ(tool.awaitExit(), 2);
    EXPECT_THAT(tool.errors(), HasSubstr("nowhere/layout.json"));
    EXPECT_THAT(tool.errors(), HasSubstr("No such file"));
}

TEST_F(MixTool, ShowsAWarningOfItsFileAndSendsIt) {
    std::string off = layout(1280);
    off.replace(off.find("\"x\": 640"), 8, "\"x\": 5000");
    save(off);
    ChildProcess tool(arguments({"--detach"}), environment());

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_THAT(tool.output(), HasSubstr("warning: field mixUsersArray[1]"));
}

// ---- Watching -------------------------------------------------------------------------------------------------------

TEST_F(MixTool, SendsASavedChangeAsAnUpdate) {
    ChildProcess tool(arguments({"--watch"}), environment());
    ASSERT_TRUE(tool.awaitOutput("the mix is running; a saved change is sent, Ctrl-C cancels it\n"));

    save(layout(1000));
    ASSERT_TRUE(tool.awaitOutput("mix update: done, the mix is running\n"));
    EXPECT_EQ(mix().at("canvas").at("width"), 1000);
    replace(layout(1100));
    ASSERT_TRUE(tool.awaitOutput("mix update: done, the mix is running\n", 2));
    EXPECT_EQ(mix().at("canvas").at("width"), 1100);
    EXPECT_EQ(mix().at("updates"), 3);

    tool.sendSignal(SIGINT);
    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_EQ(mix().at("running"), false);
}

TEST_F(MixTool, ABrokenSaveIsToldAndTheRunningMixLeftAlone) {
    ChildProcess tool(arguments({"--watch"}), environment());
    ASSERT_TRUE(tool.awaitOutput("the mix is running;"));

    replace("{\n  \"appId\": 1250,\n  \"bizId\": 0x1\n}\n");
    ASSERT_TRUE(tool.awaitOutput("is saved, but not sent; the mix is left as it is\n"));
    ASSERT_TRUE(tool.awaitOutput(mFile + ":3:"));
    replace(layout(1280, 1));
    ASSERT_TRUE(tool.awaitOutput("the adapter would refuse it: field mixUsersArray[1].zOrder"));
    std::filesystem::remove(mFile);
    replace(layout(1100));
    ASSERT_TRUE(tool.awaitOutput("mix update: done, the mix is running\n"));

    EXPECT_EQ(mix().at("updates"), 2);
    EXPECT_EQ(mix().at("canvas").at("width"), 1100);
    tool.sendSignal(SIGINT);
    EXPECT_EQ(tool.awaitExit(), 0);
}

TEST_F(MixTool, AWatchedStartThatWasRefusedIsMendedByASave) {
    injectFault(serverCode(42, "no"));
    ChildProcess tool(arguments({"--watch"}), environment());
    ASSERT_TRUE(tool.awaitOutput("the mix does not run; a saved change is sent, Ctrl-C ends\n"));

    replace(layout(1100));

    ASSERT_TRUE(tool.awaitOutput("mix start: done, the mix is running\n"));
    EXPECT_EQ(mix().at("running"), true);
    tool.sendSignal(SIGINT);
    EXPECT_EQ(tool.awaitExit(), 0);
}

// Saved faster than the service answers, by both ways of saving; every other one is broken in one of three ways.
TEST_F(MixTool, AfterTwentySavesInASecondTheLastGoodOneIsInForce) {
    injectFault(delay(120, kSet));
    ChildProcess tool(arguments({"--watch"}), environment());
    ASSERT_TRUE(tool.awaitOutput("the mix is running;"));
    vexalive::Fault slow = delay(120, kSet);
    slow.times = 0;
    injectFault(slow);

    for (int i = 1; i <= 20; ++i) {
        const std::string broken[] = {"{", layout(1280, 1), layout(1280) + "\xff"};
        const std::string text = i % 2 == 0 ? broken[i / 2 % 3] : layout(1000 + i);
        if (i % 4 < 2) {
            save(text);
        } else {
            replace(text);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the pace that is tested
    }

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (mix().at("canvas").at("width") != 1019 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(mix().at("canvas").at("width"), 1019);
    tool.sendSignal(SIGINT);
    EXPECT_EQ(tool.awaitExit(), 0);
    const nlohmann::json history = mix().at("history");
    EXPECT_EQ(history.at(history.size() - 1).at("operation"), "cancel");
    EXPECT_EQ(history.at(history.size() - 2).at("canvas").at("width"), 1019);  // nothing came after it
    EXPECT_LE(history.size(), 12u);                                            // start, at most 10 updates, cancel
}

// ---- With a relay ---------------------------------------------------------------------------------------------------

TEST_F(MixTool, RunsARelayBesideTheMix) {
    ChildProcess tool(arguments({"--relay", "rtmp://cdn.example/live/main"}), environment());
    ASSERT_TRUE(tool.awaitOutput("the mix is running; Ctrl-C cancels it\n"));
    ASSERT_TRUE(tool.awaitOutput("the relay is running; Ctrl-C stops it\n"));
    EXPECT_EQ(relaysRunning(), 1u);
    EXPECT_EQ(state().at("relays").at(0).at("appid"), 1250);
    EXPECT_EQ(mix().at("running"), true);

    tool.sendSignal(SIGINT);

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_EQ(relaysRunning(), 0u);
    EXPECT_EQ(mix().at("running"), false);
    expectNoSecrets(tool);
}

TEST_F(MixTool, IfTheRelayFailsTheMixIsCancelled) {
    vexalive::Fault refusal = serverCode(42, "no");
    refusal.interfaceName = kAdd;
    injectFault(refusal);
    ChildProcess tool(arguments({"--relay", "rtmp://cdn.example/live/main"}), environment());

    EXPECT_EQ(tool.awaitExit(), 1);
    EXPECT_THAT(tool.output(), HasSubstr("\nrelay start: failed, refused by the service\n"));
    EXPECT_THAT(tool.output(), HasSubstr("\ncancelling the mix on the failure of the relay"));
    EXPECT_EQ(mix().at("running"), false);
}

TEST_F(MixTool, RefusesARelayAddressWithoutAScheme) {
    ChildProcess tool(arguments({"--relay", "cdn.example"}), environment());

    EXPECT_EQ(tool.awaitExit(), 2);
    EXPECT_THAT(tool.errors(),
                HasSubstr("vexalive mix: --relay is \"cdn.example\": must be an address with its scheme"));
}

TEST_F(MixTool, RefusesToWatchAndToDetach) {
    ChildProcess tool(arguments({"--watch", "--detach"}), environment());

    EXPECT_EQ(tool.awaitExit(), 2);
    EXPECT_THAT(tool.errors(), HasSubstr("--watch cannot be given together with --detach"));
}

// ---- Forms ----------------------------------------------------------------------------------------------------------

TEST_F(MixTool, WritesOneJsonObjectALine) {
    ChildProcess tool(arguments({"--watch", "--json"}), environment());
    ASSERT_TRUE(tool.awaitOutput("\"event\":\"holding\""));
    replace("{");
    ASSERT_TRUE(tool.awaitOutput("\"event\":\"rejected\""));
    replace(layout(1400));
    ASSERT_TRUE(tool.awaitOutput("\"event\":\"holding\"", 2));
    tool.sendSignal(SIGINT);
    EXPECT_EQ(tool.awaitExit(), 0);

    std::vector<std::string> events;
    for (const nlohmann::json& object : objects(tool.output())) {
        events.push_back(object.at("event"));
        const bool isOfTheFile = events.back() == "begin" || events.back() == "rejected" || events.back() == "changed";
        if (isOfTheFile) {
            EXPECT_EQ(object.at("file"), mFile);
        } else if (events.back() != "end") {
            EXPECT_EQ(object.at("task"), "mix") << object;
        }
        if (events.back() == "begin" || events.back() == "changed") {
            EXPECT_EQ(object.at("inputs"), 2);
            EXPECT_EQ(object.at("warnings").size(), 0u);
        }
        if (events.back() == "rejected") {
            EXPECT_EQ(object.at("mistakes").size(), 1u);
        }
    }
    EXPECT_THAT(events, ElementsAre("begin", "attempt", "answer", "outcome", "report", "holding", "rejected", "changed",
                                    "attempt", "answer", "outcome", "report", "holding", "stopping", "attempt",
                                    "answer", "outcome", "report", "end"));
}

}  // namespace
