// What the relay command does about each course that a relay can take.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/RelaySession.h"

namespace {

using namespace vexalive;
using ::testing::ElementsAre;

constexpr const char* kAdd = "add_relay_stream_url";
constexpr const char* kRemove = "remove_relay_stream_url";
constexpr const char* kAccepted = R"({"code":0,"message":"ok"})";
constexpr const char* kRefusal = R"({"code":7,"message":"no"})";

// Tells a session a story and keeps what it shows.
class Story {
public:
    explicit Story(bool detach = false)
        : mSession(
              detach, [this] { ++mStops; }, [this](Step step) { mSteps.push_back(std::move(step)); },
              [this](const std::string& line) { mLog.push_back(line); }) {}

    void started(const char* interfaceName) { exchange(HttpExchange::kStarted, interfaceName, 0, ""); }
    void answered(const char* interfaceName, int retCode, const std::string& answer) {
        exchange(HttpExchange::kAnswered, interfaceName, retCode, answer);
    }
    void delivered(const char* interfaceName) { exchange(HttpExchange::kDelivered, interfaceName, 0, ""); }
    void told(ListenerEvent::Operation operation, int code, const std::string& message) {
        mSession.on(ListenerEvent{operation, {code, message}});
    }
    void reported() { mSession.on(EventReport{1400000001, "4711_alice", 10004, 30, "information", "detail"}); }
    void logged(const std::string& message) { mSession.on(LogEvent{2, "File.cpp", 7, "function", message}); }
    void interrupted() { mSession.onStopAsked("SIGINT"); }

    // A whole exchange that the adapter tries again.
    void failed(const char* interfaceName) {
        started(interfaceName);
        answered(interfaceName, 1, "");
        delivered(interfaceName);
    }

    // A whole exchange that ends the start, or the stop.
    void ended(const char* interfaceName, int retCode, const std::string& answer, int listenerCode,
               const std::string& message) {
        started(interfaceName);
        answered(interfaceName, retCode, answer);
        told(interfaceName == kAdd ? ListenerEvent::kStartRelay : ListenerEvent::kStopRelay, listenerCode, message);
        reported();
        delivered(interfaceName);
    }
    void succeeded(const char* interfaceName) { ended(interfaceName, 0, kAccepted, 0, "sucess"); }

    std::vector<std::string> events() const {
        std::vector<std::string> names;
        for (const Step& step : mSteps) {
            names.push_back(step.fields.at("event"));
        }
        return names;
    }
    const Step& last(const std::string& event) const {
        for (size_t i = mSteps.size(); i > 0; --i) {
            if (mSteps[i - 1].fields.at("event") == event) {
                return mSteps[i - 1];
            }
        }
        throw std::runtime_error("no step " + event);
    }
    std::optional<int> exitStatus() const { return mSession.exitStatus(); }
    int stops() const { return mStops; }
    const std::vector<std::string>& log() const { return mLog; }

private:
    void exchange(HttpExchange::Phase phase, const char* interfaceName, int retCode, const std::string& answer) {
        mSession.on(ExchangeEvent{phase, 1, interfaceName, 268, 0, retCode, answer, std::chrono::milliseconds(3)});
    }

    int mStops = 0;
    std::vector<Step> mSteps;
    std::vector<std::string> mLog;
    RelaySession mSession;
};

// ---- Without interruption -------------------------------------------------------------------------------------------

TEST(RelaySession, HoldsAfterASuccessfulStart) {
    Story story;
    story.succeeded(kAdd);

    EXPECT_EQ(story.exitStatus(), std::nullopt);
    EXPECT_EQ(story.stops(), 0);
    EXPECT_THAT(story.events(), ElementsAre("attempt", "answer", "outcome", "report", "holding"));
}

TEST(RelaySession, AReportThatOvertakesTheClientShowsTheOutcomeFirst) {
    Story story;
    story.started(kAdd);
    story.answered(kAdd, 0, kRefusal);
    story.told(ListenerEvent::kStartRelay, -200007, "no");
    story.reported();
    EXPECT_THAT(story.events(), ElementsAre("attempt", "answer", "outcome", "report"));

    story.delivered(kAdd);

    EXPECT_THAT(story.events(), ElementsAre("attempt", "answer", "outcome", "report", "end"));
}

TEST(RelaySession, HoldsOnlyOnceTheReportIsThere) {
    Story story;
    story.started(kAdd);
    story.answered(kAdd, 0, kAccepted);
    story.told(ListenerEvent::kStartRelay, 0, "sucess");
    story.delivered(kAdd);
    EXPECT_THAT(story.events(), ElementsAre("attempt", "answer", "outcome"));

    story.reported();

    EXPECT_THAT(story.events(), ElementsAre("attempt", "answer", "outcome", "report", "holding"));
}

TEST(RelaySession, EndsAfterASuccessfulStartIfDetached) {
    Story story(true);
    story.succeeded(kAdd);

    EXPECT_EQ(story.exitStatus(), 0);
    EXPECT_EQ(story.stops(), 0);
    EXPECT_EQ(story.events().back(), "end");
}

TEST(RelaySession, CountsAttemptsAndAnnouncesThePauses) {
    Story story;
    std::vector<int> pauses;
    for (int attempt = 1; attempt <= 10; ++attempt) {
        story.failed(kAdd);
        EXPECT_EQ(story.last("attempt").fields.at("attempt"), attempt);
        EXPECT_EQ(story.last("retry").fields.at("attempt"), attempt + 1);
        pauses.push_back(story.last("retry").fields.at("waitMilliseconds"));
    }
    EXPECT_THAT(pauses, ElementsAre(1000, 1000, 2000, 2000, 2000, 5000, 5000, 5000, 5000, 5000));

    story.ended(kAdd, 1, "", -3321, "http post return error, retcode:1");

    EXPECT_EQ(story.last("attempt").text, "start: attempt 11 of 11: waiting for the answer");
    EXPECT_EQ(story.last("outcome").fields.at("attempts"), 11);
    EXPECT_EQ(story.exitStatus(), 3);
}

TEST(RelaySession, ARefusedStartGivesItsStatusWithoutAStop) {
    Story story;
    story.ended(kAdd, 0, kRefusal, -200007, "no");

    EXPECT_EQ(story.exitStatus(), 1);
    EXPECT_EQ(story.stops(), 0);
    EXPECT_EQ(story.last("outcome").text, "start: failed, refused by the service");
    EXPECT_EQ(story.last("outcome").fields.at("listener")[0].at("serviceCode"), 7);
}

TEST(RelaySession, AnEmptyAnswerIsToldTwiceAndIsOneOutcome) {
    Story story;
    story.started(kAdd);
    story.answered(kAdd, 0, "");
    story.told(ListenerEvent::kStartRelay, -3323, "recv message nil");
    story.told(ListenerEvent::kStartRelay, -3323, "recv message can't parse");
    story.delivered(kAdd);
    story.reported();

    EXPECT_EQ(story.exitStatus(), 3);
    EXPECT_EQ(story.last("outcome").details.size(), 2u);
    EXPECT_THAT(story.events(), ElementsAre("attempt", "answer", "outcome", "report", "end"));
}

TEST(RelaySession, AnAnswerWithoutAVerdictEndsWithItsReport) {
    Story story;
    story.started(kAdd);
    story.answered(kAdd, 0, "{}");
    story.delivered(kAdd);
    story.reported();

    EXPECT_EQ(story.exitStatus(), 3);
    EXPECT_EQ(story.last("outcome").text, "start: failed, the answer tells no outcome");
    EXPECT_THAT(story.events(), ElementsAre("attempt", "answer", "outcome", "report", "end"));
}

TEST(RelaySession, AStartRefusedBeforeItIsSentIsAnOutcomeToo) {
    Story story;
    story.told(ListenerEvent::kStartRelay, -3323, "startPublishStreamUrl failure, param is invalid");
    story.reported();

    EXPECT_EQ(story.exitStatus(), 3);
}

TEST(RelaySession, SplitsTheReportsTraceIntoALineForEachAnswer) {
    std::vector<Step> steps;
    RelaySession session(
        true, [] {}, [&steps](Step step) { steps.push_back(std::move(step)); }, [](const std::string&) {});
    session.on(ListenerEvent{ListenerEvent::kStartRelay, {0, "sucess"}});
    session.on(EventReport{1, "r_u", 10004, 30, "info",
                           "{body} [tryHttp:cnt-10]retCode:1, respData: [tryHttp:cnt-9]retCode:0, respData:{}"});

    ASSERT_EQ(steps.size(), 4u);  // outcome, report, detached, end
    EXPECT_THAT(steps[1].details, ElementsAre("information  info", "detail       {body}",
                                              "             [tryHttp:cnt-10]retCode:1, respData:",
                                              "             [tryHttp:cnt-9]retCode:0, respData:{}"));
}

TEST(RelaySession, PassesLogLinesOn) {
    Story story;
    story.logged("text");

    EXPECT_THAT(story.log(), ElementsAre("[2] File.cpp:7 function: text"));
}

// ---- Stopping -------------------------------------------------------------------------------------------------------

TEST(RelaySession, StopsARunningRelay) {
    Story story;
    story.succeeded(kAdd);
    story.interrupted();
    EXPECT_EQ(story.stops(), 1);

    story.succeeded(kRemove);

    EXPECT_EQ(story.exitStatus(), 0);
    EXPECT_EQ(story.last("outcome").text, "stop: done, the relay is stopped");
    EXPECT_EQ(story.last("report").fields.at("request"), "stop");
}

TEST(RelaySession, AFailedStopGivesTheStatus) {
    Story story;
    story.succeeded(kAdd);
    story.interrupted();
    story.ended(kRemove, 0, kRefusal, -200007, "no");

    EXPECT_EQ(story.exitStatus(), 1);
}

TEST(RelaySession, AStartUnderWayIsAnsweredBeforeItIsStopped) {
    Story story;
    story.started(kAdd);
    story.interrupted();
    EXPECT_EQ(story.stops(), 0);

    story.answered(kAdd, 0, kAccepted);
    story.told(ListenerEvent::kStartRelay, 0, "sucess");
    story.delivered(kAdd);
    story.reported();

    EXPECT_EQ(story.stops(), 1);
    EXPECT_EQ(story.exitStatus(), std::nullopt);
}

TEST(RelaySession, AStartThatFailsAfterCtrlCGivesItsStatusWithoutAStop) {
    Story story;
    story.started(kAdd);
    story.interrupted();
    story.answered(kAdd, 1060, "{}");
    story.told(ListenerEvent::kStartRelay, -3321, "http post return error");
    story.delivered(kAdd);
    story.reported();

    EXPECT_EQ(story.stops(), 0);
    EXPECT_EQ(story.exitStatus(), 3);
}

TEST(RelaySession, AStartUnderWayIsStoppedAfterADetachedStartToo) {
    Story story(true);
    story.started(kAdd);
    story.interrupted();
    story.answered(kAdd, 0, kAccepted);
    story.told(ListenerEvent::kStartRelay, 0, "sucess");
    story.delivered(kAdd);
    story.reported();

    EXPECT_EQ(story.stops(), 1);
    EXPECT_EQ(story.exitStatus(), std::nullopt);
}

TEST(RelaySession, AStartBetweenTwoAttemptsIsStoppedAtOnce) {
    Story story;
    story.failed(kAdd);
    story.interrupted();
    EXPECT_EQ(story.stops(), 1);

    story.succeeded(kRemove);

    EXPECT_EQ(story.exitStatus(), 0);
}

TEST(RelaySession, AnAttemptUnderWayThatIsToBeTriedAgainIsStoppedInstead) {
    Story story;
    story.started(kAdd);
    story.interrupted();
    story.answered(kAdd, 1, "");
    story.delivered(kAdd);

    EXPECT_EQ(story.stops(), 1);
}

TEST(RelaySession, ASecondCtrlCEndsAtOnce) {
    Story story;
    story.succeeded(kAdd);
    story.interrupted();
    story.interrupted();

    EXPECT_EQ(story.exitStatus(), 130);
    story.succeeded(kRemove);
    EXPECT_THAT(story.events(),
                ElementsAre("attempt", "answer", "outcome", "report", "holding", "stopping", "interrupted", "end"));
}

// ---- A retry of the start that goes out although the stop has begun -------------------------------------------------

TEST(RelaySession, ALateAttemptIsShownAsIgnored) {
    Story story;
    story.failed(kAdd);
    story.interrupted();
    story.failed(kAdd);

    EXPECT_EQ(story.last("ignored").text, "start: attempt 2 of 11: no longer counts, since the stop has begun");
    EXPECT_EQ(story.exitStatus(), std::nullopt);
}

TEST(RelaySession, ALateAttemptThatEndedBeforeTheLastAttemptToStopIsStoppedByIt) {
    Story story;
    story.failed(kAdd);
    story.interrupted();
    story.failed(kRemove);
    story.failed(kAdd);
    story.succeeded(kRemove);

    EXPECT_EQ(story.stops(), 1);
    EXPECT_EQ(story.exitStatus(), 0);
}

TEST(RelaySession, ALateAttemptThatMayHaveComeAfterTheStopIsStoppedAgain) {
    Story story;
    story.failed(kAdd);
    story.interrupted();
    story.started(kRemove);
    story.started(kAdd);
    story.answered(kRemove, 0, kAccepted);
    story.told(ListenerEvent::kStopRelay, 0, "sucess");
    story.delivered(kRemove);
    story.reported();
    EXPECT_EQ(story.stops(), 1);  // the late attempt is still under way
    story.answered(kAdd, 0, kAccepted);
    story.delivered(kAdd);

    EXPECT_EQ(story.stops(), 2);
    story.succeeded(kRemove);
    EXPECT_EQ(story.exitStatus(), 0);
}

TEST(RelaySession, ALateAttemptIsStoppedAgainEvenIfTheStopWasRefused) {
    Story story;
    story.failed(kAdd);
    story.interrupted();
    story.started(kRemove);
    story.started(kAdd);
    story.answered(kAdd, 0, kAccepted);
    story.delivered(kAdd);
    story.answered(kRemove, 0, kRefusal);
    story.told(ListenerEvent::kStopRelay, -200007, "nothing to stop");
    story.delivered(kRemove);
    story.reported();

    EXPECT_EQ(story.stops(), 2);
    story.succeeded(kRemove);
    EXPECT_EQ(story.exitStatus(), 0);
}

TEST(RelaySession, ALateAttemptThatWasRefusedNeedsNoSecondStop) {
    Story story;
    story.failed(kAdd);
    story.interrupted();
    story.started(kRemove);
    story.started(kAdd);
    story.answered(kAdd, 0, kRefusal);
    story.delivered(kAdd);
    story.answered(kRemove, 0, kAccepted);
    story.told(ListenerEvent::kStopRelay, 0, "sucess");
    story.delivered(kRemove);
    story.reported();

    EXPECT_EQ(story.stops(), 1);
    EXPECT_EQ(story.exitStatus(), 0);
}

}  // namespace
