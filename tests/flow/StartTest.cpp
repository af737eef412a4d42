// The rules that apply to the start of a relay and to the start of a mix.

#include "FlowTest.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

class StartTest : public KindTest {
protected:
    std::string otherInformation() const {
        return isRelay(kind()) ? relay(kOtherUrl).to_string() : mix({user("bob", 1)}).to_string();
    }
    std::string input() const {
        return isRelay(kind()) ? member("dest_stream_url", kUrl) : member("input_stream_id", kAliceMain);
    }
    std::string otherInput() const {
        return isRelay(kind()) ? member("dest_stream_url", kOtherUrl) : member("input_stream_id", kBobMain);
    }
    std::string refusal() const {
        return isRelay(kind()) ? "startPublishStreamUrl failure, param is invalid"
                               : "setLiveMixTranscoding failure, param is invalid";
    }
    Call refused() const { return {"startRelay", rulesOf(kind()).unreadableCode, refusal()}; }

    // The log without the line "bPureAudio:0", which only a mix has.
    std::vector<Logged> logOfTheStart() const {
        std::vector<Logged> lines = log();
        for (auto line = lines.begin(); line != lines.end();) {
            line = line->text == "bPureAudio:0" ? lines.erase(line) : line + 1;
        }
        return lines;
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
    EXPECT_EQ(reports()[0].event, rulesOf(kind()).event);
    EXPECT_EQ(reports()[0].detail, refusal());
    EXPECT_THAT(mPlatform.order, ElementsAre("startRelay", reportEvent()));
}

TEST_P(StartTest, RefusedStartIsStoredNowhere) {
    givenInRoom();

    callRefused(kind());
    run();

    // The refused start does not count as a start, so a stop is refused.
    begin(stopOf(kind()));
    EXPECT_THAT(requests(), IsEmpty());
    EXPECT_EQ(notified().back().operation, "stopMix");
}

TEST_P(StartTest, RefusalDoesNotDropAWaitingStart) {
    givenUser();
    begin(kind());
    callRefused(kind());
    run();

    enterRoom();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(body(0), HasSubstr(input()));
    respondOk();
    EXPECT_EQ(reports().back().information, startInformation(kind()));
}

TEST_P(StartTest, SupersededIncompleteStartIsStillNotifiedAndReportedWithTheNewestInformation) {
    givenInRoom();

    callRefused(kind());
    call(kind());
    run();

    EXPECT_THAT(notified(), ElementsAre(refused()));
    EXPECT_THAT(reports(), ElementsAre(Reported{rulesOf(kind()).event, startInformation(kind()), refusal()}));
    EXPECT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(logOfTheStart(), ElementsAre(testing::Field(&Logged::level, 4), sendLog(kind(), 2, 0, body(0))));
}

TEST_P(StartTest, ListenerThatStartsAgainFromARefusalIsVisibleInItsReport) {
    givenInRoom();
    onCall = [this] { callOther(kind()); };

    callRefused(kind());
    run();

    EXPECT_THAT(reports(), ElementsAre(Reported{rulesOf(kind()).event, otherInformation(), refusal()}));
    EXPECT_THAT(requests(), SizeIs(1));
}

// ---- Superseded -----------------------------------------------------------------------------------------------------

TEST_P(StartTest, OfTwoStartsInQuickSuccessionOnlyTheSecondIsSent) {
    givenInRoom();

    call(kind());
    callOther(kind());
    run();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(body(0), HasSubstr(otherInput()));
    EXPECT_THAT(logOfTheStart(),
                ElementsAre(Logged{2, "operator()", "index:1, cdnTaskIndex:2"}, sendLog(kind(), 2, 0, body(0))));
    expectNeitherNotifiedNorReported();
}

// ---- Before room entry ----------------------------------------------------------------------------------------------

TEST_P(StartTest, StartOutsideTheRoomIsReportedAndNotNotified) {
    givenUser();

    begin(kind());

    EXPECT_THAT(logOfTheStart(), ElementsAre(Logged{isRelay(kind()) ? 2 : 4, "operator()", kNotInRoom}));
    EXPECT_THAT(reports(), ElementsAre(Reported{rulesOf(kind()).event, startInformation(kind()), kNotInRoom}));
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
    EXPECT_THAT(logOfTheStart(), ElementsAre(sendLog(kind(), 2, 0, body(0))));
    respondOk();
    EXPECT_THAT(notified(), ElementsAre(succeeded()));
    ASSERT_THAT(reports(), SizeIs(1));
    EXPECT_EQ(reports()[0].information, startInformation(kind()));
}

TEST_P(StartTest, NewestOfTheWaitingStartsIsSent) {
    givenUser();
    begin(kind());
    callOther(kind());
    run();

    enterRoom();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(body(0), HasSubstr(otherInput()));
    EXPECT_THAT(body(0), Not(HasSubstr(input())));
}

// ---- The report's information ---------------------------------------------------------------------------------------

TEST_P(StartTest, ListenerThatStartsAgainFromItsCallIsVisibleInTheReport) {
    givenSent(kind());
    onCall = [this] { callOther(kind()); };

    respondOk();

    ASSERT_THAT(reports(), SizeIs(1));
    EXPECT_EQ(reports()[0].information, otherInformation());
    EXPECT_THAT(requests(), SizeIs(2));
}
