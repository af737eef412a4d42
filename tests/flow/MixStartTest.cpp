// Starting and updating a mix.

#include "Com/LiveRequests.h"
#include "FlowTest.h"

using kstmedia::VexaTranscodingConfigInternal;
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using vexalive::requests::ConfigField;
using vexalive::requests::kConfigFields;

class MixStartTest : public FlowTest {
protected:
    static constexpr const char* kInvalid = "setLiveMixTranscoding failure, param is invalid";

    void SetUp() override { givenInRoom(); }

    // Expects a refusal if this number is 0. The interface prescribes the listener call of the relay start (intended).
    void expectRefusedWithout(const ConfigField& missing, VexaTranscodingConfigInternal config) {
        SCOPED_TRACE(missing.name);
        config.*missing.value = 0;
        clearRecords();
        startMix(config);
        EXPECT_THAT(notified(), ElementsAre(Call{"startRelay", -3324, kInvalid}));
        EXPECT_THAT(reports(), ElementsAre(Reported{31, config.to_string(), kInvalid}));
        EXPECT_THAT(mPlatform.order, ElementsAre("startRelay", "report 31"));
        ASSERT_THAT(log(), SizeIs(2));
        EXPECT_EQ(log()[1].level, 4);
    }
};

// ---- Numbers --------------------------------------------------------------------------------------------------------

TEST_F(MixStartTest, VideoMixNeedsAllTenNumbers) {
    EXPECT_EQ(std::size(kConfigFields), 10u);
    for (const ConfigField& field : kConfigFields) {
        expectRefusedWithout(field, mix());
        EXPECT_EQ(log()[0].text, "bPureAudio:0");
    }
}

TEST_F(MixStartTest, LogLineOfARefusalHasAllNumbersSeventeenBlanksAndATrailingComma) {
    VexaTranscodingConfigInternal config = mix();
    config.videoGOP = 0;

    startMix(config);

    EXPECT_EQ(log().at(1).function, "operator()");
    EXPECT_EQ(log().at(1).text,
              "setLiveMixTranscoding error: param invalid, appId:12345, bizId:8888, videoWidth:720, videoHeight:1280, "
              "videoBitrate:1500, videoFramerate:20, videoGOP:0,                 audioSampleRate:48000, "
              "audioBitrate:64, audioChannels:2,");
}

TEST_F(MixStartTest, PureAudioOrEmptyMixNeedsOnlyTheIds) {
    VexaTranscodingConfigInternal config = mix({audioUser("alice")});
    for (const ConfigField& field : kConfigFields) {
        config.*field.value = field.use == ConfigField::kId ? 1 : 0;
    }

    startMix(config);

    EXPECT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(notified(), IsEmpty());
    for (const ConfigField& id : {kConfigFields[0], kConfigFields[1]}) {
        expectRefusedWithout(id, config);
        expectRefusedWithout(id, mix({}));
        EXPECT_EQ(log()[0].text, "bPureAudio:1");
    }
}

TEST_F(MixStartTest, MinusOneIsAValueInAllTenNumbers) {
    VexaTranscodingConfigInternal config = mix();
    for (const ConfigField& field : kConfigFields) {
        config.*field.value = -1;
    }

    startMix(config);

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(body(0), HasSubstr(R"({"appid":-1,"domain":"-1.push.test",)"));
    EXPECT_THAT(body(0), HasSubstr(R"("image_height":-1,"image_layer":1,"image_width":-1,"input_type":3)"));
    EXPECT_THAT(body(0), HasSubstr(R"("output_param":{"output_sei":"{}","output_stream_id":)"));
}

TEST_F(MixStartTest, CallAlwaysReturnsZeroAndDoesNothingItself) {
    EXPECT_EQ(mAdapter->setLiveMixTranscoding(mix()), 0);
    EXPECT_EQ(mAdapter->setLiveMixTranscoding(mix({})), 0);
    EXPECT_EQ(mAdapter->setLiveMixTranscoding({}), 0);

    expectNoEffects();
}

TEST_F(MixStartTest, RefusedUsersDoNotDropAWaitingConfiguration) {
    reset();
    startMix();
    startMix(mix({}));

    enterRoom();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(body(0), HasSubstr(kAliceMain));
    respondOk();
    EXPECT_THAT(reports().back().information, mix().to_string());
}

// ---- Users ----------------------------------------------------------------------------------------------------------

TEST_F(MixStartTest, RefusalsDoNotChangeTheIdsOfTheRunningMix) {
    startMix();
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
    mAdapter->setLiveMixTranscoding(mix({}));
    mAdapter->setLiveMixTranscoding(mix());
    run();

    expectNeitherNotifiedNorReported();
    EXPECT_THAT(log(),
                ElementsAre(Logged{2, "operator()", "bPureAudio:1"}, Logged{2, "operator()", "index:1, cdnTaskIndex:2"},
                            Logged{2, "operator()", "bPureAudio:0"}, sendLog(kStartMix, 2, 0, body(0))));
}

TEST_F(MixStartTest, ClearBetweenTheCallAndItsTaskChangesNothing) {
    mAdapter->setLiveMixTranscoding(mix());
    mAdapter->clear();
    run();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(body(0), HasSubstr(member("input_stream_id", kAliceMain)));
    EXPECT_THAT(body(0), HasSubstr(R"("output_stream_bitrate":1500)"));
}

TEST_F(MixStartTest, ConfigurationIsCopiedInTheCall) {
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
    reset();
    startMix(mix({user("bob", 3), user("alice", 1)}));
    enterRoom();
    respondOk();

    EXPECT_THAT(body(0),
                ContainsRegex(member("input_stream_id", kAliceMain) + ".*" + member("input_stream_id", kBobMain)));
    EXPECT_THAT(reports().back().information, ContainsRegex("mixUser1:.userId:bob.*mixUser2:.userId:alice"));
}

TEST_F(MixStartTest, WaitingConfigurationIsStoredWhole) {
    reset();
    VexaTranscodingConfigInternal config = mix();
    config.mode = 42;
    int32_t next = 100;
    for (const ConfigField& field : kConfigFields) {
        config.*field.value = next++;
    }
    config.mixUsersArray[0].roomId = "room9";
    config.mixUsersArray[0].streamType = 2;
    startMix(config);

    enterRoom();
    respondOk();

    EXPECT_EQ(reports().back().information, config.to_string());
}

TEST_F(MixStartTest, WaitingMixThatIsRefusedAtRoomEntryIsSentAgainAtTheNext) {
    reset();
    startMix();
    mAdapter->clear();

    enterRoom();
    enterRoom("room8");

    EXPECT_THAT(notified(), ElementsAre(Call{"startRelay", -3324, kInvalid}, Call{"startRelay", -3324, kInvalid}));
}
