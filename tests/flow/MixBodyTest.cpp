// The body of a mix request and the description that opens its trace.

#include "FlowTest.h"

using kstmedia::VexaMixUserInternal;
using kstmedia::VexaTranscodingConfigInternal;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;

class MixBodyTest : public FlowTest {
protected:
    void SetUp() override { givenInRoom(); }

    static constexpr const char* kAllSettings =
        R"("output_audio_bitrate":64,"output_audio_channels":2,"output_audio_sample_rate":48000,"output_sei":"{}",)"
        R"("output_stream_bitrate":1500,"output_stream_frame_rate":20,"output_stream_gop":2,)";
    static constexpr const char* kCanvas =
        R"({"input_stream_id":"canvas1","layout_params":{"color":"0x000000","image_height":1280,"image_layer":1,)"
        R"("image_width":720,"input_type":3,"location_x":0,"location_y":0}})";
    static constexpr const char* kReportedCanvas =
        R"({"input_stream_id":"canvas1","layout_params":{"image_layer":1,"input_type":3}})";

    static constexpr const char* kOddName = "a \"quoted\" b\\ü 中";
    static constexpr const char* kOddRoom = "röom \"7\"";
    static constexpr const char* kOddNameInOddRoom = "8888_5811b5d80b670e2a8ae763c89d5696af";

    // One input as the body shows it; the rectangle's numbers as x, y, w, h.
    static std::string input(const std::string& streamId, int layer, int type, int x, int y, int w, int h) {
        return "{\"input_stream_id\":\"" + streamId + "\",\"layout_params\":{\"image_height\":" + std::to_string(h) +
               ",\"image_layer\":" + std::to_string(layer) + ",\"image_width\":" + std::to_string(w) +
               ",\"input_type\":" + std::to_string(type) + ",\"location_x\":" + std::to_string(x) +
               ",\"location_y\":" + std::to_string(y) + "}}";
    }
    static std::string fullInput(const std::string& streamId, int layer, int type) {
        return input(streamId, layer, type, 0, 0, 720, 1280);
    }
    static std::string reportedInput(const std::string& streamId, int layer, int type) {
        return "{\"input_stream_id\":\"" + streamId + "\",\"layout_params\":{\"image_layer\":" + std::to_string(layer) +
               ",\"input_type\":" + std::to_string(type) + "}}";
    }

    // The body of the first request.
    std::string mixBody(const std::string& inputs, const std::string& settings = kAllSettings,
                        const std::string& ownStream = kAliceMain, int timestamp = 1000) {
        return R"({"appid":12345,"domain":"8888.push.test","event_id":)" + std::to_string(eventId(0)) +
               R"(,"input_stream_list":[)" + inputs + R"(],"interface":"set_live_mix_transcoding","output_param":{)" +
               settings + R"("output_stream_id":")" + ownStream +
               R"(","output_stream_type":0},"path":"live","session_id":")" + ownStream + R"(","timestamp":)" +
               std::to_string(timestamp) + R"(,"use_mix_crop_center":1})";
    }
    static std::string description(int pure, const std::string& inputs, const std::string& ownStream = kAliceMain) {
        return "task_id:1, pureAudioOutputStream:" + std::to_string(pure) + R"(, stream: {"input_stream_list":[)" +
               inputs + R"(],"output_param":{"output_stream_id":")" + ownStream +
               R"(","output_stream_type":0},"session_id":")" + ownStream + "\"}";
    }

    // Starts the mix and lets it succeed.
    void mixed(const VexaTranscodingConfigInternal& config) {
        startMix(config);
        ASSERT_THAT(requests(), SizeIs(1));
        respondOk();
        ASSERT_THAT(reports(), SizeIs(1));
    }
    std::string reportedDescription() const {
        const std::string detail = reports().at(0).detail;
        return detail.substr(0, detail.find(" [tryHttp:"));
    }
};

TEST_F(MixBodyTest, OneUserWithVideo) {
    mixed(mix());

    EXPECT_EQ(body(0), mixBody(std::string(kCanvas) + "," + fullInput(kAliceMain, 2, 0)));
    EXPECT_EQ(reportedDescription(),
              description(0, std::string(kReportedCanvas) + "," + reportedInput(kAliceMain, 2, 0)));
}

TEST_F(MixBodyTest, ThreeUsersTakeRunningLayersWhateverTheirOwn) {
    VexaMixUserInternal carol = user("carol", 9);
    carol.roomId = "room9";
    carol.rect = {-5, 10, 360, 640};
    VexaMixUserInternal bob = user("bob", 5);
    bob.rect = {1, 2, 3, 4};

    mixed(mix({user("alice", 1), bob, carol}));

    EXPECT_EQ(body(0), mixBody(std::string(kCanvas) + "," + fullInput(kAliceMain, 2, 0) + "," +
                               input(kBobMain, 3, 0, 1, 2, 3, 4) + "," + input(kCarolInRoom9, 4, 0, -5, 10, 360, 640)));
    EXPECT_EQ(reportedDescription(),
              description(0, std::string(kReportedCanvas) + "," + reportedInput(kAliceMain, 2, 0) + "," +
                                 reportedInput(kBobMain, 3, 0) + "," + reportedInput(kCarolInRoom9, 4, 0)));
}

TEST_F(MixBodyTest, DescriptionListsTheInputsInAscendingLayersToo) {
    mixed(mix({user("bob", 7), user("alice", 3)}));

    EXPECT_EQ(reportedDescription(),
              description(0, std::string(kReportedCanvas) + "," + reportedInput(kAliceMain, 2, 0) + "," +
                                 reportedInput(kBobMain, 3, 0)));
}

TEST_F(MixBodyTest, SeventeenUsers) {
    // The digests of room7_user0_main to room7_user16_main.
    const char* const streams[] = {"8888_65124ebf89d2fe3b548c60c7435f307a", "8888_fc49597a372a571f3079a91c3f749e5a",
                                   "8888_0dc6f664be8da69ff92bf3d555a66505", "8888_85b24164a870088ff0b9f7c892c6f198",
                                   "8888_bcf6427db9aa964e11852d81b99e156c", "8888_9b0cee6156f0e866aadd97f26bb99f9f",
                                   "8888_7e1f3fcc60b1323754b3096d000431bf", "8888_1e2ba688824a29f0dacf54782e0279a9",
                                   "8888_19f8767623ba1929edc08ff0d9a12154", "8888_39c93f85c9c0503a4ad7ed4dd27a6340",
                                   "8888_90aea8ee466b3aab77caa256a6b8a261", "8888_e01daa1712e8fc692fda3c672bbd4ce2",
                                   "8888_005ba854866900ca55ec8423c5516398", "8888_fe185051c946841965af2b5335c13cc2",
                                   "8888_a72698760e712d7282212e596934b2d9", "8888_6a98e16ac131e102a6091ccb4ca1f372",
                                   "8888_27274b32c1123d6c5f1fe3a7dec68d31"};
    std::vector<VexaMixUserInternal> users;
    std::string inputs = kCanvas;
    std::string reportedInputs = kReportedCanvas;
    int i = 0;
    for (const char* const stream : streams) {
        users.push_back(user("user" + std::to_string(i), i));
        users.back().rect = {i, 2 * i, 3 * i, 4 * i};
        inputs += "," + input(stream, i + 2, 0, i, 2 * i, 3 * i, 4 * i);
        reportedInputs += "," + reportedInput(stream, i + 2, 0);
        ++i;
    }

    mixed(mix(users));

    EXPECT_EQ(body(0), mixBody(inputs));
    EXPECT_EQ(reportedDescription(), description(0, reportedInputs));
}

TEST_F(MixBodyTest, AudioOnlyHasNoCanvasAndStartsAtLayerOne) {
    mixed(mix({audioUser("bob"), audioUser("alice")}));

    EXPECT_EQ(body(0), mixBody(fullInput(kBobMain, 1, 4) + "," + fullInput(kAliceMain, 2, 4)));
    EXPECT_EQ(reportedDescription(),
              description(1, reportedInput(kBobMain, 1, 4) + "," + reportedInput(kAliceMain, 2, 4)));
}

TEST_F(MixBodyTest, AudioInputAmongVideoKeepsItsTypeAndTheCanvas) {
    VexaMixUserInternal bob = user("bob", 2);
    bob.pureAudio = true;

    mixed(mix({user("alice", 4), bob}));

    EXPECT_EQ(body(0),
              mixBody(std::string(kCanvas) + "," + fullInput(kBobMain, 2, 4) + "," + fullInput(kAliceMain, 3, 0)));
    EXPECT_EQ(reportedDescription(), description(0, std::string(kReportedCanvas) + "," + reportedInput(kBobMain, 2, 4) +
                                                        "," + reportedInput(kAliceMain, 3, 0)));
}

TEST_F(MixBodyTest, AllOutputFieldsUnsetLeaveThreeKeys) {
    VexaTranscodingConfigInternal config = mix();
    config.videoBitrate = config.videoGOP = config.videoFramerate = -1;
    config.audioSampleRate = config.audioBitrate = config.audioChannels = -1;

    mixed(config);

    EXPECT_EQ(body(0), mixBody(std::string(kCanvas) + "," + fullInput(kAliceMain, 2, 0), R"("output_sei":"{}",)"));
}

TEST_F(MixBodyTest, EachOutputFieldIsLeftOutOnItsOwn) {
    using Field = int32_t VexaTranscodingConfigInternal::*;
    const std::pair<Field, const char*> fields[] = {
        {&VexaTranscodingConfigInternal::videoBitrate, R"("output_stream_bitrate":1500,)"},
        {&VexaTranscodingConfigInternal::videoGOP, R"("output_stream_gop":2,)"},
        {&VexaTranscodingConfigInternal::videoFramerate, R"("output_stream_frame_rate":20,)"},
        {&VexaTranscodingConfigInternal::audioSampleRate, R"("output_audio_sample_rate":48000,)"},
        {&VexaTranscodingConfigInternal::audioBitrate, R"("output_audio_bitrate":64,)"},
        {&VexaTranscodingConfigInternal::audioChannels, R"("output_audio_channels":2,)"},
    };
    for (const auto& [field, member] : fields) {
        clearRecords();
        VexaTranscodingConfigInternal config = mix();
        config.*field = -1;
        std::string settings = kAllSettings;
        settings.erase(settings.find(member), std::string(member).size());

        startMix(config);

        EXPECT_EQ(body(0), mixBody(std::string(kCanvas) + "," + fullInput(kAliceMain, 2, 0), settings));
    }
}

TEST_F(MixBodyTest, OutputFieldsAreSentWhateverElseTheirValue) {
    VexaTranscodingConfigInternal config = mix({audioUser("alice")});
    config.videoBitrate = 0;
    config.videoGOP = -2;
    config.videoFramerate = 2147483647;
    config.audioSampleRate = -2147483647 - 1;
    config.audioBitrate = 0;
    config.audioChannels = 1;

    mixed(config);

    EXPECT_EQ(body(0), mixBody(fullInput(kAliceMain, 1, 4),
                               R"("output_audio_bitrate":0,"output_audio_channels":1,)"
                               R"("output_audio_sample_rate":-2147483648,"output_sei":"{}","output_stream_bitrate":0,)"
                               R"("output_stream_frame_rate":2147483647,"output_stream_gop":-2,)"));
}

TEST_F(MixBodyTest, CanvasSizeOfMinusOneIsSent) {
    VexaTranscodingConfigInternal config = mix();
    config.videoWidth = -1;
    config.videoHeight = -1;

    mixed(config);

    EXPECT_THAT(body(0), HasSubstr(R"("image_height":-1,"image_layer":1,"image_width":-1,"input_type":3)"));
}

TEST_F(MixBodyTest, UserOfAnotherRoomIsNamedByThatRoomAndOthersByTheLocalOne) {
    VexaMixUserInternal carol = user("carol", 1);
    carol.roomId = "room9";

    mixed(mix({carol, user("bob", 2)}));

    EXPECT_EQ(body(0),
              mixBody(std::string(kCanvas) + "," + fullInput(kCarolInRoom9, 2, 0) + "," + fullInput(kBobMain, 3, 0)));
}

TEST_F(MixBodyTest, OnlyStreamTypeTwoIsTheAuxiliaryStream) {
    const std::pair<int, const char*> types[] = {{2, kBobAux},  {0, kBobMain},  {1, kBobMain},
                                                 {3, kBobMain}, {-2, kBobMain}, {7, kBobMain}};
    for (const auto& [type, bobsStream] : types) {
        clearRecords();
        VexaMixUserInternal bob = user("bob", 1);
        bob.streamType = type;

        startMix(mix({bob}));
        respondOk();

        EXPECT_EQ(body(0), mixBody(std::string(kCanvas) + "," + fullInput(bobsStream, 2, 0))) << type;
        EXPECT_THAT(reports().at(0).detail, HasSubstr(reportedInput(bobsStream, 2, 0))) << type;
    }
}

TEST_F(MixBodyTest, NamesOfAnyTextBecomeStreamIds) {
    const VexaMixUserInternal odd = user(kOddName, 1);
    VexaMixUserInternal oddRoom = user(kOddName, 2);
    oddRoom.roomId = kOddRoom;
    const VexaMixUserInternal endless = user(std::string(5000, 'x'), 3);
    const VexaMixUserInternal nameless = user("", 4);
    VexaMixUserInternal endlessRoom = user("bob", 5);
    endlessRoom.roomId = std::string(5000, 'r');

    mixed(mix({odd, oddRoom, endless, nameless, endlessRoom}));

    EXPECT_EQ(body(0), mixBody(std::string(kCanvas) + "," + fullInput("8888_0800ebad1eae16480b20595cabdc20ad", 2, 0) +
                               "," + fullInput(kOddNameInOddRoom, 3, 0) + "," +
                               fullInput("8888_3b0af0453b60095dd98bfe70a739af04", 4, 0) + "," +
                               fullInput("8888_76beca96e210662f1dbb8b8d215d4b17", 5, 0) + "," +
                               fullInput("8888_715754969a5aa83f21b91147109249c7", 6, 0)));
}

TEST_F(MixBodyTest, OwnNamesOfAnyTextBecomeTheOutputsStreamId) {
    mAdapter->updateUserInfo(kSdkAppId, kUserSig, kOddName);
    enterRoom(kOddRoom);

    mixed(mix({user(kOddName, 1)}));

    EXPECT_EQ(body(0), mixBody(std::string(kCanvas) + "," + fullInput(kOddNameInOddRoom, 2, 0), kAllSettings,
                               kOddNameInOddRoom));
    EXPECT_EQ(
        reportedDescription(),
        description(0, std::string(kReportedCanvas) + "," + reportedInput(kOddNameInOddRoom, 2, 0), kOddNameInOddRoom));
}

TEST_F(MixBodyTest, ModeIsReadNowhere) {
    VexaTranscodingConfigInternal config = mix();
    config.mode = -12345;

    mixed(config);

    EXPECT_EQ(body(0), mixBody(std::string(kCanvas) + "," + fullInput(kAliceMain, 2, 0)));
    EXPECT_THAT(reports().at(0).information, HasSubstr("mode:-12345,"));
}

TEST_F(MixBodyTest, TwoMixesHaveConsecutiveEventIds) {
    startMix();
    startMix();

    const int first = eventId(0);
    EXPECT_THAT(body(0), HasSubstr("\"event_id\":" + std::to_string(first) + ","));
    EXPECT_THAT(body(1), HasSubstr("\"event_id\":" + std::to_string(first + 1) + ","));
}

TEST_F(MixBodyTest, RetryAfterClearSendsZeroesAndNoInputs) {
    startMix();
    respond(kTryAgain, "");
    mAdapter->clear();
    clearRecords();

    pass(Milliseconds(1000));

    EXPECT_EQ(body(0), mixBody("",
                               R"("output_audio_bitrate":0,"output_audio_channels":0,"output_audio_sample_rate":0,)"
                               R"("output_sei":"{}","output_stream_bitrate":0,"output_stream_frame_rate":0,)"
                               R"("output_stream_gop":0,)",
                               kAliceMain, 1001));
}

TEST_F(MixBodyTest, RetryHasTheIdsOfARelayStartedMeanwhile) {
    startMix(mix({user("bob", 1)}));
    respond(kTryAgain, "");
    kstmedia::VexaPublishCDNParamInternal param = relay();
    param.appId = 77;
    param.bizId = 66;
    startRelay(param);

    pass(Milliseconds(1000));

    EXPECT_THAT(body(2), HasSubstr(R"({"appid":77,"domain":"66.push.test",)"));
    EXPECT_THAT(body(2), HasSubstr(R"("session_id":"66_fcbd0847daa9c600a757e0d48049b252")"));
    EXPECT_THAT(body(2), HasSubstr(R"("input_stream_id":"66_b2d700c9449aa7a1002cd7ceaceabdca")"));
}

// ---- The description is made when the first response comes
// ------------------------------------------------------------

TEST_F(MixBodyTest, DescriptionAfterClearIsThatOfAnEmptyMix) {
    startMix();

    mAdapter->clear();
    respondOk();

    EXPECT_EQ(reportedDescription(), description(1, ""));
}

TEST_F(MixBodyTest, DescriptionNamesTheUserAndRoomOfTheFirstResponsesTime) {
    startMix(mix({user("bob", 1)}));
    mAdapter->updateUserInfo(kSdkAppId, kUserSig, "carol");
    enterRoom("room9");

    respond(kTryAgain, "");
    enterRoom("room10");
    pass(Milliseconds(1000));
    respondOk();

    const char* const bobInRoom9 = "8888_a3fe5477ad348c0d01c9c65a61dc95be";
    EXPECT_EQ(reportedDescription(),
              description(0, std::string(kReportedCanvas) + "," + reportedInput(bobInRoom9, 2, 0), kCarolInRoom9));
}

TEST_F(MixBodyTest, DescriptionNamesOneRoomThoughTheWorkerEntersAnotherWhileItIsBuilt) {
    startMix(mix({user("bob", 1)}));
    onDigest = [this] { enterRoom("room9"); };

    respondOk();

    EXPECT_EQ(reportedDescription(),
              description(0, std::string(kReportedCanvas) + "," + reportedInput(kBobMain, 2, 0)));
}

TEST_F(MixBodyTest, DescriptionShowsTheTasksIndex) {
    startMix();
    startMix();
    respondTo(1, 0, kOk);

    EXPECT_THAT(reports().at(0).detail, testing::StartsWith("task_id:2, pureAudioOutputStream:0, stream: {"));
}

TEST_F(MixBodyTest, DescriptionHasNoEnvelopeAndNoQuality) {
    mixed(mix());

    for (const char* key : {"interface", "timestamp", "event_id", "appid", "path", "domain", "bitrate", "gop",
                            "frame_rate", "audio_", "sei", "image_width", "location_x", "color", "crop"}) {
        EXPECT_THAT(reportedDescription(), Not(HasSubstr(key)));
    }
}
