// Tests of `vexalive relay` as a child process.

#include <csignal>
#include <regex>

#include "ToolTest.h"

namespace {

class RelayTool : public ToolTest {
protected:
    RelayTool() : ToolTest({"relay", "rtmp://cdn.example/live/main"}) {}
};

// ---- Running and stopping -------------------------------------------------------------------------------------------

TEST_F(RelayTool, HoldsTheRelayUntilASignalAndStopsIt) {
    for (const auto& [signal, name] : {std::pair(SIGINT, "SIGINT"), {SIGTERM, "SIGTERM"}}) {
        ChildProcess& tool = start();
        ASSERT_TRUE(tool.awaitOutput("the relay is running; Ctrl-C stops it\n"));
        EXPECT_EQ(relaysRunning(), 1u);

        tool.sendSignal(signal);

        EXPECT_EQ(tool.awaitExit(), 0);
        EXPECT_EQ(relaysRunning(), 0u);
        expectInOrder({"start: attempt 1 of 11: accepted (code 0: \"ok\")",
                       "\nrelay start: done, the relay is running\n", "listener code 0 (success), message \"sucess\"",
                       std::string("\nstopping the relay on ") + name, "\nrelay stop: done, the relay is stopped\n",
                       "\nrelay stop: reported as event 30 of type 10004"});
        EXPECT_EQ(tool.errors(), "");
    }
}

TEST_F(RelayTool, OptionsOverrideTheEnvironmentAndDetachLeavesTheRelayRunning) {
    ChildProcess& tool =
        start({"--detach", "--app-id", "77", "--sig", "secret-option", "--ca-file", mService->caFile()},
              {{"VEXALIVE_CA_FILE", ""}});

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_EQ(relaysRunning(), 1u);
    EXPECT_THAT(tool.output(), Not(HasSubstr("stop:")));
    EXPECT_EQ(state().at("relays").at(0).at("appid"), 77);
    EXPECT_THAT(tool.output() + tool.errors(), Not(HasSubstr("secret-option")));
}

// ---- Attempts -------------------------------------------------------------------------------------------------------

TEST_F(RelayTool, ShowsEachAttemptAndThePauseBeforeTheNext) {
    injectFault("status=503,count=2");

    EXPECT_EQ(start({"--detach"}).awaitExit(), 0);

    expectInOrder({"start: attempt 1 of 11: waiting", "start: attempt 1 of 11: HTTP status 503",
                   "start: retrying, attempt 2 of 11 in 1 s\n", "start: attempt 2 of 11: waiting",
                   "start: attempt 2 of 11: HTTP status 503", "start: retrying, attempt 3 of 11 in 1 s\n",
                   "start: attempt 3 of 11: waiting", "start: attempt 3 of 11: accepted",
                   "start: done, the relay is running\n"});
}

TEST_F(RelayTool, ARelayThatALateAttemptStartsIsStoppedAgain) {
    injectFault("status=503,interface=add_relay_stream_url");     // the start is retried after 1 s, during the stop
    injectFault("delay=2500,interface=remove_relay_stream_url");  // the response to the stop arrives first,
    injectFault("delay=3500,interface=add_relay_stream_url");     // then the response to the retry
    ChildProcess& tool = start();
    ASSERT_TRUE(tool.awaitOutput("start: retrying, attempt 2 of 11"));

    tool.sendSignal(SIGINT);

    EXPECT_EQ(tool.awaitExit(), 0);
    expectInOrder(
        {"start: attempt 2 of 11: accepted", "start: attempt 2 of 11: response ignored", "stopping the relay again"});
    EXPECT_EQ(relaysRunning(), 0u);
}

TEST_F(RelayTool, AClosedOutputStopsTheRelay) {
    injectFault("status=503,interface=add_relay_stream_url");
    ChildProcess& tool = start();
    ASSERT_TRUE(tool.awaitOutput("start: retrying, attempt 2 of 11"));

    tool.closeOutput();

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_EQ(relaysRunning(), 0u);
}

// ---- Failures -------------------------------------------------------------------------------------------------------

TEST_F(RelayTool, ARefusalByTheServiceIsExplained) {
    injectFault(std::string("code=10017,message=bad signature ") + kSig);

    EXPECT_EQ(start({"--verbose"}).awaitExit(), 1);
    expectInOrder({"refused (code 10017: \"bad signature [hidden]\")", "start: failed, refused by the service\n",
                   "listener code -210017 (the service refused with code 10017)"});
}

TEST_F(RelayTool, AnUntrustedCertificateIsNoResponse) {
    EXPECT_EQ(start({}, {{"VEXALIVE_CA_FILE", ""}}).awaitExit(), 3);
    expectInOrder({"the service's certificate is not trusted; name its certificate authority",
                   "start: failed, no usable response\n", "listener code -3321 (transport error"});
}

TEST_F(RelayTool, WarnsOfASecretThatAnAddressCannotCarry) {
    ChildProcess& tool = start({}, {{"VEXALIVE_SIG", "secret signature"}});

    EXPECT_EQ(tool.awaitExit(), 3);
    EXPECT_THAT(tool.errors(), HasSubstr("warning: --sig contains a space"));
    EXPECT_THAT(tool.output(), HasSubstr("return code 1003"));
    EXPECT_THAT(tool.output() + tool.errors(), Not(HasSubstr("secret signature")));
}

TEST_F(RelayTool, WarnsOfTheBuiltInService) {
    ChildProcess& tool = start({}, {{"VEXALIVE_SERVICE_HOST", ""}});  // the built-in name is never resolved (.example)
    ASSERT_TRUE(tool.awaitOutput("start: "));

    tool.sendSignal(SIGINT);
    tool.sendSignal(SIGTERM);

    EXPECT_EQ(tool.awaitExit(), 130);
    EXPECT_THAT(tool.output(), HasSubstr("; the relay may still be running\n"));
    EXPECT_THAT(tool.errors(), HasSubstr("warning: VEXALIVE_SERVICE_HOST is not set; using the built-in default"));
}

// ---- Output formats -------------------------------------------------------------------------------------------------

TEST_F(RelayTool, WritesOneJsonObjectALineWithTheDocumentedFields) {
    injectFault("status=503");
    ChildProcess& tool = start({"--json"});
    ASSERT_TRUE(tool.awaitOutput("\"event\":\"holding\""));
    tool.sendSignal(SIGINT);
    EXPECT_EQ(tool.awaitExit(), 0);

    const Fields documented =
        taskFields({{"begin", {"service", "url", "sdkAppId", "user", "room", "appId", "bizId", "attempts"}}});
    EXPECT_THAT(checkedEvents(tool.output(), documented),
                ElementsAre("begin", "attempt", "response", "retry", "attempt", "response", "outcome", "report",
                            "holding", "stopping", "attempt", "response", "outcome", "report", "end"));
}

TEST_F(RelayTool, WritesItsExitStatusAsJson) {
    injectFault("code=42,message=no");
    EXPECT_EQ(start({"--json"}).awaitExit(), 1);
    EXPECT_EQ(objects(mTool->output()).back().at("exitStatus"), 1);
}

TEST_F(RelayTool, VerboseWritesTheSdksLogToStandardError) {
    ChildProcess& tool = start({"--detach", "--verbose", "--json"});
    EXPECT_EQ(tool.awaitExit(), 0);

    EXPECT_THAT(tool.errors(), HasSubstr("addPublishUrlInner index: 1, retryStartCdnCnt:0"));
    EXPECT_GT(objects(tool.output()).size(), 4u);
}

// ---- On a terminal --------------------------------------------------------------------------------------------------

TEST_F(RelayTool, CountsDownToTheRetryInOneLine) {
    injectFault("status=503,count=3,interface=add_relay_stream_url");
    ChildProcess& tool = start({"--detach"}, {}, ChildProcess::kTerminal);

    EXPECT_EQ(tool.awaitExit(), 0);

    const size_t two = tool.output().find("attempt 4 of 11 in 2 s");
    const size_t one = tool.output().find("attempt 4 of 11 in 1 s");
    ASSERT_NE(two, std::string::npos);
    ASSERT_NE(one, std::string::npos);
    EXPECT_LT(two, one);
    EXPECT_EQ(tool.output().substr(two, one - two).find('\n'), std::string::npos);
}

TEST_F(RelayTool, ErasesTransientLinesAfterCtrlCIsTyped) {
    injectFault("status=503,interface=add_relay_stream_url");
    ChildProcess& tool = start({}, {}, ChildProcess::kTerminal);
    ASSERT_TRUE(tool.awaitOutput("the relay is running; Ctrl-C stops it"));

    tool.type("\x03");

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_EQ(relaysRunning(), 0u);
    const std::regex erasedLine("[^\n]*\r\x1b\\[K");
    const std::string screen = std::regex_replace(tool.output(), erasedLine, "");
    for (const char* erased : {"waiting for the response", "retrying", "the relay is running; Ctrl-C", "\x1b"}) {
        EXPECT_THAT(screen, Not(HasSubstr(erased)));
    }
    EXPECT_THAT(screen, HasSubstr("\nrelay start: done, the relay is running\r\n"));
    EXPECT_THAT(screen, HasSubstr("\nrelay stop: done, the relay is stopped\r\n"));
    EXPECT_EQ(screen.back(), '\n');
}

TEST_F(RelayTool, WritesPlainLinesToADumbTerminal) {
    ChildProcess& tool = start({"--detach"}, {{"TERM", "dumb"}}, ChildProcess::kTerminal);

    EXPECT_EQ(tool.awaitExit(), 0);
    EXPECT_THAT(tool.output(), Not(HasSubstr("\x1b")));
    EXPECT_THAT(tool.output(), HasSubstr("start: attempt 1 of 11: waiting for the response\r\n"));
}

}  // namespace
