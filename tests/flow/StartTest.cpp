// Starting the relay and starting a mix: what holds for both.

#include "FlowTest.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

class StartTest : public FlowTest, public ::testing::WithParamInterface<Kind> {
protected:
    static constexpr const char* kOtherUrl = "rtmp://cdn.test/live/other";

    const Kind& kind() const { return GetParam(); }

    // A start that differs from that of begin(), without running its task.
    void callOther() {
        if (kind().isRelay) {
            mAdapter->startPublishStreamUrl(relay(kOtherUrl));
        } else {
            mAdapter->setLiveMixTranscoding(mix({user("bob", 1)}));
        }
    }
    std::string information() const { return kind().isRelay ? kRelayText : mixText(); }
    std::string otherInformation() const {
        return kind().isRelay ? relay(kOtherUrl).to_string() : mix({user("bob", 1)}).to_string();
    }
    std::string input() const {
        return kind().isRelay ? "\"" + std::string(kUrl) + "\""
                              : R"("input_stream_id":")" + std::string(kAliceMain) + "\"";
    }
    std::string otherInput() const {
        return kind().isRelay ? "\"" + std::string(kOtherUrl) + "\""
                              : R"("input_stream_id":")" + std::string(kBobMain) + "\"";
    }
    std::string refusal() const {
        return kind().isRelay ? "startPublishStreamUrl failure, param is invalid"
                              : "setLiveMixTranscoding failure, param is invalid";
    }
    Notified refused() const { return {"onStartPublishStreamUrl", kind().unreadableCode, refusal()}; }
    Notified succeeded() const { return {kind().operation, 0, "sucess"}; }

    // The log, without the line that classifies a mix.
    std::vector<Logged> logOfTheStart() const {
        std::vector<Logged> lines = log();
        for (auto line = lines.begin(); line != lines.end();) {
            line = line->text == "bPureAudio:0" ? lines.erase(line) : line + 1;
        }
        return lines;
    }
    Logged sendLog(const std::string& index, size_t request) const {
        return {2, kind().sendFunction, filled(kind().sendLog, {index, "0", body(request)})};
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, StartTest, ::testing::Values(kAddRelay, kStartMix), nameOfKind);

// ---- Refused --------------------------------------------------------------------------------------------------------

TEST_P(StartTest, RefusalIsNotifiedAndThenReportedOutsideTheRoomToo) {
    givenUser();

    callRefused(kind());
    run();

    EXPECT_THAT(notified(), ElementsAre(refused()));
    ASSERT_THAT(reports(), SizeIs(1));
    EXPECT_EQ(reports()[0].event, kind().event);
    EXPECT_EQ(reports()[0].detail, refusal());
    EXPECT_THAT(mPlatform.order, ElementsAre("onStartPublishStreamUrl", "report " + std::to_string(kind().event)));
}

TEST_P(StartTest, RefusedStartIsStoredNowhere) {
    givenInRoom();

    callRefused(kind());
    run();

    // Nothing counts as started, so a stop is refused.
    begin(kind().isRelay ? kRemoveRelay : kCancelMix);
    EXPECT_THAT(requests(), IsEmpty());
    EXPECT_EQ(notified().back().operation, "onStopLiveMixTranscoding");
}

TEST_P(StartTest, RefusalLeavesAWaitingStartWaiting) {
    givenUser();
    begin(kind());
    callRefused(kind());
    run();

    enterRoom();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(body(0), HasSubstr(input()));
    respondOk();
    EXPECT_EQ(reports().back().information, information());
}

TEST_P(StartTest, SupersededIncompleteStartIsStillNotifiedAndReportedWithTheNewestInformation) {
    givenInRoom();

    callRefused(kind());
    call(kind());
    run();

    EXPECT_THAT(notified(), ElementsAre(refused()));
    EXPECT_THAT(reports(), ElementsAre(Reported{kind().event, information(), refusal()}));
    EXPECT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(logOfTheStart(), ElementsAre(testing::Field(&Logged::level, 4), sendLog("2", 0)));
}

TEST_P(StartTest, ListenerThatStartsAgainFromARefusalIsVisibleInItsReport) {
    givenInRoom();
    mListener->onCall = [this] { callOther(); };

    callRefused(kind());
    run();

    EXPECT_THAT(reports(), ElementsAre(Reported{kind().event, otherInformation(), refusal()}));
    EXPECT_THAT(requests(), SizeIs(1));
}

// ---- Superseded -----------------------------------------------------------------------------------------------------

TEST_P(StartTest, OfTwoStartsInQuickSuccessionOnlyTheSecondIsSent) {
    givenInRoom();

    call(kind());
    callOther();
    run();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(body(0), HasSubstr(otherInput()));
    EXPECT_THAT(logOfTheStart(), ElementsAre(Logged{2, "operator()", "index:1, cdnTaskIndex:2"}, sendLog("2", 0)));
    EXPECT_THAT(notified(), IsEmpty());
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_P(StartTest, StartCalledBehindARoomEntryIsSupersededByTheReissuedOne) {
    givenUser();
    begin(kind());
    clearRecords();

    mAdapter->updateEnterRoomInfo("room7", kMapKey);
    callOther();
    run();

    EXPECT_EQ(logOfTheStart().at(0), (Logged{2, "operator()", "index:2, cdnTaskIndex:3"}));
    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(body(0), HasSubstr(input()));
}

// ---- Before room entry ----------------------------------------------------------------------------------------------

TEST_P(StartTest, StartOutsideTheRoomIsReportedAndNotNotified) {
    givenUser();

    begin(kind());

    EXPECT_THAT(logOfTheStart(), ElementsAre(Logged{kind().isRelay ? 2 : 4, "operator()", "not enterRoom status"}));
    EXPECT_THAT(reports(), ElementsAre(Reported{kind().event, information(), "not enterRoom status"}));
    EXPECT_THAT(notified(), IsEmpty());
    EXPECT_THAT(requests(), IsEmpty());
}

TEST_P(StartTest, RoomEntrySendsTheWaitingStartOnceAsANewGeneration) {
    givenUser();
    begin(kind());
    clearRecords();

    enterRoom();
    enterRoom("room8", "another-key");

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(body(0), HasSubstr(input()));
    EXPECT_THAT(logOfTheStart(), ElementsAre(sendLog("2", 0)));
    respondOk();
    EXPECT_THAT(notified(), ElementsAre(succeeded()));
    ASSERT_THAT(reports(), SizeIs(1));
    EXPECT_EQ(reports()[0].information, information());
}

TEST_P(StartTest, NewestOfTheWaitingStartsIsSent) {
    givenUser();
    begin(kind());
    callOther();
    run();

    enterRoom();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(body(0), HasSubstr(otherInput()));
    EXPECT_THAT(body(0), Not(HasSubstr(input())));
}

// ---- The report's information ---------------------------------------------------------------------------------------

TEST_P(StartTest, ListenerThatStartsAgainFromItsCallIsVisibleInTheReport) {
    givenSent(kind());
    mListener->onCall = [this] { callOther(); };

    respondOk();

    ASSERT_THAT(reports(), SizeIs(1));
    EXPECT_EQ(reports()[0].information, otherInformation());
    EXPECT_THAT(requests(), SizeIs(2));
}
