#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/TaskSession.h"

namespace {

using namespace vexalive;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using Lifetime = TaskSession::Lifetime;

constexpr const char* kAccepted = R"({"code":0,"message":"ok"})";
constexpr const char* kRefusal = R"({"code":7,"message":"no"})";

enum Request { kStart, kStop };

// Feeds a session with events. The journal lists the events that the session emits, its calls of the adapter (such as
// "first()" and "stop()") and its exit status.
class Scenario {
public:
    // The constructor requests the start "first", which the journal omits.
    explicit Scenario(Lifetime lifetime = Lifetime::kHeld, const TaskType& type = kRelayTask)
        : mType(type),
          mSession(
              type, lifetime, [this] { log("stop()"); },
              [this](OutputEntry entry) {
                  log(entry.fields.at("event"));
                  mEntries.push_back(std::move(entry));
              }) {
        request("first");
        EXPECT_EQ(std::exchange(mJournal, ""), "first()");
    }

    // The following functions return the scenario, so that a test can chain them.
    Scenario& request(const std::string& name) {
        mSession.start([this, name] { log(name + "()"); });
        return *this;
    }
    Scenario& interrupt() {
        mSession.requestStop("SIGINT");
        return *this;
    }
    Scenario& on(const SdkEvent& event) {
        mSession.handle(event);
        return *this;
    }
    Scenario& started(Request request) {
        ExchangeEvent event = exchange(HttpExchange::kStarted, ++mLastId);
        event.kind = kindOf(request);
        mOpen[request] = event.id;
        return on(event);
    }
    Scenario& responded(uint64_t id, int retCode, const std::string& body) {
        ExchangeEvent event = exchange(HttpExchange::kCompleted, id);
        event.retCode = retCode;
        event.response = body;
        return on(event);
    }
    Scenario& notified(Request request, int code, const std::string& message) {
        return on(ListenerEvent{kindOf(request), {code, message}});
    }
    Scenario& delivered(uint64_t id) { return on(exchange(HttpExchange::kDelivered, id)); }
    Scenario& reported(const std::string& trace = "trace") {
        return on(EventReport{1400000001, "4711_alice", 10004, mType.family.reportEvent, "information", trace});
    }

    // Completes a started exchange with a final response: the listener is notified, and a report follows.
    Scenario& completed(Request request, int retCode, const std::string& body, int code, const std::string& message) {
        const uint64_t id = mOpen[request];
        return responded(id, retCode, body).notified(request, code, message).delivered(id).reported();
    }
    Scenario& accepted(Request request) { return completed(request, 0, kAccepted, 0, "sucess"); }
    Scenario& refused(Request request) {
        return completed(request, 0, kRefusal, mType.family.codes.serverErrorBase - 7, "no");
    }
    // Completes a started exchange with a response that is retried or stale: the listener is not notified.
    Scenario& ignored(Request request, int retCode, const std::string& body) {
        return responded(mOpen[request], retCode, body).delivered(mOpen[request]);
    }

    // Complete exchanges, from the send to the end.
    Scenario& failAttempt(Request request) { return started(request).ignored(request, 1, ""); }
    Scenario& succeed(Request request) { return started(request).accepted(request); }
    Scenario& refuse(Request request) { return started(request).refused(request); }

    std::string journal() const {
        const auto status = mSession.exitStatus();
        return status ? mJournal + " exit=" + std::to_string(*status) : mJournal;
    }
    const OutputEntry& last(const std::string& event) const {
        const auto found = std::find_if(mEntries.rbegin(), mEntries.rend(),
                                        [&](const OutputEntry& each) { return each.fields.at("event") == event; });
        return found == mEntries.rend() ? throw std::runtime_error("no entry " + event) : *found;
    }

private:
    static ExchangeEvent exchange(HttpExchange::Phase phase, uint64_t id) {
        ExchangeEvent event{};
        event.phase = phase;
        event.id = id;
        return event;
    }
    void log(const std::string& event) { mJournal += (mJournal.empty() ? "" : " ") + event; }
    requests::Kind kindOf(Request request) const { return request == kStart ? mType.startKind : mType.stopKind; }

    const TaskType& mType;
    std::string mJournal;
    std::vector<OutputEntry> mEntries;
    uint64_t mLastId = 0;
    std::map<Request, uint64_t> mOpen;
    TaskSession mSession;
};

// ---- Without interruption -------------------------------------------------------------------------------------------

TEST(TaskSession, HoldsAfterTheReportOfASuccessfulStart) {
    Scenario scenario;
    scenario.started(kStart).responded(1, 0, kAccepted).notified(kStart, 0, "sucess").delivered(1);
    EXPECT_EQ(scenario.journal(), "attempt response outcome");
    EXPECT_EQ(scenario.reported().journal(), "attempt response outcome report holding");
}

TEST(TaskSession, AReportBeforeTheDeliveryFollowsTheOutcome) {
    Scenario scenario;
    scenario.started(kStart).responded(1, 0, kRefusal).notified(kStart, -200007, "no").reported();
    EXPECT_EQ(scenario.journal(), "attempt response outcome report");
    EXPECT_EQ(scenario.delivered(1).journal(), "attempt response outcome report exit=1");
}

TEST(TaskSession, EndsAfterASuccessfulStartIfDetached) {
    Scenario scenario(Lifetime::kDetached);
    EXPECT_EQ(scenario.succeed(kStart).journal(), "attempt response outcome report detached exit=0");
    EXPECT_EQ(scenario.last("detached").text, "the relay keeps running");
}

TEST(TaskSession, CountsAttemptsAndAnnouncesThePauses) {
    Scenario scenario;
    std::vector<int> pauses;
    for (int attempt = 1; attempt <= 10; ++attempt) {
        scenario.failAttempt(kStart);
        EXPECT_EQ(scenario.last("attempt").fields.at("attempt"), attempt);
        EXPECT_EQ(scenario.last("retry").fields.at("attempt"), attempt + 1);
        pauses.push_back(scenario.last("retry").fields.at("waitMilliseconds"));
    }
    EXPECT_THAT(pauses, ElementsAre(1000, 1000, 2000, 2000, 2000, 5000, 5000, 5000, 5000, 5000));

    scenario.started(kStart).completed(kStart, 1, "", -3321, "http post return error");
    EXPECT_EQ(scenario.last("attempt").text, "relay start: attempt 11 of 11: waiting for the response");
    EXPECT_EQ(scenario.last("outcome").fields.at("attempts"), 11);
    EXPECT_THAT(scenario.journal(), EndsWith("attempt response outcome report exit=3"));
}

TEST(TaskSession, ARefusedStartDeterminesTheStatusWithoutAStop) {
    Scenario scenario;
    EXPECT_EQ(scenario.refuse(kStart).journal(), "attempt response outcome report exit=1");
    EXPECT_EQ(scenario.last("outcome").text, "relay start: failed, refused by the service");
    EXPECT_EQ(scenario.last("outcome").fields.at("success"), false);
    EXPECT_EQ(scenario.last("outcome").fields.at("listener").dump(),
              R"([{"code":-200007,"message":"no","serviceCode":7}])");
    const auto response = scenario.last("response").fields;
    EXPECT_EQ(response.at("returnCode"), 0);
    EXPECT_EQ(response.at("code"), 7);
    EXPECT_EQ(response.at("message"), "no");
}

TEST(TaskSession, AnEmptyResponseNotifiesTwiceAndIsOneOutcome) {
    Scenario scenario;
    scenario.started(kStart).responded(1, 0, "").notified(kStart, -3323, "recv message nil");
    scenario.notified(kStart, -3323, "recv message can't parse").delivered(1).reported();
    EXPECT_EQ(scenario.journal(), "attempt response outcome report exit=3");
    EXPECT_EQ(scenario.last("outcome").details.size(), 2u);
}

TEST(TaskSession, AResponseWithoutACodeEndsWithItsReport) {
    Scenario scenario;
    scenario.started(kStart).ignored(kStart, 0, "{}").reported();
    EXPECT_EQ(scenario.journal(), "attempt response outcome report exit=3");
    EXPECT_EQ(scenario.last("outcome").text, "relay start: failed, the response has no code");
}

TEST(TaskSession, AStartThatTheAdapterRefusesIsAnOutcome) {
    Scenario scenario;
    scenario.notified(kStart, -3323, "startPublishStreamUrl failure, param is invalid").reported();
    EXPECT_EQ(scenario.journal(), "outcome report exit=3");
}

TEST(TaskSession, SplitsTheTraceOfAReportAtEachResponse) {
    Scenario scenario;
    scenario.notified(kStart, 0, "sucess");
    scenario.reported("{body} [tryHttp:cnt-10]retCode:1, respData: [tryHttp:cnt-9]retCode:0, respData:{}");
    EXPECT_THAT(scenario.last("report").details, ElementsAre("information  information", "detail       {body}",
                                                             "             [tryHttp:cnt-10]retCode:1, respData:",
                                                             "             [tryHttp:cnt-9]retCode:0, respData:{}"));
}

// ---- Stopping -------------------------------------------------------------------------------------------------------

TEST(TaskSession, StopsARunningRelay) {
    Scenario scenario;
    scenario.succeed(kStart).interrupt().succeed(kStop);
    EXPECT_EQ(scenario.journal(),
              "attempt response outcome report holding stopping stop() attempt response outcome report exit=0");
    EXPECT_EQ(scenario.last("outcome").text, "relay stop: done, the relay is stopped");
    EXPECT_EQ(scenario.last("report").fields.at("request"), "stop");
}

TEST(TaskSession, AFailedStopDeterminesTheStatus) {
    Scenario scenario;
    scenario.succeed(kStart).interrupt().refuse(kStop);
    EXPECT_THAT(scenario.journal(), EndsWith("stop() attempt response outcome report exit=1"));
}

TEST(StopDuringStart, WaitsForTheResponse) {
    for (const Lifetime lifetime : {Lifetime::kHeld, Lifetime::kDetached}) {
        Scenario scenario(lifetime);
        scenario.failAttempt(kStart).started(kStart).interrupt().accepted(kStart);
        EXPECT_EQ(scenario.journal(), "attempt response retry attempt stopping response outcome report stop()");
    }
}

TEST(StopDuringStart, AFailedStartDeterminesTheStatusWithoutAStop) {
    Scenario scenario;
    scenario.started(kStart).interrupt().completed(kStart, 1060, "{}", -3321, "http post return error");
    EXPECT_EQ(scenario.journal(), "attempt stopping response outcome report exit=3");
}

// The adapter would refuse to stop a start that it has not sent. Intended: the interface prescribes that another
// operation's listener call reports this refusal.
TEST(StopDuringStart, AStartThatIsNotYetSentCompletesBeforeItIsStopped) {
    Scenario scenario;
    EXPECT_EQ(scenario.interrupt().succeed(kStart).journal(), "stopping attempt response outcome report stop()");
}

TEST(StopDuringStart, AFailedAttemptIsFollowedByTheStopInsteadOfARetry) {
    Scenario scenario;
    scenario.started(kStart).interrupt().ignored(kStart, 1, "");
    EXPECT_EQ(scenario.journal(), "attempt stopping response retry stop()");
}

TEST(TaskSession, ASecondCtrlCEndsTheSessionAtOnce) {
    Scenario scenario;
    scenario.succeed(kStart).interrupt().interrupt().succeed(kStop);
    EXPECT_EQ(scenario.journal(), "attempt response outcome report holding stopping stop() interrupted exit=130");
    EXPECT_EQ(scenario.last("interrupted").text, "aborted on SIGINT; the relay may still be running");
}

// ---- A retry of the start that is sent although the stop has begun --------------------------------------------------

// The start has failed once and is stopped while its retry is scheduled. The retry is the late attempt.
class LateAttempt : public ::testing::Test {
protected:
    LateAttempt() { mScenario.failAttempt(kStart).interrupt(); }

    void expectJournal(const std::string& afterTheStop) {
        EXPECT_EQ(mScenario.journal(), "attempt response retry stopping stop() " + afterTheStop);
    }

    Scenario mScenario;
};

TEST_F(LateAttempt, IsNotAwaited) {
    mScenario.succeed(kStop);
    expectJournal("attempt response outcome report exit=0");
}

TEST_F(LateAttempt, IsShownAsIgnored) {
    mScenario.failAttempt(kStart);
    expectJournal("attempt response ignored");
    EXPECT_EQ(mScenario.last("ignored").text,
              "relay start: attempt 2 of 11: response ignored, because the stop has begun");
}

TEST_F(LateAttempt, NeedsNoSecondStopIfItEndsBeforeTheStopIsSent) {
    mScenario.failAttempt(kStop).failAttempt(kStart).succeed(kStop);
    expectJournal("attempt response retry attempt response ignored attempt response outcome report exit=0");
}

TEST_F(LateAttempt, IsStoppedAgainWhenItEndsAfterTheStop) {
    mScenario.started(kStop).started(kStart).accepted(kStop).ignored(kStart, 0, kAccepted).succeed(kStop);
    expectJournal(
        "attempt attempt response outcome report response ignored stopping stop() "
        "attempt response outcome report exit=0");
}

TEST_F(LateAttempt, IsStoppedAgainIfTheStopWasRefused) {
    mScenario.started(kStop).started(kStart).ignored(kStart, 0, kAccepted).refused(kStop).succeed(kStop);
    expectJournal(
        "attempt attempt response ignored response outcome report stopping stop() "
        "attempt response outcome report exit=0");
}

TEST_F(LateAttempt, NeedsNoSecondStopIfItWasRefused) {
    mScenario.started(kStop).started(kStart).ignored(kStart, 0, kRefusal).accepted(kStop);
    expectJournal("attempt attempt response ignored response outcome report exit=0");
}

// ---- Updates --------------------------------------------------------------------------------------------------------

class WatchedMix : public ::testing::Test {
protected:
    Scenario mScenario{Lifetime::kWatched, kMixTask};
};

TEST_F(WatchedMix, AnUpdateOfARunningMixIsSentAtOnce) {
    mScenario.succeed(kStart).request("second").succeed(kStart);
    EXPECT_EQ(mScenario.journal(),
              "attempt response outcome report holding second() attempt response outcome report holding");
    EXPECT_EQ(mScenario.last("outcome").text, "mix update: done, the mix is running");
    EXPECT_EQ(mScenario.last("attempt").fields.at("attempt"), 1);
    EXPECT_EQ(mScenario.last("report").fields.at("request"), "update");
}

TEST_F(WatchedMix, OnlyTheNewestUpdateWaitsForAnAttemptInFlightAndItsReport) {
    mScenario.started(kStart).request("second").request("third").accepted(kStart);
    EXPECT_EQ(mScenario.journal(), "attempt response outcome report third()");
}

TEST_F(WatchedMix, AnUpdateWaitsForAStartThatIsNotYetSent) {
    mScenario.request("second").started(kStart);
    EXPECT_EQ(mScenario.journal(), "attempt");
}

TEST_F(WatchedMix, AnUpdateBetweenTwoAttemptsReplacesTheStart) {
    mScenario.failAttempt(kStart).request("second").succeed(kStart);
    EXPECT_EQ(mScenario.journal(),
              "attempt response retry superseded second() attempt response outcome report holding");
    EXPECT_EQ(mScenario.last("superseded").fields.at("request"), "start");
    EXPECT_EQ(mScenario.last("outcome").fields.at("request"), "start");  // not "update": no mix was running
    EXPECT_EQ(mScenario.last("outcome").fields.at("attempts"), 1);
}

TEST_F(WatchedMix, AnUpdateIsSentAgainAfterALateAttemptOfItsPredecessor) {
    constexpr uint64_t kLate = 2;
    constexpr uint64_t kOwn = 3;
    mScenario.failAttempt(kStart).request("second").started(kStart).started(kStart);
    mScenario.responded(kLate, 0, kAccepted).notified(kStart, 0, "sucess").delivered(kLate).reported();
    mScenario.responded(kOwn, 0, kAccepted).notified(kStart, 0, "sucess").delivered(kOwn);
    EXPECT_THAT(mScenario.journal(),
                EndsWith("second() attempt attempt response outcome report response again second()"));

    mScenario.reported();  // the report of the first call of second()
    EXPECT_EQ(mScenario.last("report").fields.at("request"), "update");
    EXPECT_THAT(mScenario.succeed(kStart).journal(),
                EndsWith("again second() report attempt response outcome report holding"));
}

TEST_F(WatchedMix, ARefusedUpdateDoesNotEndTheMix) {
    mScenario.succeed(kStart).request("second").refuse(kStart);
    EXPECT_EQ(mScenario.last("outcome").text, "mix update: failed, refused by the service");
    EXPECT_THAT(mScenario.journal(), EndsWith("second() attempt response outcome report holding"));

    mScenario.interrupt().succeed(kStop);
    EXPECT_EQ(mScenario.last("outcome").text, "mix cancel: done, the mix is cancelled");
    EXPECT_THAT(mScenario.journal(), EndsWith("stopping stop() attempt response outcome report exit=0"));
}

TEST_F(WatchedMix, AFailedStartWaitsForAnotherOne) {
    mScenario.refuse(kStart).request("second").succeed(kStart);
    EXPECT_EQ(mScenario.journal(),
              "attempt response outcome report waiting second() attempt response outcome report holding");
    EXPECT_EQ(mScenario.last("waiting").text, "the mix is not running; saved changes are sent; Ctrl-C exits");
    EXPECT_EQ(mScenario.last("outcome").text, "mix start: done, the mix is running");
}

TEST_F(WatchedMix, AFailedStartDeterminesTheStatusWithoutACancel) {
    mScenario.refuse(kStart).interrupt();
    EXPECT_EQ(mScenario.journal(), "attempt response outcome report waiting stopping exit=1");
}

TEST_F(WatchedMix, ACancelWaitsForTheUpdateInFlightAndDropsThePendingOne) {
    mScenario.succeed(kStart).request("second").started(kStart).request("third").interrupt();
    mScenario.ignored(kStart, 1, "").succeed(kStop);
    EXPECT_THAT(mScenario.journal(),
                EndsWith("second() attempt stopping response retry stop() attempt response outcome report exit=0"));
}

TEST_F(WatchedMix, NoUpdateIsAcceptedAfterTheCancelHasBegun) {
    mScenario.succeed(kStart).interrupt().request("second").succeed(kStop);
    EXPECT_THAT(mScenario.journal(), EndsWith("holding stopping stop() attempt response outcome report exit=0"));
}

TEST(TaskSession, AFailedStartEndsAHeldMix) {
    Scenario scenario(Lifetime::kHeld, kMixTask);
    scenario.started(kStart).completed(kStart, 0, "nonsense", -3324, "recv message can't parse");
    EXPECT_EQ(scenario.journal(), "attempt response outcome report exit=3");
}

// ---- Two sessions side by side --------------------------------------------------------------------------------------

TEST(TaskSession, IgnoresEventsOfTheOtherTaskType) {
    Scenario scenario(Lifetime::kHeld, kMixTask);
    for (const auto phase : {HttpExchange::kStarted, HttpExchange::kCompleted, HttpExchange::kDelivered}) {
        ExchangeEvent event{};
        event.phase = phase;
        event.kind = requests::kAddRelay;
        event.response = kAccepted;
        scenario.on(event);
    }
    scenario.on(ListenerEvent{requests::kAddRelay, {0, "sucess"}});
    scenario.on(EventReport{1400000001, "4711_alice", 10004, requests::kRelay.reportEvent, "information", "detail"});
    EXPECT_EQ(scenario.journal(), "");
}

}  // namespace
