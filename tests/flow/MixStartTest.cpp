// Starting and updating a mix.

#include "FlowTest.h"

using kstmedia::VexaMixUserInternal;
using kstmedia::VexaTranscodingConfigInternal;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

using Field = int32_t VexaTranscodingConfigInternal::*;

const std::pair<const char*, Field> kIds[] = {{"appId", &VexaTranscodingConfigInternal::appId},
                                              {"bizId", &VexaTranscodingConfigInternal::bizId}};
const std::pair<const char*, Field> kMediaFields[] = {
    {"videoWidth", &VexaTranscodingConfigInternal::videoWidth},
    {"videoHeight", &VexaTranscodingConfigInternal::videoHeight},
    {"videoBitrate", &VexaTranscodingConfigInternal::videoBitrate},
    {"videoFramerate", &VexaTranscodingConfigInternal::videoFramerate},
    {"videoGOP", &VexaTranscodingConfigInternal::videoGOP},
    {"audioSampleRate", &VexaTranscodingConfigInternal::audioSampleRate},
    {"audioBitrate", &VexaTranscodingConfigInternal::audioBitrate},
    {"audioChannels", &VexaTranscodingConfigInternal::audioChannels}};

}  // namespace

class MixStartTest : public FlowTest {
protected:
    static constexpr const char* kInvalid = "setLiveMixTranscoding failure, param is invalid";
    static constexpr const char* kBadUsers = "mixUsersArray is invalid";

    void expectRefused(const VexaTranscodingConfigInternal& config, const std::string& logged) {
        clearRecords();
        startMix(config);
        EXPECT_THAT(notified(), ElementsAre(Notified{"onStartPublishStreamUrl", -3324, kInvalid}));
        EXPECT_THAT(reports(), ElementsAre(Reported{31, config.to_string(), kInvalid}));
        EXPECT_THAT(requests(), IsEmpty());
        ASSERT_THAT(log(), SizeIs(2));
        EXPECT_EQ(log()[1], (Logged{4, "operator()", logged}));
    }

    static std::string refusal(const VexaTranscodingConfigInternal& c) {
        return filled(
            "setLiveMixTranscoding error: param invalid, appId:%d, bizId:%d, videoWidth:%d, videoHeight:%d, "
            "videoBitrate:%d, videoFramerate:%d, videoGOP:%d," +
                std::string(17, ' ') + "audioSampleRate:%d, audioBitrate:%d, audioChannels:%d,",
            {std::to_string(c.appId), std::to_string(c.bizId), std::to_string(c.videoWidth),
             std::to_string(c.videoHeight), std::to_string(c.videoBitrate), std::to_string(c.videoFramerate),
             std::to_string(c.videoGOP), std::to_string(c.audioSampleRate), std::to_string(c.audioBitrate),
             std::to_string(c.audioChannels)});
    }
};

// ---- Parameters -----------------------------------------------------------------------------------------------------

TEST_F(MixStartTest, VideoMixNeedsAllTenNumbers) {
    givenInRoom();
    for (const auto& [name, field] : kIds) {
        VexaTranscodingConfigInternal config = mix();
        config.*field = 0;
        SCOPED_TRACE(name);
        expectRefused(config, refusal(config));
    }
    for (const auto& [name, field] : kMediaFields) {
        VexaTranscodingConfigInternal config = mix();
        config.*field = 0;
        SCOPED_TRACE(name);
        expectRefused(config, refusal(config));
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
    for (const auto& [name, field] : kMediaFields) {
        config.*field = 0;
    }

    startMix(config);
    EXPECT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(notified(), IsEmpty());

    for (const auto& [name, field] : kIds) {
        VexaTranscodingConfigInternal incomplete = config;
        incomplete.*field = 0;
        SCOPED_TRACE(name);
        expectRefused(incomplete, refusal(incomplete));
    }
}

TEST_F(MixStartTest, MinusOneIsAValueInAllTenNumbers) {
    givenInRoom();
    VexaTranscodingConfigInternal config = mix();
    for (const auto& [name, field] : kIds) {
        config.*field = -1;
    }
    for (const auto& [name, field] : kMediaFields) {
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

TEST_F(MixStartTest, RefusalsLeaveAWaitingConfigurationWaiting) {
    givenUser();
    startMix();
    VexaTranscodingConfigInternal incomplete = mix();
    incomplete.videoWidth = 0;
    startMix(incomplete);
    startMix(mix({}));

    enterRoom();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(body(0), HasSubstr(kAliceMain));
    respondOk();
    EXPECT_THAT(reports().back().information, mixText());
}

// ---- Users ----------------------------------------------------------------------------------------------------------

TEST_F(MixStartTest, RefusedUsersAreNotifiedAndThenReported) {
    givenInRoom();

    startMix(mix({}));

    EXPECT_THAT(notified(), ElementsAre(Notified{"onStartPublishStreamUrl", -3324, kBadUsers}));
    EXPECT_THAT(reports(), ElementsAre(Reported{31, mixText(""), kBadUsers}));
    EXPECT_THAT(mPlatform.order, ElementsAre("onStartPublishStreamUrl", "report 31"));
    EXPECT_THAT(log(), ElementsAre(Logged{2, "operator()", "bPureAudio:1"},
                                   Logged{4, "checkMixConfig", "error: config or config.mixUser can't be null"},
                                   Logged{4, "operator()", "error: checkMixConfig ret invalid cnt:0"}));
}

TEST_F(MixStartTest, RefusedUsersAreStoredNowhere) {
    givenInRoom();

    startMix(mix({}));
    cancelMix();

    EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(MixStartTest, RefusalsLeaveTheIdsOfTheRunningMix) {
    givenSent(kStartMix);
    respondOk();
    VexaTranscodingConfigInternal refused = mix({});
    refused.appId = 77;
    refused.bizId = 66;

    startMix(refused);
    cancelMix();

    EXPECT_THAT(body(1), HasSubstr(R"({"appid":12345,"domain":"8888.push.test",)"));
    EXPECT_THAT(body(1), HasSubstr(kAliceMain));
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

TEST_F(MixStartTest, MixIsSentAfterARefusedOne) {
    givenInRoom();
    startMix(mix({}));

    startMix();
    respondOk();

    EXPECT_EQ(notified().back(), (Notified{"onSetLiveMixTranscoding", 0, "sucess"}));
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
    for (const auto& [name, field] : kMediaFields) {
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
// ----------------------------------------------------------------------------------------------

TEST_F(MixStartTest, SuccessIsNotifiedAndThenReportedWithTheDescription) {
    givenInRoom();
    startMix();

    respondOk();

    EXPECT_THAT(
        log(),
        ElementsAre(Logged{2, "operator()", "bPureAudio:0"},
                    Logged{2, "startMixStream", "startMixStream index: 1, retryStartMixCnt:0, jsonStr: " + body(0)},
                    Logged{2, "operator()", std::string("startMixStream index: 1, ret: 0, respData: ") + kOk}));
    EXPECT_THAT(notified(), ElementsAre(Notified{"onSetLiveMixTranscoding", 0, "sucess"}));
    ASSERT_THAT(reports(), SizeIs(1));
    EXPECT_EQ(reports()[0].event, 31);
    EXPECT_EQ(reports()[0].information, mixText());
    EXPECT_THAT(reports()[0].detail, EndsWith("\"} [tryHttp:cnt-10]retCode:0, respData:" + std::string(kOk)));
    EXPECT_THAT(mPlatform.order, ElementsAre("request 0", "onSetLiveMixTranscoding", "report 31"));
}

TEST_F(MixStartTest, ServiceThatIsBusyElevenTimesIsNotifiedAtTheEleventhWithAllResponsesInTheTrace) {
    givenSent(kStartMix);
    const std::string busy = R"({"code":-505,"message":"busy"})";

    respondToAll(0, busy);

    EXPECT_THAT(requests(), SizeIs(11));
    EXPECT_THAT(notified(), ElementsAre(Notified{"onSetLiveMixTranscoding", -300505, "busy"}));
    std::string segments;
    for (int counter = 10; counter >= 0; --counter) {
        segments += traceSegment(counter, 0, busy);
    }
    ASSERT_THAT(reports(), SizeIs(1));
    EXPECT_THAT(reports()[0].detail, EndsWith("\"}" + segments));
}

TEST_F(MixStartTest, UpdateIsTheSameRequestWithTheNewUsers) {
    givenInRoom();
    startMix();
    respondOk();

    startMix(mix({user("alice", 1), user("bob", 2)}));

    ASSERT_THAT(requests(), SizeIs(2));
    EXPECT_EQ(request(1).client, kStartMix.client);
    EXPECT_THAT(body(1), HasSubstr(kBobMain));
    EXPECT_THAT(log().back().text, HasSubstr("startMixStream index: 2, retryStartMixCnt:0, jsonStr: "));
}

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
