// Tests of `vexalive serve` as a child process.

#include <csignal>

#include "ToolTest.h"

namespace {

class ServeTool : public ::testing::Test {
protected:
    ChildProcess& launch(const std::vector<std::string>& more = {}, const Variables& environment = {}) {
        std::vector<std::string> all = {VEXALIVE_TOOL, "serve", "--state-dir", mStateFolder};
        all.insert(all.end(), more.begin(), more.end());
        mServe = std::make_unique<ChildProcess>(all, environment);
        return *mServe;
    }

    // Launches the service and reads the variables of its "export " lines into mVariables, as a shell would.
    void serve(const std::vector<std::string>& more = {}) {
        ASSERT_TRUE(launch(more).awaitOutput("ca.pem\n"));
        std::istringstream lines(mServe->output());
        for (std::string line; std::getline(lines, line);) {
            const std::string mark = "export ";
            if (line.compare(0, mark.size(), mark) == 0) {
                const size_t equals = line.find('=');
                mVariables[line.substr(mark.size(), equals - mark.size())] = line.substr(equals + 1);
            }
        }
    }

    // Sends a signal and expects exit status 0.
    void stop(int signal = SIGINT) {
        mServe->sendSignal(signal);
        EXPECT_EQ(mServe->awaitExit(), 0);
    }

    // Runs `vexalive relay` with these variables and returns its exit status.
    static int relay(Variables environment, const std::string& sig = "the-signature") {
        environment.insert({{"VEXALIVE_SIG", sig},
                            {"VEXALIVE_MAP_KEY", "the-map-key"},
                            {"VEXALIVE_SDK_APP_ID", "1400000001"},
                            {"VEXALIVE_USER", "alice"},
                            {"VEXALIVE_ROOM", "4711"},
                            {"VEXALIVE_APP_ID", "1250"},
                            {"VEXALIVE_BIZ_ID", "3891"}});
        return runTool({"relay", "rtmp://cdn.example/live/main", "--detach"}, environment).status;
    }

    const servicetesting::TemporaryFolder mFolder;
    std::string mStateFolder = mFolder.path();
    std::unique_ptr<ChildProcess> mServe;
    Variables mVariables;
};

TEST_F(ServeTool, PrintsTwoLinesThatPointARelayAtItAndTheConsole) {
    ASSERT_NO_FATAL_FAILURE(serve());
    ASSERT_EQ(mVariables.size(), 2u);
    EXPECT_THAT(mVariables.at("VEXALIVE_SERVICE_HOST"), ::testing::MatchesRegex("127[.]0[.]0[.]1:[0-9]+"));
    EXPECT_EQ(mVariables.at("VEXALIVE_CA_FILE"), mStateFolder + "/ca.pem");
    EXPECT_EQ(relay(mVariables), 0);
    EXPECT_TRUE(mServe->awaitOutput("add_relay_stream_url  add accepted, stream 3891_"));
    EXPECT_THAT(mServe->output(), HasSubstr("\nconsole on http://127.0.0.1:"));
    EXPECT_THAT(mServe->output(), Not(HasSubstr("members publish")));
    stop(SIGTERM);
    EXPECT_THAT(mServe->output(), HasSubstr("\nstopped on SIGTERM\n"));
}

TEST_F(ServeTool, QuotesAFolderThatAShellWouldSplit) {
    mStateFolder += "/with 'quotes'";
    EXPECT_TRUE(launch().awaitOutput("/with '\\''quotes'\\''/ca.pem'\n"));
}

TEST_F(ServeTool, InjectsFaultsFromTheStartAndPrintsThem) {
    ASSERT_NO_FATAL_FAILURE(serve({"--fault", "code=7,message=no such luck", "--fault", "status=404"}));
    EXPECT_EQ(relay(mVariables), 1);
    EXPECT_TRUE(mServe->awaitOutput("HTTP status 200, code 7: no such luck (fault: code)\n"));
}

TEST_F(ServeTool, PrintsARefusalWithItsField) {
    ASSERT_NO_FATAL_FAILURE(serve({"--push-domain", "another.example"}));
    EXPECT_EQ(relay(mVariables), 1);
    EXPECT_TRUE(mServe->awaitOutput(", field domain: "));
    EXPECT_THAT(mServe->output(), HasSubstr("add_relay_stream_url  refused with code "));
}

TEST_F(ServeTool, WritesOneJsonObjectALine) {
    ChildProcess& serve = launch({"--json"});
    ASSERT_TRUE(serve.awaitOutput("VEXALIVE_CA_FILE="));
    ASSERT_TRUE(serve.awaitOutput("\n", 3));
    const auto first = nlohmann::json::parse(serve.output().substr(0, serve.output().find('\n')));
    ASSERT_EQ(first.at("event"), "listening");
    EXPECT_EQ(relay({{"VEXALIVE_SERVICE_HOST", first.at("service")}, {"VEXALIVE_CA_FILE", first.at("caFile")}}), 0);
    ASSERT_TRUE(serve.awaitOutput("\"event\":\"request\""));
    stop();

    const Fields documented = {
        {"listening", {"service", "caFile"}},
        {"environment", {"line"}},
        {"console", {"url"}},
        {"request", {"interface", "operation", "httpStatus", "code", "message", "field", "appId", "streamId", "fault"}},
        {"stopped", {"why"}}};
    EXPECT_THAT(checkedEvents(mServe->output(), documented),
                ElementsAre("listening", "environment", "environment", "console", "request", "stopped"));
}

TEST_F(ServeTool, ReportsAMissingWorker) {
    ChildProcess& serve =
        launch({"--media", "--origin", "rtmp://127.0.0.1:1"}, {{"VEXALIVE_MEDIA_WORKER", "/no/such/worker"}});
    EXPECT_EQ(serve.awaitExit(), 1);
    EXPECT_THAT(serve.errors(), HasSubstr("vexalive serve: cannot run /no/such/worker: No such file"));
}

TEST_F(ServeTool, ShowsEachChangeOfTheMedia) {
    // /bin/cat stands in for a worker: it ends when its input is closed, and reports no state.
    ChildProcess& serve =
        launch({"--media", "--origin", "rtmp://127.0.0.1:1", "--json"}, {{"VEXALIVE_MEDIA_WORKER", "/bin/cat"}});
    ASSERT_TRUE(serve.awaitOutput("\"event\":\"origin\""));
    ASSERT_TRUE(serve.awaitOutput("\"event\":\"media\""));
    ASSERT_TRUE(serve.awaitOutput("rtmp://127.0.0.1:1 cannot be reached: Connection refused"));
    ASSERT_TRUE(serve.awaitOutput("\n", 5));
    stop();
    for (const nlohmann::json& object : objects(serve.output())) {
        if (object.at("event") == "media") {
            EXPECT_EQ(object.size(), 7u) << object;
            EXPECT_EQ(object.at("subject"), "origin");
            EXPECT_EQ(object.at("streamId"), "");
            EXPECT_EQ(object.at("state"), "starting");
            EXPECT_EQ(object.at("restarts"), 0);
        }
    }
}

TEST_F(ServeTool, ShowsNoSecretOfARequest) {
    ASSERT_NO_FATAL_FAILURE(serve());
    EXPECT_EQ(relay(mVariables), 0);
    EXPECT_EQ(relay(mVariables, "a-signature&with=more"), 1);
    stop();
    EXPECT_THAT(mServe->output(), HasSubstr("refused with code"));
    for (const char* secret : {"the-signature", "the-map-key", "a-signature", "with=more"}) {
        EXPECT_THAT(mServe->output() + mServe->errors(), Not(HasSubstr(secret)));
    }
}

TEST_F(ServeTool, ReportsWhyItCannotStart) {
    ASSERT_NO_FATAL_FAILURE(serve());
    const std::string host = mVariables.at("VEXALIVE_SERVICE_HOST");
    const std::unique_ptr<ChildProcess> first = std::move(mServe);
    ChildProcess& second = launch({"--port", host.substr(host.find(':') + 1)});
    EXPECT_EQ(second.awaitExit(), 1);
    EXPECT_THAT(second.errors(), HasSubstr("vexalive serve: "));
    EXPECT_EQ(second.output(), "");
}

}  // namespace
