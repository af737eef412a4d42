// Stopping the relay.

#include "FlowTest.h"

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class RelayStopTest : public FlowTest {
protected:
    static constexpr const char* kNothingStarted =
        "stopPublishStreamUrl error, appid = 0, should call startPublishStreamUrl before";

    std::string removeBody(size_t number, int timestamp) {
        return R"({"appid":12345,"domain":"8888.push.test","event_id":)" + std::to_string(eventId(number)) +
               R"(,"interface":"remove_relay_stream_url","path":"live","stream_id":)"
               R"("8888_fcbd0847daa9c600a757e0d48049b252","timestamp":)" +
               std::to_string(timestamp) + "}";
    }
};

// ---- Refused --------------------------------------------------------------------------------------------------------

TEST_F(RelayStopTest, StopBeforeAnyStartIsRefusedThroughTheMixCancelOperation) {
    givenInRoom();

    stopRelay();

    EXPECT_THAT(log(), ElementsAre(Logged{2, "operator()", kNothingStarted}));
    EXPECT_THAT(told(), ElementsAre(Told{"onStopLiveMixTranscoding", -3323, kNothingStarted}));
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(RelayStopTest, RefusedStopWithoutAListenerIsLoggedAlone) {
    givenNoListener();

    stopRelay();

    EXPECT_THAT(log(), SizeIs(1));
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(RelayStopTest, SupersededStopIsNotRefused) {
    givenInRoom();

    mAdapter->stopPublishStreamUrl();
    mAdapter->stopPublishStreamUrl();
    run();

    EXPECT_THAT(log(), ElementsAre(Logged{2, "operator()", "index:1, cdnTaskIndex:2"},
                                   Logged{2, "operator()", kNothingStarted}));
    EXPECT_THAT(told(), SizeIs(1));
}

// ---- Sent -----------------------------------------------------------------------------------------------------------

TEST_F(RelayStopTest, StopAfterAStartSendsTheRemoveBody) {
    givenInRoom();
    startRelay();
    answerOk();
    forgetTheStorySoFar();

    stopRelay();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_EQ(body(0), removeBody(0, 1000));
    EXPECT_THAT(log(), ElementsAre(Logged{2, "removePublishUrlInner",
                                          "removePublishUrlInner index: 2, retryStartCdnCnt:0, jsonStr: " + body(0)}));
    EXPECT_THAT(told(), IsEmpty());
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(RelayStopTest, SuccessIsToldAndThenReportedWithTheBodyAsInformation) {
    givenSent(kRemoveRelay);

    answerOk();

    EXPECT_THAT(told(), ElementsAre(Told{"onStopPublishStreamUrl", 0, "sucess"}));
    EXPECT_THAT(reports(), ElementsAre(Reported{30, body(0),
                                                R"( [tryHttp:cnt-0]retCode:0, respData:{"code":0,"message":"fine"})"}));
    EXPECT_THAT(mPlatform.order, ElementsAre("request 0", "onStopPublishStreamUrl", "report 30"));
}

TEST_F(RelayStopTest, StopNeedsNoRoom) {
    givenSent(kAddRelay);
    answerOk();
    reset();
    forgetTheStorySoFar();

    stopRelay();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_EQ(body(0), removeBody(0, 1000));
}

TEST_F(RelayStopTest, StopForgetsAStartThatWaitsForTheRoomAndIsSentSinceTheIdsAreSet) {
    givenUser();
    startRelay();

    stopRelay();
    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_EQ(request(0).client, kRemoveRelay.client);
    forgetTheStorySoFar();

    enterRoom();
    expectNothingHappens();
}

TEST_F(RelayStopTest, StopLeavesAMixThatWaitsForTheRoomWaiting) {
    givenUser();
    startMix();

    stopRelay();
    enterRoom();

    ASSERT_THAT(requests(), SizeIs(2));
    EXPECT_EQ(request(1).client, kStartMix.client);
}

TEST_F(RelayStopTest, SupersededStopDoesNotForgetAWaitingStart) {
    givenUser();
    startRelay();

    mAdapter->stopPublishStreamUrl();
    mAdapter->startPublishStreamUrl(relay(""));  // refused
    run();
    enterRoom();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_EQ(request(0).client, kAddRelay.client);
}

TEST_F(RelayStopTest, StopAfterOnlyAMixStartIsSentWithTheMixsIds) {
    givenInRoom();
    kstmedia::VexaTranscodingConfigInternal config = mix();
    config.appId = 77;
    config.bizId = 66;
    startMix(config);
    forgetTheStorySoFar();

    stopRelay();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_EQ(request(0).client, kRemoveRelay.client);
    EXPECT_THAT(body(0), HasSubstr(R"({"appid":77,"domain":"66.push.test",)"));
}

TEST_F(RelayStopTest, StopKeepsTheIdsSoThatTheNextStopIsSentToo) {
    givenSent(kRemoveRelay);
    answerOk();

    stopRelay();

    ASSERT_THAT(requests(), SizeIs(2));
    EXPECT_THAT(body(1), HasSubstr(R"({"appid":12345,"domain":"8888.push.test",)"));
}

TEST_F(RelayStopTest, OfTwoStopsInQuickSuccessionOneIsSent) {
    givenInRoom();
    startRelay();
    forgetTheStorySoFar();

    mAdapter->stopPublishStreamUrl();
    mAdapter->stopPublishStreamUrl();
    run();

    EXPECT_THAT(requests(), SizeIs(1));
    EXPECT_EQ(log().at(0), (Logged{2, "operator()", "index:2, cdnTaskIndex:3"}));
    EXPECT_THAT(log(), SizeIs(2));
    EXPECT_THAT(told(), IsEmpty());
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(RelayStopTest, StopSupersedesAStartUnderWay) {
    givenInRoom();
    startRelay();

    stopRelay();
    answerTo(0, 0, kOk);
    answerTo(1, 0, kOk);

    EXPECT_THAT(told(), ElementsAre(Told{"onStopPublishStreamUrl", 0, "sucess"}));
}

// ---- Trace and information ------------------------------------------------------------------------------------------

TEST_F(RelayStopTest, InformationIsTheFirstBodyNeverARetrys) {
    givenSent(kRemoveRelay);

    failAndWaitForRetry();
    answerOk();

    ASSERT_NE(body(0), body(1));
    EXPECT_THAT(reports(), ElementsAre(Reported{30, body(0), tried(0, 1, "") + tried(0, 0, kOk)}));
}

TEST_F(RelayStopTest, TraceShowsTheCounterOfTheStart) {
    givenRetrySent(kRemoveRelay);
    startRelay();  // its first send sets the counter to 10

    answerTo(1, 0, kOk);

    EXPECT_THAT(reports().at(0).detail, EndsWith(tried(0, 1, "") + tried(10, 0, kOk)));
}

TEST_F(RelayStopTest, RetrysAnswerAfterANewerStopIsReportedWithTheNewersBody) {
    givenRetrySent(kRemoveRelay);
    stopRelay();

    answerTo(1, 0, kOk);

    ASSERT_THAT(requests(), SizeIs(3));
    EXPECT_THAT(told(), ElementsAre(Told{"onStopPublishStreamUrl", 0, "sucess"}));
    EXPECT_THAT(reports(), ElementsAre(Reported{30, body(2), tried(0, 1, "") + tried(0, 0, kOk)}));
}

TEST_F(RelayStopTest, StartIssuedWhileARetrysAnswerIsHandledLeavesItToldAndReported) {
    givenRetrySent(kRemoveRelay);
    mListener->whenTold = [this] {
        mListener->whenTold = nullptr;
        mAdapter->startPublishStreamUrl(relay());
    };

    answerOk();

    EXPECT_THAT(told(), ElementsAre(Told{"onStopPublishStreamUrl", 0, "sucess"}));
    EXPECT_THAT(reports(), ElementsAre(Reported{30, body(0), tried(0, 1, "") + tried(0, 0, kOk)}));
    EXPECT_EQ(request(2).client, kAddRelay.client);
}

TEST_F(RelayStopTest, ListenerThatStopsAgainIsSeenInTheReportOnlyOnceTheStopWasSent) {
    givenSent(kRemoveRelay);
    mListener->whenTold = [this] {
        mListener->whenTold = nullptr;
        mAdapter->stopPublishStreamUrl();
    };

    answerOk();

    // The body is stored by the stop's task, which runs after the report's text was taken.
    EXPECT_EQ(reports().at(0).information, body(0));
    EXPECT_THAT(requests(), SizeIs(2));
}
