// Ending a mix.

#include "FlowTest.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class MixCancelTest : public FlowTest {
protected:
    static constexpr const char* kNothingStarted =
        "stopLiveMixTranscoding error, appid = 0, should call startMixTranscoding before";

    std::string cancelBody(size_t number, int timestamp, const std::string& ownStream = kAliceMain) {
        return R"({"appid":12345,"domain":"8888.push.test","event_id":)" + std::to_string(eventId(number)) +
               R"(,"input_stream_list":[{"input_stream_id":")" + ownStream +
               R"(","layout_params":{"image_layer":1}}],"interface":"set_live_mix_transcoding",)"
               R"("output_param":{"output_stream_id":")" +
               ownStream + R"("},"path":"live","session_id":")" + ownStream + R"(","timestamp":)" +
               std::to_string(timestamp) + "}";
    }
};

TEST_F(MixCancelTest, CancelBeforeAnyStartIsRefused) {
    givenInRoom();

    cancelMix();

    EXPECT_THAT(log(), ElementsAre(Logged{2, "operator()", kNothingStarted}));
    EXPECT_THAT(told(), ElementsAre(Told{"onStopLiveMixTranscoding", -3324, kNothingStarted}));
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(MixCancelTest, RefusedCancelWithoutAListenerIsLoggedAlone) {
    givenNoListener();

    cancelMix();

    EXPECT_THAT(log(), SizeIs(1));
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(MixCancelTest, CancelSendsTheOwnMainStreamAsTheOnlyInput) {
    givenInRoom();
    startMix();
    answerOk();
    forgetTheStorySoFar();

    cancelMix();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_EQ(body(0), cancelBody(0, 1000));
    EXPECT_THAT(log(), ElementsAre(Logged{2, "cancelMixStream", "index: 2, retryCancelMixCnt:0, jsonStr: " + body(0)}));
    EXPECT_THAT(told(), IsEmpty());
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(MixCancelTest, SuccessIsToldAndThenReportedWithTheBodyAsInformation) {
    givenSent(kCancelMix);

    answerOk();

    EXPECT_THAT(told(), ElementsAre(Told{"onStopLiveMixTranscoding", 0, "sucess"}));
    EXPECT_THAT(reports(), ElementsAre(Reported{
                               31, body(0), R"( [tryHttp:cnt-10]retCode:0, respData:{"code":0,"message":"fine"})"}));
    EXPECT_THAT(mPlatform.order, ElementsAre("request 0", "onStopLiveMixTranscoding", "report 31"));
    EXPECT_EQ(log().back(), (Logged{2, "operator()", R"(index: 2, ret: 0, respData: {"code":0,"message":"fine"})"}));
}

TEST_F(MixCancelTest, CancelNeedsNoRoom) {
    givenSent(kStartMix);
    answerOk();
    reset();
    forgetTheStorySoFar();

    cancelMix();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_EQ(body(0), cancelBody(0, 1000));
}

TEST_F(MixCancelTest, CancelForgetsAMixThatWaitsForTheRoomAndIsSentSinceTheIdsAreSet) {
    givenUser();
    startMix();

    cancelMix();
    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_EQ(request(0).client, kCancelMix.client);
    forgetTheStorySoFar();

    enterRoom();
    expectNothingHappens();
}

TEST_F(MixCancelTest, CancelLeavesARelayThatWaitsForTheRoomWaiting) {
    givenUser();
    startRelay();

    cancelMix();
    enterRoom();

    ASSERT_THAT(requests(), SizeIs(2));
    EXPECT_EQ(request(1).client, kAddRelay.client);
}

TEST_F(MixCancelTest, CancelRightAfterAMixWhoseTaskHasNotRunIsRefused) {
    givenUser();

    mAdapter->setLiveMixTranscoding(mix());
    mAdapter->stopLiveMixTranscoding();
    run();
    enterRoom();

    EXPECT_THAT(told(), ElementsAre(Told{"onStopLiveMixTranscoding", -3324, kNothingStarted}));
    EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(MixCancelTest, CancelAfterOnlyARelayStartIsSentWithTheRelaysIds) {
    givenInRoom();
    kstmedia::VexaPublishCDNParamInternal param = relay();
    param.appId = 77;
    param.bizId = 66;
    startRelay(param);
    forgetTheStorySoFar();

    cancelMix();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_EQ(request(0).client, kCancelMix.client);
    EXPECT_THAT(body(0), HasSubstr(R"({"appid":77,"domain":"66.push.test",)"));
}

TEST_F(MixCancelTest, CancelKeepsTheIdsSoThatTheNextStopAndCancelAreSent) {
    givenSent(kCancelMix);
    answerOk();

    cancelMix();
    stopRelay();

    ASSERT_THAT(requests(), SizeIs(3));
    EXPECT_THAT(body(1), HasSubstr(R"({"appid":12345,"domain":"8888.push.test",)"));
    EXPECT_THAT(body(2), HasSubstr(R"({"appid":12345,"domain":"8888.push.test",)"));
}

TEST_F(MixCancelTest, OfTwoCancelsInQuickSuccessionOneIsSent) {
    givenInRoom();
    startMix();
    forgetTheStorySoFar();

    mAdapter->stopLiveMixTranscoding();
    mAdapter->stopLiveMixTranscoding();
    run();

    EXPECT_THAT(requests(), SizeIs(1));
    EXPECT_EQ(log().at(0), (Logged{2, "operator()", "index:2, cdnTaskIndex:3"}));
    EXPECT_THAT(log(), SizeIs(2));
    EXPECT_THAT(told(), IsEmpty());
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(MixCancelTest, CancelSupersedesAMixUnderWay) {
    givenInRoom();
    startMix();

    cancelMix();
    answerTo(0, 0, kOk);
    answerTo(1, 0, kOk);

    EXPECT_THAT(told(), ElementsAre(Told{"onStopLiveMixTranscoding", 0, "sucess"}));
}

TEST_F(MixCancelTest, CancelLeavesTheInformationOfAMixRetryUnderWay) {
    givenRetrySent(kStartMix);

    cancelMix();
    answerTo(1, 0, kOk);

    EXPECT_THAT(told(), ElementsAre(Told{"onSetLiveMixTranscoding", 0, "sucess"}));
    ASSERT_THAT(reports(), SizeIs(1));
    EXPECT_EQ(reports()[0].information, mixText());
}

TEST_F(MixCancelTest, SupersededCancelDoesNotForgetAWaitingMix) {
    givenUser();
    startMix();
    kstmedia::VexaTranscodingConfigInternal refused = mix();
    refused.videoWidth = 0;

    mAdapter->stopLiveMixTranscoding();
    mAdapter->setLiveMixTranscoding(refused);
    run();
    enterRoom();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_EQ(request(0).client, kStartMix.client);
}

TEST_F(MixCancelTest, InformationIsTheFirstBodyNeverARetrys) {
    givenSent(kCancelMix);

    failAndWaitForRetry();
    answerOk();

    ASSERT_NE(body(0), body(1));
    EXPECT_EQ(body(1), cancelBody(1, 1001));
    EXPECT_THAT(reports(), ElementsAre(Reported{31, body(0), tried(10, 1, "") + tried(9, 0, kOk)}));
}

TEST_F(MixCancelTest, RetryNamesTheUserOfItsTimeWhileTheInformationKeepsTheFirst) {
    givenSent(kCancelMix);
    mAdapter->updateUserInfo(kSdkAppId, kUserSig, "bob");
    run();

    failAndWaitForRetry();
    answerOk();

    EXPECT_EQ(body(0), cancelBody(0, 1000));
    EXPECT_EQ(body(1), cancelBody(1, 1001, kBobMain));
    EXPECT_EQ(reports().at(0).information, body(0));
    EXPECT_EQ(mPlatform.reports.at(0).roomUser, "room7_bob");
}

TEST_F(MixCancelTest, RetrysAnswerAfterANewerCancelIsReportedWithTheNewersBodyAndCounter) {
    givenRetrySent(kCancelMix);
    cancelMix();

    answerTo(1, 0, kOk);

    ASSERT_THAT(requests(), SizeIs(3));
    EXPECT_THAT(reports(), ElementsAre(Reported{31, body(2), tried(10, 1, "") + tried(10, 0, kOk)}));
}

TEST_F(MixCancelTest, MixSetWhileACancelRetryWaitsDropsTheRetry) {
    givenSent(kCancelMix);
    answer(kTryAgain, "");

    startMix();
    VirtualTime::runUntilQuiet();

    ASSERT_THAT(requests(), SizeIs(2));
    EXPECT_EQ(request(1).client, kStartMix.client);
}

TEST_F(MixCancelTest, CancelCalledBehindARoomEntryIsSupersededByTheReissuedMix) {
    givenUser();
    startMix();
    forgetTheStorySoFar();

    mAdapter->updateEnterRoomInfo("room7", kMapKey);
    mAdapter->stopLiveMixTranscoding();
    run();

    EXPECT_EQ(log().at(0), (Logged{2, "operator()", "index:2, cdnTaskIndex:3"}));
    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_EQ(request(0).client, kStartMix.client);
}

TEST_F(MixCancelTest, TraceKeepsToTheCancelsOwnCounterBesideANewMix) {
    givenRetrySent(kCancelMix);
    startMix();  // zeroes the cancel's counter

    answerTo(1, 0, kOk);

    EXPECT_THAT(reports().at(0).detail, tried(10, 1, "") + tried(0, 0, kOk));
}
