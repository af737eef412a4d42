// Tests of `vexalive mix` as a child process.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include "ToolTest.h"

namespace {

class MixTool : public ToolTest {
protected:
    MixTool() : ToolTest({"mix"}), mFile(mFolder.path() + "/layout.json") {
        mArguments.push_back(mFile);
        save(layout(1280));
    }

    // A mix file with two inputs. A `secondLayer` of 1 makes it invalid.
    static std::string layout(int width, int secondLayer = 2) {
        return R"({"appId": 1250, "bizId": 3891, "videoWidth": )" + std::to_string(width) + R"(, "videoHeight": 720,
            "mixUsersArray": [
                {"userId": "alice", "rect": {"x": 0, "y": 0, "w": 640, "h": 720}, "zOrder": 1},
                {"userId": "bob", "rect": {"x": 640, "y": 0, "w": 640, "h": 720}, "zOrder": )" +
               std::to_string(secondLayer) + "}]}";
    }

    void save(const std::string& text) const { servicetesting::writeAll(mFile, text); }

    // Saves to another file, which is then renamed.
    void replace(const std::string& text) const {
        servicetesting::writeAll(mFile + ".new", text);
        std::filesystem::rename(mFile + ".new", mFile);
    }

    nlohmann::json mix() const { return state().at("mixes").at(0); }

    void interruptAndExpectSuccess() {
        mTool->sendSignal(SIGINT);
        EXPECT_EQ(mTool->awaitExit(), 0);
        EXPECT_EQ(mix().at("running"), false);
    }

    const std::string mFile;
};

// ---- Running and cancelling -----------------------------------------------------------------------------------------

TEST_F(MixTool, HoldsTheMixUntilCtrlCAndCancelsIt) {
    ChildProcess& tool = start();
    ASSERT_TRUE(tool.awaitOutput("the mix is running; Ctrl-C cancels it\n"));
    EXPECT_EQ(mix().at("running"), true);
    EXPECT_EQ(mix().at("inputs").size(), 2u);
    interruptAndExpectSuccess();
    expectInOrder({"\nmix start: attempt 1 of 11: accepted (code 0: \"ok\")", "\nmix start: done, the mix is running\n",
                   "\nmix start: reported as event 31 of type 10004", "\ncancelling the mix on SIGINT",
                   "\nmix cancel: done, the mix is cancelled\n", "\nmix cancel: reported as event 31 of type 10004"});
    EXPECT_EQ(tool.errors(), "");
}

TEST_F(MixTool, ShowsRetriesAndARefusal) {
    injectFault("status=503");
    injectFault("code=42,message=no");
    ChildProcess& tool = start();

    EXPECT_EQ(tool.awaitExit(), 1);
    expectInOrder({"\nmix start: retrying, attempt 2 of 11 in 1 s\n", "\nmix start: failed, refused by the service\n",
                   "listener code -300042"});
    EXPECT_THAT(tool.output(), Not(HasSubstr("mix cancel:")));
}

TEST_F(MixTool, ExitsWith3WithoutAUsableResponse) {
    EXPECT_EQ(start({}, {{"VEXALIVE_CA_FILE", ""}}).awaitExit(), 3);  // so the certificate is not trusted
    expectInOrder({"listener code -3322"});
}

// Repeated ten times: in some runs, the tool exits while its first request passes to the client's thread.
TEST_F(MixTool, ASecondCtrlCAborts) {
    injectFault("delay=5000,count=0,interface=set_live_mix_transcoding");
    for (int i = 0; i < 10; ++i) {
        ChildProcess& tool = start();
        ASSERT_TRUE(tool.awaitOutput("mix start: attempt 1 of 11"));
        tool.sendSignal(SIGINT);
        ASSERT_TRUE(tool.awaitOutput("cancelling the mix on SIGINT, after the response to the current attempt"));

        tool.sendSignal(SIGINT);

        ASSERT_EQ(tool.awaitExit(), 130);
    }
}

// ---- The file -------------------------------------------------------------------------------------------------------

TEST_F(MixTool, SendsNothingOfAFileThatIsInvalidOrRefused) {
    const std::pair<std::string, std::string> cases[] = {
        {"{\n  \"appId\": 1250,\n  \"bizId\": \"x\",\n  \"mixUsersArray\": []\n}\n",
         mFile + ":3:12: field bizId: expected an integer"},
        {layout(1280, 1), mFile + ": the adapter would refuse it: field mixUsersArray[1].zOrder"},
    };
    for (const auto& [text, error] : cases) {
        save(text);
        ChildProcess& tool = start();

        EXPECT_EQ(tool.awaitExit(), 2);
        EXPECT_EQ(tool.output(), "");
        EXPECT_THAT(tool.errors(), HasSubstr(error));
    }
    EXPECT_TRUE(state().at("requests").empty());
}

TEST_F(MixTool, ShowsTheWarningsOfAFileThatIsSentAndDetachLeavesTheMixRunning) {
    std::string off = layout(1280);
    off.replace(off.find("\"x\": 640"), 8, "\"x\": 5000");
    save(off);
    ChildProcess& tool = start({"--detach"});

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_THAT(tool.output(), HasSubstr("warning: field mixUsersArray[1]"));
    EXPECT_THAT(tool.output(), Not(HasSubstr("mix cancel:")));
    EXPECT_EQ(mix().at("running"), true);
}

// ---- Watching -------------------------------------------------------------------------------------------------------

TEST_F(MixTool, SendsEachValidSaveAsAnUpdate) {
    ChildProcess& tool = start({"--watch"});
    ASSERT_TRUE(tool.awaitOutput("the mix is running; saved changes are sent; Ctrl-C cancels it\n"));
    save(layout(1000));
    ASSERT_TRUE(tool.awaitOutput("mix update: done, the mix is running\n"));
    EXPECT_EQ(mix().at("canvas").at("width"), 1000);

    replace("{\n  \"appId\": 1250,\n  \"bizId\": 0x1\n}\n");
    ASSERT_TRUE(tool.awaitOutput("was saved but is not sent; the mix does not change\n"));
    ASSERT_TRUE(tool.awaitOutput(mFile + ":3:"));
    replace(layout(1280, 1));
    ASSERT_TRUE(tool.awaitOutput("the adapter would refuse it: field mixUsersArray[1].zOrder"));
    std::filesystem::remove(mFile);
    replace(layout(1100));
    ASSERT_TRUE(tool.awaitOutput("mix update: done, the mix is running\n", 2));
    EXPECT_EQ(mix().at("canvas").at("width"), 1100);
    EXPECT_EQ(mix().at("updates"), 3);
    interruptAndExpectSuccess();
}

TEST_F(MixTool, ReportsAFolderThatCannotBeWatched) {
    mArguments = {"mix", mFolder.path() + "/nowhere/layout.json", "--watch"};
    EXPECT_EQ(start().awaitExit(), 2);
    EXPECT_THAT(mTool->errors(), HasSubstr("nowhere/layout.json cannot be watched: No such file"));
}

// Saves faster than the service responds. Half of the files are written in place, the others renamed; every other file
// is invalid, in one of three ways.
TEST_F(MixTool, AfterTwentySavesInASecondTheLastValidOneApplies) {
    injectFault("delay=120,interface=set_live_mix_transcoding");
    ChildProcess& tool = start({"--watch"});
    ASSERT_TRUE(tool.awaitOutput("the mix is running;"));
    injectFault("delay=120,count=0,interface=set_live_mix_transcoding");

    for (int i = 1; i <= 20; ++i) {
        const std::string invalid[] = {"{", layout(1280, 1), layout(1280) + "\xff"};
        const std::string text = i % 2 == 0 ? invalid[i / 2 % 3] : layout(1000 + i);
        if (i % 4 < 2) {
            save(text);
        } else {
            replace(text);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the tested rate of saves
    }

    EXPECT_TRUE(pollUntil([this] { return mix().at("canvas").at("width") == 1019; }));
    interruptAndExpectSuccess();
    const nlohmann::json history = mix().at("history");
    EXPECT_EQ(history.at(history.size() - 1).at("operation"), "cancel");
    EXPECT_EQ(history.at(history.size() - 2).at("canvas").at("width"), 1019);  // the last update
    EXPECT_LE(history.size(), 12u);                                            // start, at most 10 updates, cancel
}

// ---- With a relay ---------------------------------------------------------------------------------------------------

TEST_F(MixTool, RunsARelayBesideTheMix) {
    ChildProcess& tool = start({"--relay", "rtmp://cdn.example/live/main"});
    ASSERT_TRUE(tool.awaitOutput("the mix is running; Ctrl-C cancels it\n"));
    ASSERT_TRUE(tool.awaitOutput("the relay is running; Ctrl-C stops it\n"));
    EXPECT_EQ(relaysRunning(), 1u);
    EXPECT_EQ(state().at("relays").at(0).at("appid"), 1250);
    EXPECT_EQ(mix().at("running"), true);
    interruptAndExpectSuccess();
    EXPECT_EQ(relaysRunning(), 0u);
}

TEST_F(MixTool, IfTheRelayFailsTheMixIsCancelled) {
    injectFault("code=42,message=no,interface=add_relay_stream_url");
    ChildProcess& tool = start({"--relay", "rtmp://cdn.example/live/main"});

    EXPECT_EQ(tool.awaitExit(), 1);
    EXPECT_THAT(tool.output(), HasSubstr("\nrelay start: failed, refused by the service\n"));
    EXPECT_THAT(tool.output(), HasSubstr("\ncancelling the mix on relay failure"));
    EXPECT_EQ(mix().at("running"), false);
}

// ---- Output ---------------------------------------------------------------------------------------------------------

TEST_F(MixTool, WritesOneJsonObjectALine) {
    ChildProcess& tool = start({"--watch", "--json"});
    ASSERT_TRUE(tool.awaitOutput("\"event\":\"holding\""));
    replace("{");
    ASSERT_TRUE(tool.awaitOutput("\"event\":\"rejected\""));
    replace(layout(1400));
    ASSERT_TRUE(tool.awaitOutput("\"event\":\"holding\"", 2));
    interruptAndExpectSuccess();

    const Fields documented = taskFields(
        {{"begin", {"service", "file", "sdkAppId", "user", "room", "appId", "bizId", "attempts", "inputs", "warnings"}},
         {"changed", {"file", "inputs", "warnings"}},
         {"rejected", {"file", "errors"}}});
    EXPECT_THAT(checkedEvents(tool.output(), documented),
                ElementsAre("begin", "attempt", "response", "outcome", "report", "holding", "rejected", "changed",
                            "attempt", "response", "outcome", "report", "holding", "stopping", "attempt", "response",
                            "outcome", "report", "end"));
    for (const nlohmann::json& object : objects(tool.output())) {
        EXPECT_EQ(object.value("task", "mix"), "mix") << object;
        EXPECT_EQ(object.value("file", mFile), mFile) << object;
        EXPECT_EQ(object.value("inputs", 2), 2) << object;
        EXPECT_EQ(object.value("errors", nlohmann::json{""}).size(), 1u) << object;
        EXPECT_TRUE(object.value("warnings", nlohmann::json()).empty()) << object;
    }
}

}  // namespace
