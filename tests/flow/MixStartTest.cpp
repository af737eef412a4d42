// Starting and updating a mix.

#include "FlowTest.h"

using kstmedia::VexaMixUserInternal;
using kstmedia::VexaTranscodingConfigInternal;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

using Field = int32_t VexaTranscodingConfigInternal::*;

constexpr Field kIds[] = {&VexaTranscodingConfigInternal::appId, &VexaTranscodingConfigInternal::bizId};
constexpr Field kMediaFields[] = {
    &VexaTranscodingConfigInternal::videoWidth,   &VexaTranscodingConfigInternal::videoHeight,
    &VexaTranscodingConfigInternal::videoBitrate, &VexaTranscodingConfigInternal::videoFramerate,
    &VexaTranscodingConfigInternal::videoGOP,     &VexaTranscodingConfigInternal::audioSampleRate,
    &VexaTranscodingConfigInternal::audioBitrate, &VexaTranscodingConfigInternal::audioChannels};

}  // namespace

class MixStartTest : public FlowTest {
protected:
    static constexpr const char* kInvalid = "setLiveMixTranscoding failure, param is invalid";

    void expectRefused(const VexaTranscodingConfigInternal& config, const std::string& logged) {
        clearRecords();
        startMix(config);
        EXPECT_THAT(notified(), ElementsAre(Notified{"onStartPublishStreamUrl", -3324, kInvalid}));
        EXPECT_THAT(reports(), ElementsAre(Reported{31, config.to_string(), kInvalid}));
        EXPECT_THAT(requests(), IsEmpty());
        ASSERT_THAT(log(), SizeIs(2));
        EXPECT_EQ(log()[1], (Logged{4, "operator()", logged}));
    }

    static std::string refusal(const VexaTranscodingConfigInternal& config) {
        std::vector<std::string> numbers;
        for (const Field field : kIds) {
            numbers.push_back(std::to_string(config.*field));
        }
        for (const Field field : kMediaFields) {
            numbers.push_back(std::to_string(config.*field));
        }
        return filled(
            "setLiveMixTranscoding error: param invalid, appId:%d, bizId:%d, videoWidth:%d, videoHeight:%d, "
            "videoBitrate:%d, videoFramerate:%d, videoGOP:%d,                 audioSampleRate:%d, audioBitrate:%d, "
            "audioChannels:%d,",
            numbers);
    }
};

// ---- Parameters -----------------------------------------------------------------------------------------------------

TEST_F(MixStartTest, VideoMixNeedsAllTenNumbers) {
    givenInRoom();
    for (const auto& fields : {std::vector<Field>(std::begin(kIds), std::end(kIds)),
                               std::vector<Field>(std::begin(kMediaFields), std::end(kMediaFields))}) {
        for (const Field field : fields) {
            VexaTranscodingConfigInternal config = mix();
            config.*field = 0;
            expectRefused(config, refusal(config));
        }
    }
}

TEST_F(MixStartTest, RefusalsLineKeepsItsRunOfSeventeenBlanksAndItsLastComma) {
    givenInRoom();
    VexaTranscodingConfigInternal config = mix();
    config.videoGOP = 0;

    startMix(config);

    EXPECT_THAT(log(), ElementsAre(Logged{2, "operator()", "bPureAudio:0"},
                                   Logged{4, "operator()",
                                          "setLiveMixTranscoding error: param invalid, appId:12345, bizId:8888, "
                                          "videoWidth:720, videoHeight:1280, videoBitrate:1500, videoFramerate:20, "
                                          "videoGOP:0,                 audioSampleRate:48000, audioBitrate:64, "
                                          "audioChannels:2,"}));
    EXPECT_THAT(mPlatform.order, ElementsAre("onStartPublishStreamUrl", "report 31"));
}

TEST_F(MixStartTest, PureAudioMixNeedsOnlyTheIds) {
    givenInRoom();
    VexaTranscodingConfigInternal config = mix({audioUser("alice")});
    for (const Field field : kMediaFields) {
        config.*field = 0;
    }

    startMix(config);
    EXPECT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(notified(), IsEmpty());

    for (const Field field : kIds) {
        VexaTranscodingConfigInternal incomplete = config;
        incomplete.*field = 0;
        expectRefused(incomplete, refusal(incomplete));
    }
}

TEST_F(MixStartTest, MinusOneIsAValueInAllTenNumbers) {
    givenInRoom();
    VexaTranscodingConfigInternal config = mix();
    for (const Field field : kIds) {
        config.*field = -1;
    }
    for (const Field field : kMediaFields) {
        config.*field = -1;
    }

    startMix(config);

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(body(0), HasSubstr(R"({"appid":-1,"domain":"-1.push.test",)"));
    EXPECT_THAT(body(0), HasSubstr(R"("output_param":{"output_sei":"{}","output_stream_id":)"));
}

TEST_F(MixStartTest, EmptyListWithMissingIdsIsAParameterError) {
    givenInRoom();
    VexaTranscodingConfigInternal config = mix({});
    config.appId = 0;

    expectRefused(config, refusal(config));
    EXPECT_EQ(log().at(0).text, "bPureAudio:1");
}

TEST_F(MixStartTest, CallAlwaysReturnsZeroAndDoesNothingItself) {
    VexaTranscodingConfigInternal incomplete = mix();
    incomplete.appId = 0;

    EXPECT_EQ(mAdapter->setLiveMixTranscoding(mix()), 0);
    EXPECT_EQ(mAdapter->setLiveMixTranscoding(mix({})), 0);
    EXPECT_EQ(mAdapter->setLiveMixTranscoding(incomplete), 0);

    expectNoEffects();
}

TEST_F(MixStartTest, RefusedUsersLeaveAWaitingConfigurationWaiting) {
    givenUser();
    startMix();
    startMix(mix({}));

    enterRoom();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(body(0), HasSubstr(kAliceMain));
    respondOk();
    EXPECT_THAT(reports().back().information, mixText());
}

// ---- Users ----------------------------------------------------------------------------------------------------------

TEST_F(MixStartTest, RefusalsLeaveTheIdsOfTheRunningMix) {
    givenSent(kStartMix);
    respondOk();
    VexaTranscodingConfigInternal refused = mix({});
    refused.appId = 77;
    refused.bizId = 66;

    startMix(refused);
    begin(kCancelMix);
    startMix();

    EXPECT_THAT(body(1), HasSubstr(R"({"appid":12345,"domain":"8888.push.test",)"));
    EXPECT_THAT(body(1), HasSubstr(kAliceMain));
    EXPECT_THAT(requests(), SizeIs(3));
}

TEST_F(MixStartTest, SupersededMixWithBadUsersIsDroppedWithoutACheck) {
    givenInRoom();

    mAdapter->setLiveMixTranscoding(mix({}));
    mAdapter->setLiveMixTranscoding(mix());
    run();

    EXPECT_THAT(notified(), IsEmpty());
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_THAT(
        log(),
        ElementsAre(Logged{2, "operator()", "bPureAudio:1"}, Logged{2, "operator()", "index:1, cdnTaskIndex:2"},
                    Logged{2, "operator()", "bPureAudio:0"},
                    Logged{2, "startMixStream", "startMixStream index: 2, retryStartMixCnt:0, jsonStr: " + body(0)}));
}

TEST_F(MixStartTest, ClearBetweenTheCallAndItsTaskChangesNothing) {
    givenInRoom();

    mAdapter->setLiveMixTranscoding(mix());
    mAdapter->clear();
    run();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(body(0), HasSubstr(std::string(R"("input_stream_id":")") + kAliceMain));
    EXPECT_THAT(body(0), HasSubstr(R"("output_stream_bitrate":1500)"));
}

TEST_F(MixStartTest, ConfigurationIsCopiedInTheCall) {
    givenInRoom();
    VexaTranscodingConfigInternal changing = mix();

    mAdapter->setLiveMixTranscoding(changing);
    changing.mixUsersArray[0].userId = "bob";
    changing.appId = 1;
    run();

    EXPECT_THAT(body(0), HasSubstr(R"({"appid":12345,)"));
    EXPECT_THAT(body(0), testing::Not(HasSubstr(kBobMain)));
}

// ---- Before room entry ----------------------------------------------------------------------------------------------

TEST_F(MixStartTest, WaitingConfigurationIsStoredUnsortedAndSentSorted) {
    givenUser();
    startMix(mix({user("bob", 3), user("alice", 1)}));
    enterRoom();
    respondOk();

    EXPECT_LT(body(0).find(std::string("{\"input_stream_id\":\"") + kAliceMain),
              body(0).find(std::string("{\"input_stream_id\":\"") + kBobMain));
    const std::string information = reports().back().information;
    EXPECT_LT(information.find("mixUser1:[userId:bob"), information.find("mixUser2:[userId:alice"));
    EXPECT_NE(information.find("mixUser1:[userId:bob"), std::string::npos);
}

TEST_F(MixStartTest, WaitingConfigurationIsStoredWhole) {
    givenUser();
    VexaTranscodingConfigInternal config = mix();
    config.mode = 42;
    config.appId = 1;
    config.bizId = 2;
    int32_t next = 100;
    for (const Field field : kMediaFields) {
        config.*field = next++;
    }
    config.mixUsersArray[0].roomId = "room9";
    config.mixUsersArray[0].streamType = 2;
    startMix(config);

    enterRoom();
    respondOk();

    EXPECT_EQ(reports().back().information, config.to_string());
}

TEST_F(MixStartTest, WaitingMixThatIsRefusedAtRoomEntryIsSentAgainAtTheNext) {
    givenUser();
    startMix();
    mAdapter->clear();

    enterRoom();
    enterRoom("room8");

    EXPECT_THAT(notified(), ElementsAre(Notified{"onStartPublishStreamUrl", -3324, kInvalid},
                                        Notified{"onStartPublishStreamUrl", -3324, kInvalid}));
}

// ---- Sent and responded to
// ---------------------------------------------------------------------------------------------

TEST_F(MixStartTest, InformationKeepsTheCallersOrder) {
    givenInRoom();
    startMix(mix({user("bob", 3), user("alice", 1)}));

    respondOk();

    EXPECT_EQ(
        reports().at(0).information,
        mixText(" mixUser1:[userId:bob, roomId:, rect:(x:0-y:0-w:720-h:1280), zOrder:3, pureAudio:0, streamType:0]"
                " mixUser2:[userId:alice, roomId:, rect:(x:0-y:0-w:720-h:1280), zOrder:1, pureAudio:0, "
                "streamType:0]"));
}

TEST_F(MixStartTest, NewMixDoesNotKeepARetryUnderWayFromNotifyingTheListener) {
    givenRetrySent(kStartMix);
    startMix(mix({user("bob", 1)}));

    respondTo(1, 0, kOk);

    EXPECT_THAT(notified(), ElementsAre(Notified{"onSetLiveMixTranscoding", 0, "sucess"}));
    ASSERT_THAT(reports(), SizeIs(1));
    EXPECT_THAT(reports()[0].information, HasSubstr("userId:bob"));
    EXPECT_THAT(reports()[0].detail, testing::StartsWith("task_id:1, "));
}

TEST_F(MixStartTest, RetryHasTheUserAndRoomOfItsTime) {
    givenInRoom();
    startMix();
    respond(kTryAgain, "");
    mAdapter->updateUserInfo(kSdkAppId, kUserSig, "bob");
    run();

    pass(Milliseconds(1000));

    EXPECT_THAT(body(1), HasSubstr(std::string(R"("session_id":")") + kBobMain));
    EXPECT_THAT(body(1), HasSubstr(std::string(R"("output_stream_id":")") + kBobMain));
    EXPECT_THAT(body(1), HasSubstr(std::string(R"("input_stream_id":")") + kAliceMain));
}
