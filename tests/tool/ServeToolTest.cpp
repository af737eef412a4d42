// `vexalive serve` as a child process.

#include <csignal>

#include "ToolTest.h"

namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;

class ServeTool : public ::testing::Test {
protected:
    ServeTool() {
        std::string pattern = ::testing::TempDir() + "vexalive-serve-XXXXXX";
        mFolder = mkdtemp(pattern.data());
    }
    ~ServeTool() override { std::filesystem::remove_all(mFolder); }

    ChildProcess& launch(const std::vector<std::string>& more = {},
                         const std::map<std::string, std::string>& environment = {}) {
        std::vector<std::string> all = {VEXALIVE_TOOL, "serve", "--state-dir", mFolder};
        all.insert(all.end(), more.begin(), more.end());
        mServe = std::make_unique<ChildProcess>(all, environment);
        return *mServe;
    }

    // Launches the service and reads its "export " lines into mVariables, as a shell does after they were pasted.
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

    // A signal ends the service with status 0.
    void stop(int signal = SIGINT) {
        mServe->sendSignal(signal);
        EXPECT_EQ(mServe->awaitExit(), 0);
    }

    // A relay through the service that the variables name, left running.
    static int relay(std::map<std::string, std::string> environment, const std::string& sig = "the-signature") {
        environment["VEXALIVE_SIG"] = sig;
        environment["VEXALIVE_MAP_KEY"] = "the-map-key";
        ChildProcess tool({VEXALIVE_TOOL, "relay", "rtmp://cdn.example/live/main", "--detach", "--sdk-app-id",
                           "1400000001", "--user", "alice", "--room", "4711", "--app-id", "1250", "--biz-id", "3891"},
                          environment);
        return tool.awaitExit();
    }

    std::string mFolder;
    std::unique_ptr<ChildProcess> mServe;
    std::map<std::string, std::string> mVariables;
};

TEST_F(ServeTool, PrintsTwoLinesThatPointARelayAtIt) {
    ASSERT_NO_FATAL_FAILURE(serve());
    ASSERT_EQ(mVariables.size(), 2u);
    EXPECT_THAT(mVariables.at("VEXALIVE_SERVICE_HOST"), MatchesRegex("127[.]0[.]0[.]1:[0-9]+"));
    EXPECT_EQ(mVariables.at("VEXALIVE_CA_FILE"), mFolder + "/ca.pem");
    EXPECT_EQ(relay(mVariables), 0);
    EXPECT_TRUE(mServe->awaitOutput("add_relay_stream_url  add accepted, stream 3891_"));
    stop();
}

TEST_F(ServeTool, StopsOnSigtermToo) {
    ASSERT_NO_FATAL_FAILURE(serve());
    stop(SIGTERM);
    EXPECT_THAT(mServe->output(), HasSubstr("\nstopped on SIGTERM\n"));
}

TEST_F(ServeTool, QuotesAFolderThatAShellWouldSplit) {
    mFolder += " with 'quotes'";
    EXPECT_TRUE(launch().awaitOutput(" with '\\''quotes'\\''/ca.pem'\n"));
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

    const std::map<std::string, std::set<std::string>> documented = {
        {"listening", {"service", "caFile"}},
        {"environment", {"line"}},
        {"console", {"url"}},
        {"request", {"interface", "operation", "httpStatus", "code", "message", "field", "appId", "streamId", "fault"}},
        {"stopped", {"why"}}};
    EXPECT_THAT(checkedEvents(mServe->output(), documented),
                ::testing::ElementsAre("listening", "environment", "environment", "console", "request", "stopped"));
}

TEST_F(ServeTool, PrintsTheAddressOfTheConsole) {
    ChildProcess& serve = launch();
    ASSERT_TRUE(serve.awaitOutput("\nconsole on http://127.0.0.1:"));
    ASSERT_TRUE(serve.awaitOutput("/\n"));
    EXPECT_THAT(serve.output(), ::testing::Not(HasSubstr("members publish")));

    ChildProcess& wrong = launch({"--console-port", "http"});
    EXPECT_EQ(wrong.awaitExit(), 2);
    EXPECT_THAT(wrong.errors(), HasSubstr("--console-port is \"http\": must be an integer from 0"));
}

TEST_F(ServeTool, ReportsAMissingWorkerAndAMissingOption) {
    ChildProcess& serve =
        launch({"--media", "--origin", "rtmp://127.0.0.1:1"}, {{"VEXALIVE_MEDIA_WORKER", "/no/such/worker"}});
    EXPECT_EQ(serve.awaitExit(), 1);
    EXPECT_THAT(serve.errors(), HasSubstr("vexalive serve: cannot run /no/such/worker: No such file"));

    ChildProcess& without = launch({"--origin", "rtmp://127.0.0.1:1"});
    EXPECT_EQ(without.awaitExit(), 2);
    EXPECT_THAT(without.errors(), HasSubstr("--origin needs --media"));
}

TEST_F(ServeTool, ShowsEachChangeOfTheMedia) {
    // /bin/cat ends with its input, but writes nothing that a worker would.
    ChildProcess& serve =
        launch({"--media", "--origin", "rtmp://127.0.0.1:1", "--json"}, {{"VEXALIVE_MEDIA_WORKER", "/bin/cat"}});
    ASSERT_TRUE(serve.awaitOutput("\"event\":\"origin\""));
    ASSERT_TRUE(serve.awaitOutput("\"event\":\"media\""));
    ASSERT_TRUE(serve.awaitOutput("rtmp://127.0.0.1:1 cannot be reached: Connection refused"));
    ASSERT_TRUE(serve.awaitOutput("\n", 5));
    std::istringstream lines(serve.output());
    for (std::string line; std::getline(lines, line) && !lines.eof();) {
        const auto object = nlohmann::json::parse(line);
        if (object.at("event") == "media") {
            EXPECT_EQ(object.size(), 7u) << line;
            EXPECT_EQ(object.at("subject"), "origin");
            EXPECT_EQ(object.at("streamId"), "");
            EXPECT_EQ(object.at("state"), "starting");
            EXPECT_EQ(object.at("restarts"), 0);
        }
    }
    stop();
}

TEST_F(ServeTool, ShowsNoSecretOfARequest) {
    ASSERT_NO_FATAL_FAILURE(serve());
    EXPECT_EQ(relay(mVariables), 0);
    EXPECT_EQ(relay(mVariables, "a-signature&with=more"), 1);
    stop();
    EXPECT_THAT(mServe->output(), HasSubstr("refused with code"));
    for (const char* secret : {"the-signature", "the-map-key", "a-signature", "with=more"}) {
        EXPECT_THAT(mServe->output() + mServe->errors(), ::testing::Not(HasSubstr(secret)));
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
