#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/TaskSession.h"

namespace {

using namespace vexalive;
using ::testing::ElementsAre;
using Lifetime = TaskSession::Lifetime;
using requests::kAddRelay;
using requests::kCancelMix;
using requests::kRemoveRelay;
using requests::kStartMix;

constexpr const char* kAccepted = R"({"code":0,"message":"ok"})";
constexpr const char* kRefusal = R"({"code":7,"message":"no"})";

// Feeds a session with events and records what it emits. The start "first" is requested at construction.
class Scenario {
public:
    explicit Scenario(Lifetime lifetime = Lifetime::kHeld, const TaskType& type = kRelayTask)
        : mFamily(type.family),
          mSession(
              type, lifetime, [this] { ++mStops; },
              [this](OutputEntry entry) { mEntries.push_back(std::move(entry)); }) {
        request("first");
    }

    void request(const std::string& name) {
        mSession.start([this, name] { mStarts.push_back(name); });
    }
    void interrupt() { mSession.requestStop("SIGINT"); }

    // The last exchange of the kind, unless there is an id.
    uint64_t started(requests::Kind kind) {
        ExchangeEvent event = exchange(HttpExchange::kStarted, ++mLastId);
        event.kind = kind;
        mSession.on(event);
        return mOpen[kind] = event.id;
    }
    void responded(requests::Kind kind, int retCode, const std::string& body) {
        respondedTo(mOpen[kind], retCode, body);
    }
    void respondedTo(uint64_t id, int retCode, const std::string& body) {
        ExchangeEvent event = exchange(HttpExchange::kCompleted, id);
        event.retCode = retCode;
        event.response = body;
        mSession.on(event);
    }
    void delivered(requests::Kind kind) { deliveredTo(mOpen[kind]); }
    void deliveredTo(uint64_t id) { mSession.on(exchange(HttpExchange::kDelivered, id)); }
    void notified(requests::Kind kind, int code, const std::string& message) {
        mSession.on(ListenerEvent{kind, {code, message}});
    }
    void reported(const std::string& trace = "trace") {
        mSession.on(EventReport{1400000001, "4711_alice", 10004, mFamily.reportEvent, "information", trace});
    }

    // The rest of a started exchange whose response decides the task.
    void accepted(requests::Kind kind) { completed(kind, 0, kAccepted, 0, "sucess"); }
    void refused(requests::Kind kind) { completed(kind, 0, kRefusal, mFamily.codes.serverErrorBase - 7, "no"); }
    void completed(requests::Kind kind, int retCode, const std::string& body, int code, const std::string& message) {
        responded(kind, retCode, body);
        notified(kind, code, message);
        delivered(kind);
        reported();
    }
    // A late attempt of a superseded start: the adapter ignores the response.
    void ignored(requests::Kind kind, int retCode, const std::string& body) {
        responded(kind, retCode, body);
        delivered(kind);
    }

    // Whole exchanges.
    void failAttempt(requests::Kind kind) {
        started(kind);
        ignored(kind, 1, "");
    }
    void succeed(requests::Kind kind) {
        started(kind);
        accepted(kind);
    }
    void refuse(requests::Kind kind) {
        started(kind);
        refused(kind);
    }

    std::vector<std::string> events() const {
        std::vector<std::string> names;
        for (const OutputEntry& entry : mEntries) {
            names.push_back(entry.fields.at("event"));
        }
        return names;
    }
    const OutputEntry& last(const std::string& event) const {
        for (size_t i = mEntries.size(); i > 0; --i) {
            if (mEntries[i - 1].fields.at("event") == event) {
                return mEntries[i - 1];
            }
        }
        throw std::runtime_error("no entry " + event);
    }
    std::optional<ExitStatus> exitStatus() const { return mSession.exitStatus(); }
    int stops() const { return mStops; }
    const std::vector<std::string>& starts() const { return mStarts; }

private:
    static ExchangeEvent exchange(HttpExchange::Phase phase, uint64_t id) {
        ExchangeEvent event{};
        event.phase = phase;
        event.id = id;
        return event;
    }

    const requests::Family& mFamily;
    int mStops = 0;
    std::vector<std::string> mStarts;
    std::vector<OutputEntry> mEntries;
    uint64_t mLastId = 0;
    std::map<requests::Kind, uint64_t> mOpen;
    TaskSession mSession;
};

// ---- Without interruption -------------------------------------------------------------------------------------------

TEST(TaskSession, HoldsAfterTheReportOfASuccessfulStart) {
    Scenario scenario;
    scenario.started(kAddRelay);
    scenario.responded(kAddRelay, 0, kAccepted);
    scenario.notified(kAddRelay, 0, "sucess");
    scenario.delivered(kAddRelay);
    EXPECT_THAT(scenario.events(), ElementsAre("attempt", "response", "outcome"));

    scenario.reported();

    EXPECT_EQ(scenario.exitStatus(), std::nullopt);
    EXPECT_EQ(scenario.stops(), 0);
    EXPECT_THAT(scenario.events(), ElementsAre("attempt", "response", "outcome", "report", "holding"));
}

TEST(TaskSession, AReportBeforeTheDeliveryFollowsTheOutcome) {
    Scenario scenario;
    scenario.started(kAddRelay);
    scenario.responded(kAddRelay, 0, kRefusal);
    scenario.notified(kAddRelay, -200007, "no");
    scenario.reported();
    EXPECT_THAT(scenario.events(), ElementsAre("attempt", "response", "outcome", "report"));

    scenario.delivered(kAddRelay);

    EXPECT_THAT(scenario.events(), ElementsAre("attempt", "response", "outcome", "report"));
    EXPECT_EQ(scenario.exitStatus(), kRefused);
}

TEST(TaskSession, EndsAfterASuccessfulStartIfDetached) {
    Scenario scenario(Lifetime::kDetached);
    scenario.succeed(kAddRelay);

    EXPECT_EQ(scenario.exitStatus(), kSucceeded);
    EXPECT_EQ(scenario.stops(), 0);
    EXPECT_EQ(scenario.last("detached").text, "the relay keeps running");
}

TEST(TaskSession, CountsAttemptsAndAnnouncesThePauses) {
    Scenario scenario;
    std::vector<int> pauses;
    for (int attempt = 1; attempt <= 10; ++attempt) {
        scenario.failAttempt(kAddRelay);
        EXPECT_EQ(scenario.last("attempt").fields.at("attempt"), attempt);
        EXPECT_EQ(scenario.last("retry").fields.at("attempt"), attempt + 1);
        pauses.push_back(scenario.last("retry").fields.at("waitMilliseconds"));
    }
    EXPECT_THAT(pauses, ElementsAre(1000, 1000, 2000, 2000, 2000, 5000, 5000, 5000, 5000, 5000));

    scenario.started(kAddRelay);
    scenario.completed(kAddRelay, 1, "", -3321, "http post return error");

    EXPECT_EQ(scenario.last("attempt").text, "relay start: attempt 11 of 11: waiting for the response");
    EXPECT_EQ(scenario.last("outcome").fields.at("attempts"), 11);
    EXPECT_EQ(scenario.exitStatus(), kNoResponse);
}

TEST(TaskSession, ARefusedStartDeterminesTheStatusWithoutAStop) {
    Scenario scenario;
    scenario.refuse(kAddRelay);

    EXPECT_EQ(scenario.exitStatus(), kRefused);
    EXPECT_EQ(scenario.stops(), 0);
    EXPECT_EQ(scenario.last("outcome").text, "relay start: failed, refused by the service");
    EXPECT_EQ(scenario.last("outcome").fields.at("listener")[0].at("serviceCode"), 7);
}

TEST(TaskSession, AnEmptyResponseNotifiesTwiceAndIsOneOutcome) {
    Scenario scenario;
    scenario.started(kAddRelay);
    scenario.responded(kAddRelay, 0, "");
    scenario.notified(kAddRelay, -3323, "recv message nil");
    scenario.notified(kAddRelay, -3323, "recv message can't parse");
    scenario.delivered(kAddRelay);
    scenario.reported();

    EXPECT_EQ(scenario.exitStatus(), kNoResponse);
    EXPECT_EQ(scenario.last("outcome").details.size(), 2u);
    EXPECT_THAT(scenario.events(), ElementsAre("attempt", "response", "outcome", "report"));
}

TEST(TaskSession, AResponseWithoutACodeEndsWithItsReport) {
    Scenario scenario;
    scenario.started(kAddRelay);
    scenario.ignored(kAddRelay, 0, "{}");
    scenario.reported();

    EXPECT_EQ(scenario.exitStatus(), kNoResponse);
    EXPECT_EQ(scenario.last("outcome").text, "relay start: failed, the response has no code");
    EXPECT_THAT(scenario.events(), ElementsAre("attempt", "response", "outcome", "report"));
}

TEST(TaskSession, AStartThatTheAdapterRefusesIsAnOutcome) {
    Scenario scenario;
    scenario.notified(kAddRelay, -3323, "startPublishStreamUrl failure, param is invalid");
    scenario.reported();

    EXPECT_EQ(scenario.exitStatus(), kNoResponse);
}

TEST(TaskSession, SplitsTheTraceOfAReportAtEachResponse) {
    Scenario scenario;
    scenario.notified(kAddRelay, 0, "sucess");
    scenario.reported("{body} [tryHttp:cnt-10]retCode:1, respData: [tryHttp:cnt-9]retCode:0, respData:{}");

    EXPECT_THAT(scenario.last("report").details, ElementsAre("information  information", "detail       {body}",
                                                             "             [tryHttp:cnt-10]retCode:1, respData:",
                                                             "             [tryHttp:cnt-9]retCode:0, respData:{}"));
}

// ---- Stopping -------------------------------------------------------------------------------------------------------

TEST(TaskSession, StopsARunningRelay) {
    Scenario scenario;
    scenario.succeed(kAddRelay);
    scenario.interrupt();
    EXPECT_EQ(scenario.stops(), 1);

    scenario.succeed(kRemoveRelay);

    EXPECT_EQ(scenario.exitStatus(), kSucceeded);
    EXPECT_EQ(scenario.last("outcome").text, "relay stop: done, the relay is stopped");
    EXPECT_EQ(scenario.last("report").fields.at("request"), "stop");
}

TEST(TaskSession, AFailedStopDeterminesTheStatus) {
    Scenario scenario;
    scenario.succeed(kAddRelay);
    scenario.interrupt();
    scenario.refuse(kRemoveRelay);

    EXPECT_EQ(scenario.exitStatus(), kRefused);
}

class StopDuringStart : public ::testing::TestWithParam<Lifetime> {};

TEST_P(StopDuringStart, WaitsForTheResponse) {
    Scenario scenario(GetParam());
    scenario.started(kAddRelay);
    scenario.interrupt();
    EXPECT_EQ(scenario.stops(), 0);

    scenario.accepted(kAddRelay);

    EXPECT_EQ(scenario.stops(), 1);
    EXPECT_EQ(scenario.exitStatus(), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(TaskSession, StopDuringStart, ::testing::Values(Lifetime::kHeld, Lifetime::kDetached));

TEST(TaskSession, AStartThatFailsAfterCtrlCDeterminesTheStatusWithoutAStop) {
    Scenario scenario;
    scenario.started(kAddRelay);
    scenario.interrupt();
    scenario.completed(kAddRelay, 1060, "{}", -3321, "http post return error");

    EXPECT_EQ(scenario.stops(), 0);
    EXPECT_EQ(scenario.exitStatus(), kNoResponse);
}

// The adapter would refuse to stop what it has not sent, and would notify through another operation.
TEST(TaskSession, AStartThatIsNotYetSentCompletesBeforeItIsStopped) {
    Scenario scenario;
    scenario.interrupt();
    EXPECT_EQ(scenario.stops(), 0);

    scenario.succeed(kAddRelay);

    EXPECT_EQ(scenario.stops(), 1);
}

TEST(TaskSession, AFailedAttemptIsFollowedByTheRequestedStopInsteadOfARetry) {
    Scenario scenario;
    scenario.started(kAddRelay);
    scenario.interrupt();
    scenario.ignored(kAddRelay, 1, "");

    EXPECT_EQ(scenario.stops(), 1);
}

TEST(TaskSession, ASecondCtrlCEndsTheSessionAtOnce) {
    Scenario scenario;
    scenario.succeed(kAddRelay);
    scenario.interrupt();
    scenario.interrupt();

    EXPECT_EQ(scenario.exitStatus(), kInterrupted);
    EXPECT_EQ(scenario.last("interrupted").text, "aborted on SIGINT; the relay may still be running");
    scenario.succeed(kRemoveRelay);
    EXPECT_THAT(scenario.events(),
                ElementsAre("attempt", "response", "outcome", "report", "holding", "stopping", "interrupted"));
}

// ---- A retry of the start that is sent although the stop has begun --------------------------------------------------

// Starts, fails once, and is stopped while the retry is scheduled.
class LateAttempt : public ::testing::Test {
protected:
    LateAttempt() {
        mScenario.failAttempt(kAddRelay);
        mScenario.interrupt();
    }

    Scenario mScenario;
};

TEST_F(LateAttempt, IsNotAwaited) {
    EXPECT_EQ(mScenario.stops(), 1);
    mScenario.succeed(kRemoveRelay);
    EXPECT_EQ(mScenario.exitStatus(), kSucceeded);
}

TEST_F(LateAttempt, IsShownAsIgnored) {
    mScenario.failAttempt(kAddRelay);

    EXPECT_EQ(mScenario.last("ignored").text,
              "relay start: attempt 2 of 11: response ignored, because the stop has begun");
    EXPECT_EQ(mScenario.exitStatus(), std::nullopt);
}

TEST_F(LateAttempt, NeedsNoSecondStopIfItEndsBeforeTheStopIsSent) {
    mScenario.failAttempt(kRemoveRelay);
    mScenario.failAttempt(kAddRelay);
    mScenario.succeed(kRemoveRelay);

    EXPECT_EQ(mScenario.stops(), 1);
    EXPECT_EQ(mScenario.exitStatus(), kSucceeded);
}

TEST_F(LateAttempt, IsStoppedAgainWhenItEndsAfterTheStop) {
    mScenario.started(kRemoveRelay);
    mScenario.started(kAddRelay);
    mScenario.accepted(kRemoveRelay);
    EXPECT_EQ(mScenario.stops(), 1);  // the late attempt is still in flight
    mScenario.ignored(kAddRelay, 0, kAccepted);

    EXPECT_EQ(mScenario.stops(), 2);
    mScenario.succeed(kRemoveRelay);
    EXPECT_EQ(mScenario.exitStatus(), kSucceeded);
}

TEST_F(LateAttempt, IsStoppedAgainIfTheStopWasRefused) {
    mScenario.started(kRemoveRelay);
    mScenario.started(kAddRelay);
    mScenario.ignored(kAddRelay, 0, kAccepted);
    mScenario.refused(kRemoveRelay);

    EXPECT_EQ(mScenario.stops(), 2);
    mScenario.succeed(kRemoveRelay);
    EXPECT_EQ(mScenario.exitStatus(), kSucceeded);
}

TEST_F(LateAttempt, NeedsNoSecondStopIfItWasRefused) {
    mScenario.started(kRemoveRelay);
    mScenario.started(kAddRelay);
    mScenario.ignored(kAddRelay, 0, kRefusal);
    mScenario.accepted(kRemoveRelay);

    EXPECT_EQ(mScenario.stops(), 1);
    EXPECT_EQ(mScenario.exitStatus(), kSucceeded);
}

// ---- Updates --------------------------------------------------------------------------------------------------------

class WatchedMix : public ::testing::Test {
protected:
    Scenario mScenario{Lifetime::kWatched, kMixTask};
};

TEST_F(WatchedMix, AnUpdateOfARunningMixIsSentAtOnce) {
    mScenario.succeed(kStartMix);
    mScenario.request("second");
    EXPECT_THAT(mScenario.starts(), ElementsAre("first", "second"));
    mScenario.succeed(kStartMix);

    EXPECT_EQ(mScenario.last("outcome").text, "mix update: done, the mix is running");
    EXPECT_EQ(mScenario.last("attempt").fields.at("attempt"), 1);
    EXPECT_EQ(mScenario.last("report").fields.at("request"), "update");
    EXPECT_EQ(mScenario.exitStatus(), std::nullopt);
}

TEST_F(WatchedMix, OnlyTheNewestUpdateWaitsForAnAttemptInFlight) {
    mScenario.started(kStartMix);
    mScenario.request("second");
    mScenario.request("third");
    mScenario.responded(kStartMix, 0, kAccepted);
    mScenario.notified(kStartMix, 0, "sucess");
    mScenario.delivered(kStartMix);
    EXPECT_THAT(mScenario.starts(), ElementsAre("first"));  // the report is missing

    mScenario.reported();

    EXPECT_THAT(mScenario.starts(), ElementsAre("first", "third"));
    EXPECT_EQ(mScenario.events().back(), "report");  // not "holding" in between
}

TEST_F(WatchedMix, AnUpdateWaitsForAStartThatIsNotYetSent) {
    mScenario.request("second");

    EXPECT_THAT(mScenario.starts(), ElementsAre("first"));
}

TEST_F(WatchedMix, AnUpdateBetweenTwoAttemptsReplacesTheStart) {
    mScenario.failAttempt(kStartMix);
    mScenario.request("second");

    EXPECT_THAT(mScenario.starts(), ElementsAre("first", "second"));
    EXPECT_EQ(mScenario.last("superseded").fields.at("request"), "start");
    mScenario.succeed(kStartMix);
    EXPECT_EQ(mScenario.last("outcome").fields.at("request"), "start");  // no mix was running
    EXPECT_EQ(mScenario.last("outcome").fields.at("attempts"), 1);
}

TEST_F(WatchedMix, AnUpdateIsSentAgainAfterALateAttemptOfItsPredecessor) {
    mScenario.failAttempt(kStartMix);
    mScenario.request("second");
    const uint64_t late = mScenario.started(kStartMix);
    const uint64_t own = mScenario.started(kStartMix);
    mScenario.respondedTo(late, 0, kAccepted);
    mScenario.notified(kStartMix, 0, "sucess");
    mScenario.deliveredTo(late);
    mScenario.reported();
    EXPECT_THAT(mScenario.starts(), ElementsAre("first", "second"));
    mScenario.respondedTo(own, 0, kAccepted);
    mScenario.notified(kStartMix, 0, "sucess");
    mScenario.deliveredTo(own);

    EXPECT_THAT(mScenario.starts(), ElementsAre("first", "second", "second"));
    mScenario.reported();  // of the superseded second start
    EXPECT_EQ(mScenario.last("report").fields.at("request"), "update");
    mScenario.succeed(kStartMix);
    EXPECT_EQ(mScenario.events().back(), "holding");
    EXPECT_THAT(mScenario.starts(), ElementsAre("first", "second", "second"));
}

TEST_F(WatchedMix, ARefusedUpdateDoesNotEndTheMix) {
    mScenario.succeed(kStartMix);
    mScenario.request("second");
    mScenario.refuse(kStartMix);

    EXPECT_EQ(mScenario.last("outcome").text, "mix update: failed, refused by the service");
    EXPECT_EQ(mScenario.events().back(), "holding");
    mScenario.interrupt();
    mScenario.succeed(kCancelMix);
    EXPECT_EQ(mScenario.last("outcome").text, "mix cancel: done, the mix is cancelled");
    EXPECT_EQ(mScenario.exitStatus(), kSucceeded);
}

TEST_F(WatchedMix, AFailedStartWaitsForAnotherOne) {
    mScenario.refuse(kStartMix);
    EXPECT_EQ(mScenario.exitStatus(), std::nullopt);
    EXPECT_EQ(mScenario.last("waiting").text, "the mix is not running; saved changes are sent; Ctrl-C exits");

    mScenario.request("second");
    mScenario.succeed(kStartMix);

    EXPECT_EQ(mScenario.last("outcome").text, "mix start: done, the mix is running");
    EXPECT_EQ(mScenario.events().back(), "holding");
}

TEST_F(WatchedMix, AFailedStartDeterminesTheStatusWithoutACancel) {
    mScenario.refuse(kStartMix);
    mScenario.interrupt();

    EXPECT_EQ(mScenario.stops(), 0);
    EXPECT_EQ(mScenario.exitStatus(), kRefused);
}

TEST_F(WatchedMix, ACancelWaitsForTheUpdateInFlightAndDropsThePendingOne) {
    mScenario.succeed(kStartMix);
    mScenario.request("second");
    mScenario.started(kStartMix);
    mScenario.request("third");
    mScenario.interrupt();
    EXPECT_EQ(mScenario.stops(), 0);

    mScenario.ignored(kStartMix, 1, "");

    EXPECT_EQ(mScenario.stops(), 1);
    EXPECT_THAT(mScenario.starts(), ElementsAre("first", "second"));
    mScenario.succeed(kCancelMix);
    EXPECT_EQ(mScenario.exitStatus(), kSucceeded);
}

TEST_F(WatchedMix, NoUpdateIsAcceptedAfterTheCancelHasBegun) {
    mScenario.succeed(kStartMix);
    mScenario.interrupt();
    mScenario.request("second");
    mScenario.succeed(kCancelMix);

    EXPECT_THAT(mScenario.starts(), ElementsAre("first"));
    EXPECT_EQ(mScenario.exitStatus(), kSucceeded);
}

TEST(TaskSession, AFailedStartEndsAHeldMix) {
    Scenario scenario(Lifetime::kHeld, kMixTask);
    scenario.started(kStartMix);
    scenario.completed(kStartMix, 0, "nonsense", -3324, "recv message can't parse");

    EXPECT_EQ(scenario.exitStatus(), kNoResponse);
}

// ---- Two sessions side by side --------------------------------------------------------------------------------------

TEST(TaskSession, IgnoresEventsOfTheOtherTaskType) {
    std::vector<OutputEntry> entries;
    TaskSession session(
        kMixTask, Lifetime::kHeld, [] {}, [&entries](OutputEntry entry) { entries.push_back(std::move(entry)); });
    session.start([] {});
    for (const auto phase : {HttpExchange::kStarted, HttpExchange::kCompleted, HttpExchange::kDelivered}) {
        ExchangeEvent event{};
        event.phase = phase;
        event.kind = kAddRelay;
        event.response = kAccepted;
        session.on(event);
    }
    session.on(ListenerEvent{kAddRelay, {0, "sucess"}});
    session.on(EventReport{1400000001, "4711_alice", 10004, requests::kRelay.reportEvent, "information", "detail"});

    EXPECT_TRUE(entries.empty());
}

}  // namespace
