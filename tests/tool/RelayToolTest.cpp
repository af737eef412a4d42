// `vexalive relay` as a child process, against a service in this one.

#include <algorithm>
#include <csignal>

#include "ToolTest.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using vexalive::Fault;

class RelayTool : public ToolTest {
protected:
    static std::vector<std::string> arguments(const std::vector<std::string>& more = {}) {
        std::vector<std::string> all = {VEXALIVE_TOOL, "relay", "rtmp://cdn.example/live/main"};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }
};

// ---- Running and stopping -------------------------------------------------------------------------------------------

TEST_F(RelayTool, HoldsTheRelayUntilCtrlCAndStopsIt) {
    ChildProcess tool(arguments(), environment());
    ASSERT_TRUE(tool.awaitOutput("the relay is running; Ctrl-C stops it\n"));
    EXPECT_EQ(relaysRunning(), 1u);

    tool.sendSignal(SIGINT);

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_EQ(relaysRunning(), 0u);
    EXPECT_THAT(tool.output(), HasSubstr("start: attempt 1 of 11: accepted (code 0: \"ok\")"));
    EXPECT_THAT(tool.output(), HasSubstr("\nrelay start: done, the relay is running\n"));
    EXPECT_THAT(tool.output(), HasSubstr("listener code 0 (success), message \"sucess\""));
    EXPECT_THAT(tool.output(), HasSubstr("\nstopping the relay on SIGINT"));
    EXPECT_THAT(tool.output(), HasSubstr("\nrelay stop: done, the relay is stopped\n"));
    EXPECT_THAT(tool.output(), HasSubstr("\nrelay stop: reported as event 30 of type 10004"));
    EXPECT_EQ(tool.errors(), "");
    expectNoSecrets(tool);
}

TEST_F(RelayTool, StopsOnSigtermToo) {
    ChildProcess tool(arguments(), environment());
    ASSERT_TRUE(tool.awaitOutput("the relay is running; Ctrl-C stops it\n"));

    tool.sendSignal(SIGTERM);

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_EQ(relaysRunning(), 0u);
}

TEST_F(RelayTool, LeavesTheRelayRunningIfDetached) {
    ChildProcess tool(arguments({"--detach"}), environment());

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_EQ(relaysRunning(), 1u);
    EXPECT_THAT(tool.output(), Not(HasSubstr("stop:")));
}

TEST_F(RelayTool, PrefersOptionsToTheEnvironment) {
    ChildProcess tool(arguments({"--detach", "--app-id", "77", "--sig", "secret-option"}), environment());

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_THAT(mService->stateJson(), HasSubstr("77"));
    EXPECT_THAT(tool.output() + tool.errors(), Not(HasSubstr("secret-option")));
}

TEST_F(RelayTool, TakesTheFileOfAuthoritiesAsAnOption) {
    auto variables = environment();
    variables["VEXALIVE_CA_FILE"] = "";
    ChildProcess tool(arguments({"--detach", "--ca-file", mService->caFile()}), variables);

    EXPECT_EQ(tool.awaitExit(), 0);
}

// ---- Attempts -------------------------------------------------------------------------------------------------------

TEST_F(RelayTool, ShowsEachAttemptAndThePauseBeforeTheNext) {
    injectFault(status(503, 2));
    ChildProcess tool(arguments({"--detach"}), environment());

    EXPECT_EQ(tool.awaitExit(), 0);

    std::string rest = tool.output();
    for (const char* line : {"start: attempt 1 of 11: waiting", "start: attempt 1 of 11: HTTP status 503",
                             "start: next try, attempt 2 of 11, in 1 s\n", "start: attempt 2 of 11: waiting",
                             "start: attempt 2 of 11: HTTP status 503", "start: next try, attempt 3 of 11, in 1 s\n",
                             "start: attempt 3 of 11: waiting", "start: attempt 3 of 11: accepted",
                             "start: done, the relay is running\n"}) {
        const size_t at = rest.find(line);
        ASSERT_NE(at, std::string::npos) << line << " is missing after\n" << rest;
        rest.erase(0, at + std::string(line).size());
    }
}

TEST_F(RelayTool, CtrlCWhileTheStartIsRetryingSendsAStop) {
    injectFault(status(503, 0, kAdd));
    ChildProcess tool(arguments(), environment());
    ASSERT_TRUE(tool.awaitOutput("start: next try, attempt 2 of 11"));

    tool.sendSignal(SIGINT);

    EXPECT_EQ(tool.awaitExit(), 1);  // the service knows of no relay to stop
    EXPECT_THAT(tool.output(), HasSubstr("stop: attempt 1 of 11: refused (code 4007"));
    EXPECT_THAT(tool.output(), HasSubstr("stop: failed, refused by the service\n"));
    EXPECT_THAT(tool.output(), Not(HasSubstr("start: done")));
}

TEST_F(RelayTool, CtrlCWhileTheStartIsUnderWayStopsTheRelayThatComesOfIt) {
    injectFault(delay(700, kAdd));
    ChildProcess tool(arguments(), environment());
    ASSERT_TRUE(tool.awaitOutput("start: attempt 1 of 11: waiting"));

    tool.sendSignal(SIGINT);

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_THAT(tool.output(), HasSubstr("start: done, the relay is running\n"));
    EXPECT_THAT(tool.output(), HasSubstr("stop: done, the relay is stopped\n"));
    EXPECT_EQ(relaysRunning(), 0u);
}

TEST_F(RelayTool, ARelayThatALateAttemptStartsAfterTheStopIsStoppedToo) {
    injectFault(status(503, 1, kAdd));  // the retry goes out a second later,
    injectFault(delay(2500, kRemove));  // while the stop is under way,
    injectFault(delay(3500, kAdd));     // and is accepted after it
    ChildProcess tool(arguments(), environment());
    ASSERT_TRUE(tool.awaitOutput("start: next try, attempt 2 of 11"));

    tool.sendSignal(SIGINT);

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_THAT(tool.output(), HasSubstr("start: attempt 2 of 11: accepted"));
    EXPECT_THAT(tool.output(), HasSubstr("start: attempt 2 of 11: no longer counts"));
    EXPECT_THAT(tool.output(), HasSubstr("stopping the relay again"));
    EXPECT_EQ(relaysRunning(), 0u);
}

TEST_F(RelayTool, ASecondCtrlCEndsAtOnce) {
    injectFault(delay(8000, kRemove));
    ChildProcess tool(arguments(), environment());
    ASSERT_TRUE(tool.awaitOutput("Ctrl-C stops it\n"));
    tool.sendSignal(SIGINT);
    ASSERT_TRUE(tool.awaitOutput("stop: attempt 1 of 11: waiting"));

    tool.sendSignal(SIGINT);

    EXPECT_EQ(tool.awaitExit(), 130);
    EXPECT_THAT(tool.output(), HasSubstr("ended at once on SIGINT; whether the relay runs is not known\n"));
}

TEST_F(RelayTool, StopsTheRelayWhenItsReaderIsGone) {
    injectFault(status(503, 1, kAdd));
    ChildProcess tool(arguments(), environment());
    ASSERT_TRUE(tool.awaitOutput("start: next try, attempt 2 of 11"));

    tool.closeOutput();

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_EQ(relaysRunning(), 0u);
}

// ---- Failures -------------------------------------------------------------------------------------------------------

TEST_F(RelayTool, ARefusalByTheServiceIsTold) {
    injectFault(serverCode(10017, "quota is used up"));
    ChildProcess tool(arguments(), environment());

    EXPECT_EQ(tool.awaitExit(), 1);
    EXPECT_THAT(tool.output(), HasSubstr("refused (code 10017: \"quota is used up\")"));
    EXPECT_THAT(tool.output(), HasSubstr("start: failed, refused by the service\n"));
    EXPECT_THAT(tool.output(), HasSubstr("listener code -210017 (the service refused with its code 10017)"));
}

TEST_F(RelayTool, ARefusedStopGivesTheStatus) {
    ChildProcess tool(arguments(), environment());
    ASSERT_TRUE(tool.awaitOutput("Ctrl-C stops it\n"));
    injectFault(serverCode(9, "not now"));

    tool.sendSignal(SIGINT);

    EXPECT_EQ(tool.awaitExit(), 1);
    EXPECT_THAT(tool.output(), HasSubstr("stop: failed, refused by the service\n"));
}

TEST_F(RelayTool, AnUntrustedCertificateIsNoAnswer) {
    auto variables = environment();
    variables["VEXALIVE_CA_FILE"] = "";
    ChildProcess tool(arguments(), variables);

    EXPECT_EQ(tool.awaitExit(), 3);
    EXPECT_THAT(tool.output(), HasSubstr("the service's certificate is not trusted: does VEXALIVE_CA_FILE"));
    EXPECT_THAT(tool.output(), HasSubstr("start: failed, no usable answer came\n"));
    EXPECT_THAT(tool.output(), HasSubstr("listener code -3321 (transport error"));
    expectNoSecrets(tool);
}

TEST_F(RelayTool, ASecretThatNoAddressCanHoldIsWarnedOfAndFailsAsInTheSdk) {
    auto variables = environment();
    variables["VEXALIVE_SIG"] = "secret signature";
    ChildProcess tool(arguments(), variables);

    EXPECT_EQ(tool.awaitExit(), 3);
    EXPECT_THAT(tool.errors(), HasSubstr("warning: --sig holds a character"));
    EXPECT_THAT(tool.output(), HasSubstr("return code 1003"));
    EXPECT_THAT(tool.output() + tool.errors(), Not(HasSubstr("secret signature")));
}

TEST_F(RelayTool, WarnsWhenTheBuiltInServiceIsAsked) {
    auto variables = environment();
    variables["VEXALIVE_SERVICE_HOST"] = "";
    ChildProcess tool(arguments(), variables);  // the built-in default does not exist: its name is reserved
    ASSERT_TRUE(tool.awaitOutput("start: "));

    tool.sendSignal(SIGINT);
    tool.sendSignal(SIGTERM);

    EXPECT_EQ(tool.awaitExit(), 130);
    EXPECT_THAT(tool.errors(), HasSubstr("warning: VEXALIVE_SERVICE_HOST is not set, so the built-in default"));
}

// ---- Forms ----------------------------------------------------------------------------------------------------------

TEST_F(RelayTool, WritesOneJsonObjectALineWithTheDocumentedFields) {
    injectFault(status(503, 1));
    ChildProcess tool(arguments({"--json"}), environment());
    ASSERT_TRUE(tool.awaitOutput("\"event\":\"holding\""));
    tool.sendSignal(SIGINT);
    EXPECT_EQ(tool.awaitExit(), 0);

    const std::map<std::string, std::vector<std::string>> documented = {
        {"begin", {"service", "url", "sdkAppId", "user", "room", "appId", "bizId", "attempts"}},
        {"attempt", {"request", "attempt", "of", "interface", "bytes"}},
        {"answer",
         {"request", "attempt", "of", "returnCode", "meaning", "httpStatus", "code", "message", "milliseconds"}},
        {"retry", {"request", "attempt", "of", "waitMilliseconds"}},
        {"outcome", {"request", "success", "attempts", "outcome", "listener"}},
        {"report", {"request", "sdkAppId", "roomUser", "reportType", "reportEvent", "information", "detail"}},
        {"holding", {}},
        {"stopping", {"why"}},
        {"end", {"exitStatus"}}};
    std::vector<std::string> events;
    for (const nlohmann::json& object : objects(tool.output())) {
        events.push_back(object.at("event"));
        const bool isOfATask = object.contains("task");
        EXPECT_EQ(isOfATask, events.back() != "begin" && events.back() != "end") << object;
        EXPECT_EQ(object.size(), documented.at(events.back()).size() + (isOfATask ? 3 : 2)) << object;
        EXPECT_TRUE(object.contains("time")) << object;
        for (const std::string& field : documented.at(events.back())) {
            EXPECT_TRUE(object.contains(field)) << field << " in " << object;
        }
    }
    EXPECT_THAT(events, ElementsAre("begin", "attempt", "answer", "retry", "attempt", "answer", "outcome", "report",
                                    "holding", "stopping", "attempt", "answer", "outcome", "report", "end"));
    expectNoSecrets(tool);
}

TEST_F(RelayTool, TellsProgramsTheFiguresOfARefusal) {
    injectFault(serverCode(42, "no"));
    ChildProcess tool(arguments({"--json"}), environment());
    EXPECT_EQ(tool.awaitExit(), 1);

    const std::vector<nlohmann::json> entries = objects(tool.output());
    ASSERT_EQ(entries.size(), 6u);
    EXPECT_EQ(entries[2].at("returnCode"), 0);
    EXPECT_EQ(entries[2].at("code"), 42);
    EXPECT_EQ(entries[2].at("message"), "no");
    EXPECT_EQ(entries[3].at("success"), false);
    EXPECT_EQ(entries[3].at("listener"),
              nlohmann::json::parse(R"([{"code":-200042,"message":"no","serviceCode":42}])"));
    EXPECT_EQ(entries[4].at("reportEvent"), 30);
    EXPECT_EQ(entries[5].at("exitStatus"), 1);
}

TEST_F(RelayTool, WritesTheSdksLogToStandardErrorOnRequestWithoutSecrets) {
    ChildProcess tool(arguments({"--detach", "--verbose", "--json"}), environment());
    EXPECT_EQ(tool.awaitExit(), 0);

    EXPECT_THAT(tool.errors(), HasSubstr("addPublishUrlInner index: 1, retryStartCdnCnt:0"));
    EXPECT_GT(objects(tool.output()).size(), 4u);
    expectNoSecrets(tool);
}

TEST_F(RelayTool, HidesASecretThatTheServiceSendsBack) {
    injectFault(serverCode(5, std::string("bad signature ") + kSig));
    ChildProcess tool(arguments({"--verbose"}), environment());

    EXPECT_EQ(tool.awaitExit(), 1);
    EXPECT_THAT(tool.output(), HasSubstr("bad signature [hidden]"));
    expectNoSecrets(tool);
}

// ---- On a terminal --------------------------------------------------------------------------------------------------

// The lines that a terminal shows after `bytes`: knows returns, line feeds and erasing to the end of the line.
std::vector<std::string> screenAfter(const std::string& bytes) {
    const std::string eraseRest = "\x1b[K";
    std::vector<std::string> lines(1);
    size_t column = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (bytes[i] == '\r') {
            column = 0;
        } else if (bytes[i] == '\n') {
            lines.emplace_back();
        } else if (bytes.compare(i, eraseRest.size(), eraseRest) == 0) {
            lines.back().resize(column);
            i += eraseRest.size() - 1;
        } else {
            lines.back().resize(std::max(lines.back().size(), column + 1), ' ');
            lines.back()[column++] = bytes[i];
        }
    }
    return lines;
}

TEST_F(RelayTool, CountsDownToTheNextTryInOneLineOfATerminal) {
    injectFault(status(503, 3, kAdd));
    ChildProcess tool(arguments({"--detach"}), environment(), ChildProcess::kTerminal);

    EXPECT_EQ(tool.awaitExit(), 0);

    const size_t two = tool.output().find("attempt 4 of 11, in 2 s");
    const size_t one = tool.output().find("attempt 4 of 11, in 1 s");
    ASSERT_NE(two, std::string::npos);
    ASSERT_NE(one, std::string::npos);
    EXPECT_LT(two, one);
    EXPECT_EQ(tool.output().substr(two, one - two).find('\n'), std::string::npos);
}

TEST_F(RelayTool, LeavesATerminalCleanAfterCtrlCIsTyped) {
    injectFault(status(503, 1, kAdd));
    ChildProcess tool(arguments(), environment(), ChildProcess::kTerminal);
    ASSERT_TRUE(tool.awaitOutput("the relay is running; Ctrl-C stops it"));

    tool.type("\x03");

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_EQ(relaysRunning(), 0u);
    const std::vector<std::string> screen = screenAfter(tool.output());
    EXPECT_EQ(screen.back(), "");
    for (const std::string& line : screen) {
        EXPECT_THAT(line, Not(HasSubstr("waiting for the answer")));
        EXPECT_THAT(line, Not(HasSubstr("next try")));
        EXPECT_NE(line, "the relay is running; Ctrl-C stops it");
        EXPECT_THAT(line, Not(HasSubstr("\x1b")));
    }
    EXPECT_THAT(screen, ::testing::Contains("relay start: done, the relay is running"));
    EXPECT_THAT(screen, ::testing::Contains("relay stop: done, the relay is stopped"));
}

TEST_F(RelayTool, WritesPlainLinesToATerminalThatCannotErase) {
    auto variables = environment();
    variables["TERM"] = "dumb";
    ChildProcess tool(arguments({"--detach"}), variables, ChildProcess::kTerminal);

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_THAT(tool.output(), Not(HasSubstr("\x1b")));
    EXPECT_THAT(tool.output(), HasSubstr("start: attempt 1 of 11: waiting for the answer\r\n"));
}

}  // namespace
