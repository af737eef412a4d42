// `vexalive serve` as a child process.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <csignal>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "support/ChildProcess.h"

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

    std::vector<std::string> arguments(const std::vector<std::string>& more = {}) const {
        std::vector<std::string> all = {VEXALIVE_TOOL, "serve", "--state-dir", mFolder};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }

    // What a shell would have in its environment after pasting the lines that begin with "export ".
    static std::map<std::string, std::string> exported(const std::string& output) {
        std::map<std::string, std::string> variables;
        std::istringstream lines(output);
        for (std::string line; std::getline(lines, line);) {
            const std::string mark = "export ";
            if (line.compare(0, mark.size(), mark) == 0) {
                const size_t equals = line.find('=');
                variables[line.substr(mark.size(), equals - mark.size())] = line.substr(equals + 1);
            }
        }
        return variables;
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
};

TEST_F(ServeTool, PrintsTwoLinesThatPointARelayAtIt) {
    ChildProcess serve(arguments(), {});
    ASSERT_TRUE(serve.awaitOutput("export VEXALIVE_CA_FILE="));
    ASSERT_TRUE(serve.awaitOutput("ca.pem\n"));
    const auto variables = exported(serve.output());

    ASSERT_EQ(variables.size(), 2u);
    EXPECT_THAT(variables.at("VEXALIVE_SERVICE_HOST"), MatchesRegex("127[.]0[.]0[.]1:[0-9]+"));
    EXPECT_EQ(variables.at("VEXALIVE_CA_FILE"), mFolder + "/ca.pem");
    EXPECT_EQ(relay(variables), 0);
    EXPECT_TRUE(serve.awaitOutput("add_relay_stream_url  add accepted, stream 3891_"));

    serve.sendSignal(SIGINT);
    EXPECT_EQ(serve.awaitExit(), 0);
}

TEST_F(ServeTool, StopsOnSigtermToo) {
    ChildProcess serve(arguments(), {});
    ASSERT_TRUE(serve.awaitOutput("export VEXALIVE_CA_FILE="));

    serve.sendSignal(SIGTERM);

    EXPECT_EQ(serve.awaitExit(), 0);
    EXPECT_THAT(serve.output(), HasSubstr("\nstopped on SIGTERM\n"));
}

TEST_F(ServeTool, QuotesAFolderThatAShellWouldSplit) {
    mFolder += " with 'quotes'";
    ChildProcess serve(arguments(), {});

    EXPECT_TRUE(serve.awaitOutput(" with '\\''quotes'\\''/ca.pem'\n"));
}

TEST_F(ServeTool, InjectsFaultsFromTheStartAndSaysSo) {
    ChildProcess serve(arguments({"--fault", "code=7,message=no such luck", "--fault", "status=404"}), {});
    ASSERT_TRUE(serve.awaitOutput("ca.pem\n"));
    const auto variables = exported(serve.output());

    EXPECT_EQ(relay(variables), 1);
    EXPECT_TRUE(serve.awaitOutput("HTTP status 200, code 7: no such luck (fault: code)\n"));
}

TEST_F(ServeTool, TellsARefusalWithItsField) {
    ChildProcess serve(arguments({"--push-domain", "another.example"}), {});
    ASSERT_TRUE(serve.awaitOutput("ca.pem\n"));

    EXPECT_EQ(relay(exported(serve.output())), 1);

    EXPECT_TRUE(serve.awaitOutput(", field domain: "));
    EXPECT_THAT(serve.output(), HasSubstr("add_relay_stream_url  refused with code "));
}

TEST_F(ServeTool, WritesOneJsonObjectALine) {
    ChildProcess serve(arguments({"--json"}), {});
    ASSERT_TRUE(serve.awaitOutput("VEXALIVE_CA_FILE="));
    ASSERT_TRUE(serve.awaitOutput("\n", 3));
    const auto first = nlohmann::json::parse(serve.output().substr(0, serve.output().find('\n')));
    ASSERT_EQ(first.at("event"), "listening");
    EXPECT_EQ(relay({{"VEXALIVE_SERVICE_HOST", first.at("service")}, {"VEXALIVE_CA_FILE", first.at("caFile")}}), 0);
    ASSERT_TRUE(serve.awaitOutput("\"event\":\"request\""));
    serve.sendSignal(SIGINT);
    EXPECT_EQ(serve.awaitExit(), 0);

    const std::map<std::string, std::vector<std::string>> documented = {
        {"listening", {"service", "caFile"}},
        {"environment", {"line"}},
        {"console", {"url"}},
        {"request", {"interface", "operation", "httpStatus", "code", "message", "field", "appId", "streamId", "fault"}},
        {"stopped", {"why"}}};
    std::vector<std::string> events;
    std::istringstream lines(serve.output());
    for (std::string line; std::getline(lines, line);) {
        const auto object = nlohmann::json::parse(line);
        events.push_back(object.at("event"));
        EXPECT_EQ(object.size(), documented.at(events.back()).size() + 2) << line;
        EXPECT_TRUE(object.contains("time"));
        for (const std::string& field : documented.at(events.back())) {
            EXPECT_TRUE(object.contains(field)) << field << " in " << line;
        }
    }
    EXPECT_THAT(events,
                ::testing::ElementsAre("listening", "environment", "environment", "console", "request", "stopped"));
}

TEST_F(ServeTool, TellsWhereTheConsoleIs) {
    ChildProcess serve(arguments(), {});
    ASSERT_TRUE(serve.awaitOutput("\nconsole on http://127.0.0.1:"));
    ASSERT_TRUE(serve.awaitOutput("/\n"));
    EXPECT_THAT(serve.output(), ::testing::Not(HasSubstr("members publish")));

    ChildProcess wrong(arguments({"--console-port", "http"}), {});
    EXPECT_EQ(wrong.awaitExit(), 2);
    EXPECT_THAT(wrong.errors(), HasSubstr("--console-port is \"http\": must be an integer from 0"));
}

TEST_F(ServeTool, TellsWhatMediaLack) {
    ChildProcess serve(arguments({"--media", "--origin", "rtmp://127.0.0.1:1"}),
                       {{"VEXALIVE_MEDIA_WORKER", "/no/such/worker"}});
    EXPECT_EQ(serve.awaitExit(), 1);
    EXPECT_THAT(serve.errors(), HasSubstr("vexalive serve: cannot run /no/such/worker: No such file"));

    ChildProcess without(arguments({"--origin", "rtmp://127.0.0.1:1"}), {});
    EXPECT_EQ(without.awaitExit(), 2);
    EXPECT_THAT(without.errors(), HasSubstr("--origin needs --media"));
}

TEST_F(ServeTool, ShowsEachChangeOfTheMedia) {
    // /bin/cat ends with its input, but says nothing that a worker would.
    const std::map<std::string, std::string> worker = {{"VEXALIVE_MEDIA_WORKER", "/bin/cat"}};
    ChildProcess serve(arguments({"--media", "--origin", "rtmp://127.0.0.1:1", "--json"}), worker);
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
    serve.sendSignal(SIGINT);
    EXPECT_EQ(serve.awaitExit(), 0);
}

TEST_F(ServeTool, ShowsNoSecretOfARequest) {
    ChildProcess serve(arguments(), {});
    ASSERT_TRUE(serve.awaitOutput("ca.pem\n"));
    const auto variables = exported(serve.output());
    EXPECT_EQ(relay(variables), 0);
    EXPECT_EQ(relay(variables, "a-signature&with=more"), 1);

    serve.sendSignal(SIGINT);
    EXPECT_EQ(serve.awaitExit(), 0);

    EXPECT_THAT(serve.output(), HasSubstr("refused with code"));
    for (const char* secret : {"the-signature", "the-map-key", "a-signature", "with=more"}) {
        EXPECT_THAT(serve.output() + serve.errors(), ::testing::Not(HasSubstr(secret)));
    }
}

TEST_F(ServeTool, TellsWhyItCannotStart) {
    ChildProcess first(arguments(), {});
    ASSERT_TRUE(first.awaitOutput("ca.pem\n"));
    const std::string host = exported(first.output()).at("VEXALIVE_SERVICE_HOST");
    const std::string port = host.substr(host.find(':') + 1);

    ChildProcess second(arguments({"--port", port}), {});

    EXPECT_EQ(second.awaitExit(), 1);
    EXPECT_THAT(second.errors(), HasSubstr("vexalive serve: "));
    EXPECT_EQ(second.output(), "");
}

}  // namespace
