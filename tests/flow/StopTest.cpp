// Stopping the relay and cancelling the mix.

#include "FlowTest.h"

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class StopTest : public KindTest {
protected:
    std::string refusal() const {
        return isRelay(kind()) ? "stopPublishStreamUrl error, appid = 0, should call startPublishStreamUrl before"
                               : "stopLiveMixTranscoding error, appid = 0, should call startMixTranscoding before";
    }
    Call refused() const { return {"stopMix", rulesOf(kind()).unreadableCode, refusal()}; }

    std::string stopBody(size_t number, int timestamp, const std::string& ownStream = kAliceMain) {
        const std::string head =
            R"({"appid":12345,"domain":"8888.push.test","event_id":)" + std::to_string(eventId(number));
        const std::string tail = R"(","timestamp":)" + std::to_string(timestamp) + "}";
        if (isRelay(kind())) {
            return head + R"(,"interface":"remove_relay_stream_url","path":"live","stream_id":")" + ownStream + tail;
        }
        return head + R"(,"input_stream_list":[{"input_stream_id":")" + ownStream +
               R"(","layout_params":{"image_layer":1}}],"interface":"set_live_mix_transcoding",)"
               R"("output_param":{"output_stream_id":")" +
               ownStream + R"("},"path":"live","session_id":")" + ownStream + tail;
    }

    // A segment of the trace. Intended: a relay stop prints the counter of the start instead of its own.
    std::string segment(int ownCounter, int startCounter, int retCode, const std::string& response) const {
        return traceSegment(isRelay(kind()) ? startCounter : ownCounter, retCode, response);
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, StopTest, ::testing::Values(kRemoveRelay, kCancelMix), nameOfKind);

// ---- Refused --------------------------------------------------------------------------------------------------------

TEST_P(StopTest, StopBeforeAnyStartIsRefusedThroughTheMixCancelOperation) {
    givenInRoom();

    begin(kind());

    EXPECT_THAT(log(), ElementsAre(Logged{2, "operator()", refusal()}));
    EXPECT_THAT(notified(), ElementsAre(refused()));
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_THAT(requests(), IsEmpty());
}

TEST_P(StopTest, SupersededStopIsNotRefused) {
    givenInRoom();

    call(kind());
    call(kind());
    run();

    EXPECT_THAT(log(),
                ElementsAre(Logged{2, "operator()", "index:1, cdnTaskIndex:2"}, Logged{2, "operator()", refusal()}));
    EXPECT_THAT(notified(), SizeIs(1));
}

TEST_P(StopTest, StopRightAfterAStartWhoseTaskHasNotRunIsRefused) {
    givenUser();

    call(start());
    call(kind());
    run();
    enterRoom();

    EXPECT_THAT(notified(), ElementsAre(refused()));
    EXPECT_THAT(requests(), IsEmpty());
}

// ---- Sent -----------------------------------------------------------------------------------------------------------

TEST_P(StopTest, StopAfterAStartSendsItsBodyAndReportsItAsInformation) {
    givenSent(kind());

    EXPECT_EQ(body(0), stopBody(0, 1000));
    expectNeitherNotifiedNorReported();

    respondOk();

    EXPECT_THAT(notified(), ElementsAre(succeeded()));
    EXPECT_THAT(reports(), ElementsAre(Reported{rulesOf(kind()).event, body(0), segment(10, 0, 0, kOk)}));
}

TEST_P(StopTest, StopDropsAStartThatWaitsForTheRoomAndIsSentSinceTheIdsAreSet) {
    givenUser();
    begin(start());

    begin(kind());
    ASSERT_THAT(sent(), ElementsAre(kind()));
    clearRecords();

    enterRoom();
    expectNoEffects();
}

TEST_P(StopTest, StartOfTheOtherFamilyStillWaitsForTheRoom) {
    givenUser();
    begin(startOfTheOtherFamily());

    begin(kind());
    enterRoom();

    EXPECT_THAT(sent(), ElementsAre(kind(), startOfTheOtherFamily()));
}

TEST_P(StopTest, SupersededStopDoesNotDropAWaitingStart) {
    givenUser();
    begin(start());

    call(kind());
    callRefused(start());
    run();
    enterRoom();

    ASSERT_THAT(sent(), ElementsAre(start()));
}

TEST_P(StopTest, StopAfterOnlyAStartOfTheOtherFamilyIsSentWithItsIds) {
    givenInRoom();
    kstmedia::VexaPublishCDNParamInternal param = relay();
    kstmedia::VexaTranscodingConfigInternal config = mix();
    param.appId = config.appId = 77;
    param.bizId = config.bizId = 66;
    isRelay(kind()) ? startMix(config) : startRelay(param);
    clearRecords();

    begin(kind());

    ASSERT_THAT(sent(), ElementsAre(kind()));
    EXPECT_THAT(body(0), HasSubstr(R"({"appid":77,"domain":"66.push.test",)"));
}

TEST_P(StopTest, IdsRemainSoThatTheNextStopsOfBothFamiliesAreSent) {
    givenSent(kind());
    respondOk();

    begin(kRemoveRelay);
    begin(kCancelMix);

    ASSERT_THAT(requests(), SizeIs(3));
    EXPECT_THAT(body(1), HasSubstr(R"({"appid":12345,"domain":"8888.push.test",)"));
    EXPECT_THAT(body(2), HasSubstr(R"({"appid":12345,"domain":"8888.push.test",)"));
}

// ---- Trace and information ------------------------------------------------------------------------------------------

TEST_P(StopTest, RetryNamesTheCurrentUserWhileTheInformationIsTheFirstBody) {
    givenSent(kind());
    mAdapter->updateUserInfo(kSdkAppId, kUserSig, "bob");
    run();

    failAndWaitForRetry();
    respondOk();

    EXPECT_EQ(body(0), stopBody(0, 1000));
    EXPECT_EQ(body(1), stopBody(1, 1001, kBobMain));
    EXPECT_THAT(reports(),
                ElementsAre(Reported{rulesOf(kind()).event, body(0), segment(10, 0, 1, "") + segment(9, 0, 0, kOk)}));
    EXPECT_EQ(mPlatform.reports.at(0).roomUser, "room7_bob");
}

TEST_P(StopTest, TraceShowsTheCounterOfTheRelayStartOrOfTheCancelItself) {
    givenRetrySent(kind());
    begin(start());  // sets the counter of the start to 10 and that of the stop to 0

    respondTo(1, 0, kOk);

    EXPECT_THAT(reports().at(0).detail, EndsWith(segment(10, 0, 1, "") + segment(0, 10, 0, kOk)));
}

TEST_P(StopTest, ResponseToARetryIsReportedWithTheBodyAndCounterOfANewerStop) {
    givenRetrySent(kind());
    begin(kind());

    respondTo(1, 0, kOk);

    ASSERT_THAT(requests(), SizeIs(3));
    EXPECT_THAT(notified(), ElementsAre(succeeded()));
    EXPECT_THAT(reports(),
                ElementsAre(Reported{rulesOf(kind()).event, body(2), segment(10, 0, 1, "") + segment(10, 0, 0, kOk)}));
}

// The response to a retry of an older stop arrives while the send of a newer stop is logged.
TEST_P(StopTest, InformationIsStoredBeforeTheSendIsLoggedForARelayAndAfterItForAMix) {
    givenRetrySent(kind());
    const std::string older = body(0);
    mPlatform.onLog = [this](const FakePlatform::LogLine& line) {
        if (line.text.find(", jsonStr: ") != std::string::npos) {
            mPlatform.respond(1, 0, kOk);
        }
    };

    begin(kind());

    ASSERT_THAT(requests(), SizeIs(3));
    EXPECT_EQ(reports().at(0).information, isRelay(kind()) ? body(2) : older);
}

TEST_P(StopTest, StartIssuedWhileARetrysResponseIsHandledDoesNotStopItsCallAndReport) {
    givenRetrySent(kind());
    onCall = [this] { call(start()); };

    respondOk();

    EXPECT_THAT(notified(), ElementsAre(succeeded()));
    EXPECT_THAT(reports(),
                ElementsAre(Reported{rulesOf(kind()).event, body(0), segment(10, 0, 1, "") + segment(9, 0, 0, kOk)}));
    EXPECT_EQ(sent().at(2), start());
}

TEST_P(StopTest, ListenerThatStopsAgainChangesTheInformationOnlyOnceTheStopIsSent) {
    givenSent(kind());
    onCall = [this] { call(kind()); };

    respondOk();

    // The task of the second stop stores its body. By then, the report has read its information.
    EXPECT_EQ(reports().at(0).information, body(0));
    EXPECT_THAT(requests(), SizeIs(2));
}

class MixCancelTest : public FlowTest {};

TEST_F(MixCancelTest, CancelDoesNotChangeTheInformationOfAMixRetryInFlight) {
    givenRetrySent(kStartMix);

    begin(kCancelMix);
    respondTo(1, 0, kOk);

    EXPECT_THAT(notified(), ElementsAre(Call{"setMix", 0, "sucess"}));
    ASSERT_THAT(reports(), SizeIs(1));
    EXPECT_EQ(reports()[0].information, mix().to_string());
}
