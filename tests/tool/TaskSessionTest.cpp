// What a command does about each course that a relay or a mix can take.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/TaskSession.h"

namespace {

using namespace vexalive;
using ::testing::ElementsAre;
using Lifetime = TaskSession::Lifetime;

constexpr Operation kAdd = Operation::kStartRelay;
constexpr Operation kRemove = Operation::kStopRelay;
constexpr Operation kSet = Operation::kStartMix;
constexpr Operation kCancel = Operation::kStopMix;
constexpr const char* kAccepted = R"({"code":0,"message":"ok"})";
constexpr const char* kRefusal = R"({"code":7,"message":"no"})";

bool isOfRelay(Operation operation) {
    return operation == kAdd || operation == kRemove;
}

// Tells a session a story and keeps what it shows. The start has been asked for when it begins.
class Story {
public:
    explicit Story(Lifetime lifetime = Lifetime::kHeld, const TaskFamily& family = kRelayFamily)
        : mReportEvent(family.reportEvent),
          mSession(
              family, lifetime, [this] { ++mStops; },
              [this](OutputEntry entry) { mEntries.push_back(std::move(entry)); }) {
        asked("first");
    }

    // The user asks for a start or an update that can be told by its name.
    void asked(const std::string& name) {
        mSession.start([this, name] { mStarts.push_back(name); });
    }
    void interrupted() { mSession.onStopAsked("SIGINT"); }

    uint64_t started(Operation operation) {
        ExchangeEvent event{};
        event.phase = HttpExchange::kStarted;
        event.id = ++mLastId;
        event.operation = operation;
        event.bytesSent = 268;
        mSession.on(event);
        return mOpen[operation] = event.id;
    }
    void answered(Operation operation, int retCode, const std::string& answer) {
        answeredTo(mOpen[operation], retCode, answer);
    }
    void delivered(Operation operation) { deliveredTo(mOpen[operation]); }
    void answeredTo(uint64_t id, int retCode, const std::string& answer) {
        ExchangeEvent event{};
        event.phase = HttpExchange::kCompleted;
        event.id = id;
        event.retCode = retCode;
        event.answer = answer;
        event.elapsed = std::chrono::milliseconds(3);
        mSession.on(event);
    }
    void deliveredTo(uint64_t id) {
        ExchangeEvent event{};
        event.phase = HttpExchange::kDelivered;
        event.id = id;
        mSession.on(event);
    }
    void told(Operation operation, int code, const std::string& message) {
        mSession.on(ListenerEvent{operation, {code, message}});
    }
    void reported() {
        mSession.on(EventReport{1400000001, "4711_alice", 10004, mReportEvent, "information", "detail"});
    }

    // A whole exchange that the adapter tries again.
    void failed(Operation operation) {
        started(operation);
        answered(operation, 1, "");
        delivered(operation);
    }

    // A whole exchange that ends the start, or the stop.
    void ended(Operation operation, int retCode, const std::string& answer, int listenerCode,
               const std::string& message) {
        started(operation);
        answered(operation, retCode, answer);
        told(operation, listenerCode, message);
        reported();
        delivered(operation);
    }
    void succeeded(Operation operation) { ended(operation, 0, kAccepted, 0, "sucess"); }
    void refused(Operation operation) { ended(operation, 0, kRefusal, isOfRelay(operation) ? -200007 : -300007, "no"); }

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
    TaskSession& session() { return mSession; }

private:
    const int mReportEvent;
    int mStops = 0;
    std::vector<std::string> mStarts;
    std::vector<OutputEntry> mEntries;
    uint64_t mLastId = 0;
    std::map<Operation, uint64_t> mOpen;  // the last exchange of each
    TaskSession mSession;
};

// ---- Without interruption -------------------------------------------------------------------------------------------

TEST(TaskSession, HoldsAfterASuccessfulStart) {
    Story story;
    story.succeeded(kAdd);

    EXPECT_EQ(story.exitStatus(), std::nullopt);
    EXPECT_EQ(story.stops(), 0);
    EXPECT_THAT(story.events(), ElementsAre("attempt", "answer", "outcome", "report", "holding"));
}

TEST(TaskSession, AReportThatOvertakesTheClientShowsTheOutcomeFirst) {
    Story story;
    story.started(kAdd);
    story.answered(kAdd, 0, kRefusal);
    story.told(kAdd, -200007, "no");
    story.reported();
    EXPECT_THAT(story.events(), ElementsAre("attempt", "answer", "outcome", "report"));

    story.delivered(kAdd);

    EXPECT_THAT(story.events(), ElementsAre("attempt", "answer", "outcome", "report"));
}

TEST(TaskSession, HoldsOnlyOnceTheReportIsThere) {
    Story story;
    story.started(kAdd);
    story.answered(kAdd, 0, kAccepted);
    story.told(kAdd, 0, "sucess");
    story.delivered(kAdd);
    EXPECT_THAT(story.events(), ElementsAre("attempt", "answer", "outcome"));

    story.reported();

    EXPECT_THAT(story.events(), ElementsAre("attempt", "answer", "outcome", "report", "holding"));
}

TEST(TaskSession, EndsAfterASuccessfulStartIfDetached) {
    Story story(Lifetime::kDetached);
    story.succeeded(kAdd);

    EXPECT_EQ(story.exitStatus(), kSucceeded);
    EXPECT_EQ(story.stops(), 0);
    EXPECT_EQ(story.last("detached").text, "the relay is left running");
}

TEST(TaskSession, CountsAttemptsAndAnnouncesThePauses) {
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

    EXPECT_EQ(story.last("attempt").text, "relay start: attempt 11 of 11: waiting for the answer");
    EXPECT_EQ(story.last("outcome").fields.at("attempts"), 11);
    EXPECT_EQ(story.exitStatus(), kNoAnswer);
}

TEST(TaskSession, ARefusedStartGivesItsStatusWithoutAStop) {
    Story story;
    story.refused(kAdd);

    EXPECT_EQ(story.exitStatus(), kRefused);
    EXPECT_EQ(story.stops(), 0);
    EXPECT_EQ(story.last("outcome").text, "relay start: failed, refused by the service");
    EXPECT_EQ(story.last("outcome").fields.at("listener")[0].at("serviceCode"), 7);
}

TEST(TaskSession, AnEmptyAnswerIsToldTwiceAndIsOneOutcome) {
    Story story;
    story.started(kAdd);
    story.answered(kAdd, 0, "");
    story.told(kAdd, -3323, "recv message nil");
    story.told(kAdd, -3323, "recv message can't parse");
    story.delivered(kAdd);
    story.reported();

    EXPECT_EQ(story.exitStatus(), kNoAnswer);
    EXPECT_EQ(story.last("outcome").details.size(), 2u);
    EXPECT_THAT(story.events(), ElementsAre("attempt", "answer", "outcome", "report"));
}

TEST(TaskSession, AnAnswerWithoutAVerdictEndsWithItsReport) {
    Story story;
    story.started(kAdd);
    story.answered(kAdd, 0, "{}");
    story.delivered(kAdd);
    story.reported();

    EXPECT_EQ(story.exitStatus(), kNoAnswer);
    EXPECT_EQ(story.last("outcome").text, "relay start: failed, the answer tells no outcome");
    EXPECT_THAT(story.events(), ElementsAre("attempt", "answer", "outcome", "report"));
}

TEST(TaskSession, AStartRefusedBeforeItIsSentIsAnOutcomeToo) {
    Story story;
    story.told(kAdd, -3323, "startPublishStreamUrl failure, param is invalid");
    story.reported();

    EXPECT_EQ(story.exitStatus(), kNoAnswer);
}

TEST(TaskSession, SplitsTheReportsTraceIntoALineForEachAnswer) {
    std::vector<OutputEntry> entries;
    TaskSession session(
        kRelayFamily, Lifetime::kDetached, [] {},
        [&entries](OutputEntry entry) { entries.push_back(std::move(entry)); });
    session.start([] {});
    session.on(ListenerEvent{kAdd, {0, "sucess"}});
    session.on(EventReport{1, "r_u", 10004, 30, "info",
                           "{body} [tryHttp:cnt-10]retCode:1, respData: [tryHttp:cnt-9]retCode:0, respData:{}"});

    ASSERT_EQ(entries.size(), 3u);  // outcome, report, detached
    EXPECT_THAT(entries[1].details, ElementsAre("information  info", "detail       {body}",
                                                "             [tryHttp:cnt-10]retCode:1, respData:",
                                                "             [tryHttp:cnt-9]retCode:0, respData:{}"));
}

// ---- Stopping -------------------------------------------------------------------------------------------------------

TEST(TaskSession, StopsARunningRelay) {
    Story story;
    story.succeeded(kAdd);
    story.interrupted();
    EXPECT_EQ(story.stops(), 1);

    story.succeeded(kRemove);

    EXPECT_EQ(story.exitStatus(), kSucceeded);
    EXPECT_EQ(story.last("outcome").text, "relay stop: done, the relay is stopped");
    EXPECT_EQ(story.last("report").fields.at("request"), "stop");
}

TEST(TaskSession, AFailedStopGivesTheStatus) {
    Story story;
    story.succeeded(kAdd);
    story.interrupted();
    story.refused(kRemove);

    EXPECT_EQ(story.exitStatus(), kRefused);
}

TEST(TaskSession, AStartUnderWayIsAnsweredBeforeItIsStopped) {
    Story story;
    story.started(kAdd);
    story.interrupted();
    EXPECT_EQ(story.stops(), 0);

    story.answered(kAdd, 0, kAccepted);
    story.told(kAdd, 0, "sucess");
    story.delivered(kAdd);
    story.reported();

    EXPECT_EQ(story.stops(), 1);
    EXPECT_EQ(story.exitStatus(), std::nullopt);
}

TEST(TaskSession, AStartThatFailsAfterCtrlCGivesItsStatusWithoutAStop) {
    Story story;
    story.started(kAdd);
    story.interrupted();
    story.answered(kAdd, 1060, "{}");
    story.told(kAdd, -3321, "http post return error");
    story.delivered(kAdd);
    story.reported();

    EXPECT_EQ(story.stops(), 0);
    EXPECT_EQ(story.exitStatus(), kNoAnswer);
}

TEST(TaskSession, AStartUnderWayIsStoppedAfterADetachedStartToo) {
    Story story(Lifetime::kDetached);
    story.started(kAdd);
    story.interrupted();
    story.answered(kAdd, 0, kAccepted);
    story.told(kAdd, 0, "sucess");
    story.delivered(kAdd);
    story.reported();

    EXPECT_EQ(story.stops(), 1);
    EXPECT_EQ(story.exitStatus(), std::nullopt);
}

// A stop of what was never sent would be refused, and by another listener call.
TEST(TaskSession, AStartThatHasNotBeenSentIsAnsweredBeforeItIsStopped) {
    Story story;
    story.interrupted();
    EXPECT_EQ(story.stops(), 0);

    story.succeeded(kAdd);

    EXPECT_EQ(story.stops(), 1);
}

TEST(TaskSession, AStartBetweenTwoAttemptsIsStoppedAtOnce) {
    Story story;
    story.failed(kAdd);
    story.interrupted();
    EXPECT_EQ(story.stops(), 1);

    story.succeeded(kRemove);

    EXPECT_EQ(story.exitStatus(), kSucceeded);
}

TEST(TaskSession, AnAttemptUnderWayThatIsToBeTriedAgainIsStoppedInstead) {
    Story story;
    story.started(kAdd);
    story.interrupted();
    story.answered(kAdd, 1, "");
    story.delivered(kAdd);

    EXPECT_EQ(story.stops(), 1);
}

TEST(TaskSession, ASecondCtrlCEndsAtOnce) {
    Story story;
    story.succeeded(kAdd);
    story.interrupted();
    story.interrupted();

    EXPECT_EQ(story.exitStatus(), kInterrupted);
    story.succeeded(kRemove);
    EXPECT_THAT(story.events(),
                ElementsAre("attempt", "answer", "outcome", "report", "holding", "stopping", "interrupted"));
}

// ---- A retry of the start that goes out although the stop has begun -------------------------------------------------

TEST(TaskSession, ALateAttemptIsShownAsIgnored) {
    Story story;
    story.failed(kAdd);
    story.interrupted();
    story.failed(kAdd);

    EXPECT_EQ(story.last("ignored").text, "relay start: attempt 2 of 11: no longer counts, since stopping has begun");
    EXPECT_EQ(story.exitStatus(), std::nullopt);
}

TEST(TaskSession, ALateAttemptThatEndedBeforeTheLastAttemptToStopIsStoppedByIt) {
    Story story;
    story.failed(kAdd);
    story.interrupted();
    story.failed(kRemove);
    story.failed(kAdd);
    story.succeeded(kRemove);

    EXPECT_EQ(story.stops(), 1);
    EXPECT_EQ(story.exitStatus(), kSucceeded);
}

TEST(TaskSession, ALateAttemptThatMayHaveComeAfterTheStopIsStoppedAgain) {
    Story story;
    story.failed(kAdd);
    story.interrupted();
    story.started(kRemove);
    story.started(kAdd);
    story.answered(kRemove, 0, kAccepted);
    story.told(kRemove, 0, "sucess");
    story.delivered(kRemove);
    story.reported();
    EXPECT_EQ(story.stops(), 1);  // the late attempt is still under way
    story.answered(kAdd, 0, kAccepted);
    story.delivered(kAdd);

    EXPECT_EQ(story.stops(), 2);
    story.succeeded(kRemove);
    EXPECT_EQ(story.exitStatus(), kSucceeded);
}

TEST(TaskSession, ALateAttemptIsStoppedAgainEvenIfTheStopWasRefused) {
    Story story;
    story.failed(kAdd);
    story.interrupted();
    story.started(kRemove);
    story.started(kAdd);
    story.answered(kAdd, 0, kAccepted);
    story.delivered(kAdd);
    story.answered(kRemove, 0, kRefusal);
    story.told(kRemove, -200007, "nothing to stop");
    story.delivered(kRemove);
    story.reported();

    EXPECT_EQ(story.stops(), 2);
    story.succeeded(kRemove);
    EXPECT_EQ(story.exitStatus(), kSucceeded);
}

TEST(TaskSession, ALateAttemptThatWasRefusedNeedsNoSecondStop) {
    Story story;
    story.failed(kAdd);
    story.interrupted();
    story.started(kRemove);
    story.started(kAdd);
    story.answered(kAdd, 0, kRefusal);
    story.delivered(kAdd);
    story.answered(kRemove, 0, kAccepted);
    story.told(kRemove, 0, "sucess");
    story.delivered(kRemove);
    story.reported();

    EXPECT_EQ(story.stops(), 1);
    EXPECT_EQ(story.exitStatus(), kSucceeded);
}

// ---- Updates --------------------------------------------------------------------------------------------------------

TEST(TaskSession, AnUpdateOfARunningMixIsSentAtOnce) {
    Story story(Lifetime::kWatched, kMixFamily);
    story.succeeded(kSet);
    story.asked("second");
    EXPECT_THAT(story.starts(), ElementsAre("first", "second"));
    story.succeeded(kSet);

    EXPECT_EQ(story.last("outcome").text, "mix update: done, the mix is running");
    EXPECT_EQ(story.last("attempt").fields.at("attempt"), 1);
    EXPECT_EQ(story.last("report").fields.at("request"), "update");
    EXPECT_EQ(story.exitStatus(), std::nullopt);
}

TEST(TaskSession, WhileAnAttemptIsUnderWayOnlyTheNewestUpdateWaits) {
    Story story(Lifetime::kWatched, kMixFamily);
    story.started(kSet);
    story.asked("second");
    story.asked("third");
    EXPECT_THAT(story.starts(), ElementsAre("first"));

    story.answered(kSet, 0, kAccepted);
    story.told(kSet, 0, "sucess");
    story.delivered(kSet);
    EXPECT_THAT(story.starts(), ElementsAre("first"));  // the report is still to come
    story.reported();

    EXPECT_THAT(story.starts(), ElementsAre("first", "third"));
    EXPECT_EQ(story.events().back(), "report");  // it does not hold in between
}

TEST(TaskSession, AnUpdateDoesNotOvertakeAStartThatHasNotBeenSent) {
    Story story(Lifetime::kWatched, kMixFamily);
    story.asked("second");

    EXPECT_THAT(story.starts(), ElementsAre("first"));
}

TEST(TaskSession, BetweenTwoAttemptsANewerUpdateIsSentInstead) {
    Story story(Lifetime::kWatched, kMixFamily);
    story.failed(kSet);
    story.asked("second");

    EXPECT_THAT(story.starts(), ElementsAre("first", "second"));
    EXPECT_EQ(story.last("superseded").fields.at("request"), "start");
    story.succeeded(kSet);
    EXPECT_EQ(story.last("outcome").fields.at("request"), "start");  // nothing ran before
    EXPECT_EQ(story.last("outcome").fields.at("attempts"), 1);
}

TEST(TaskSession, AnUpdateIsSentAgainIfALateAttemptOfTheOneBeforeIsUnderWayBesideIt) {
    Story story(Lifetime::kWatched, kMixFamily);
    story.failed(kSet);
    story.asked("second");
    const uint64_t late = story.started(kSet);
    const uint64_t own = story.started(kSet);
    story.answeredTo(late, 0, kAccepted);
    story.told(kSet, 0, "sucess");
    story.deliveredTo(late);
    story.reported();
    EXPECT_THAT(story.starts(), ElementsAre("first", "second"));
    story.answeredTo(own, 0, kAccepted);
    story.told(kSet, 0, "sucess");
    story.deliveredTo(own);

    EXPECT_THAT(story.starts(), ElementsAre("first", "second", "second"));
    story.reported();  // of the second, which counts no more
    EXPECT_EQ(story.last("report").fields.at("request"), "update");
    story.succeeded(kSet);
    EXPECT_EQ(story.events().back(), "holding");
    EXPECT_THAT(story.starts(), ElementsAre("first", "second", "second"));
}

TEST(TaskSession, AnUpdateThatIsRefusedLeavesTheMixRunning) {
    Story story(Lifetime::kWatched, kMixFamily);
    story.succeeded(kSet);
    story.asked("second");
    story.refused(kSet);

    EXPECT_EQ(story.last("outcome").text, "mix update: failed, refused by the service");
    EXPECT_EQ(story.events().back(), "holding");
    story.interrupted();
    story.succeeded(kCancel);
    EXPECT_EQ(story.last("outcome").text, "mix cancel: done, the mix is cancelled");
    EXPECT_EQ(story.exitStatus(), kSucceeded);
}

TEST(TaskSession, AWatchedStartThatFailsWaitsForABetterOne) {
    Story story(Lifetime::kWatched, kMixFamily);
    story.refused(kSet);
    EXPECT_EQ(story.exitStatus(), std::nullopt);
    EXPECT_EQ(story.last("waiting").text, "the mix does not run; a saved change is sent, Ctrl-C ends");

    story.asked("second");
    story.succeeded(kSet);

    EXPECT_EQ(story.last("outcome").text, "mix start: done, the mix is running");
    EXPECT_EQ(story.events().back(), "holding");
}

TEST(TaskSession, AWatchedStartThatFailedGivesTheStatusAndNeedsNoCancel) {
    Story story(Lifetime::kWatched, kMixFamily);
    story.refused(kSet);
    story.interrupted();

    EXPECT_EQ(story.stops(), 0);
    EXPECT_EQ(story.exitStatus(), kRefused);
}

TEST(TaskSession, AStartThatFailsEndsAHeldMix) {
    Story story(Lifetime::kHeld, kMixFamily);
    story.ended(kSet, 0, "nonsense", -3324, "recv message can't parse");

    EXPECT_EQ(story.exitStatus(), kNoAnswer);
}

TEST(TaskSession, ACancelWaitsForTheUpdateUnderWayAndDropsTheOneThatWaits) {
    Story story(Lifetime::kWatched, kMixFamily);
    story.succeeded(kSet);
    story.asked("second");
    story.started(kSet);
    story.asked("third");
    story.interrupted();
    EXPECT_EQ(story.stops(), 0);

    story.answered(kSet, 1, "");
    story.delivered(kSet);

    EXPECT_EQ(story.stops(), 1);
    EXPECT_THAT(story.starts(), ElementsAre("first", "second"));
    story.succeeded(kCancel);
    EXPECT_EQ(story.exitStatus(), kSucceeded);
}

TEST(TaskSession, AfterTheCancelHasBegunNoUpdateIsTaken) {
    Story story(Lifetime::kWatched, kMixFamily);
    story.succeeded(kSet);
    story.interrupted();
    story.asked("second");
    story.succeeded(kCancel);

    EXPECT_THAT(story.starts(), ElementsAre("first"));
    EXPECT_EQ(story.exitStatus(), kSucceeded);
}

// ---- Two sessions side by side --------------------------------------------------------------------------------------

TEST(TaskSession, TakesNoNoticeOfTheOtherFamily) {
    Story story(Lifetime::kHeld, kMixFamily);
    story.started(kAdd);
    story.answered(kAdd, 0, kAccepted);
    story.told(kAdd, 0, "sucess");
    story.delivered(kAdd);
    story.session().on(EventReport{1400000001, "4711_alice", 10004, kRelayFamily.reportEvent, "information", "detail"});

    EXPECT_THAT(story.events(), ElementsAre());
}

}  // namespace
