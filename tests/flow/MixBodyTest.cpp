// The body of a mix request and the description that opens its trace.

#include "FlowTest.h"
#include "base/Md5.h"

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

    std::string mixBody(const std::string& inputs, const std::string& settings = kAllSettings) {
        return R"({"appid":12345,"domain":"8888.push.test","event_id":)" + std::to_string(eventId(0)) +
               R"(,"input_stream_list":[)" + inputs + R"(],"interface":"set_live_mix_transcoding","output_param":{)" +
               settings +
               R"("output_stream_id":"8888_fcbd0847daa9c600a757e0d48049b252","output_stream_type":0},"path":"live",)"
               R"("session_id":"8888_fcbd0847daa9c600a757e0d48049b252","timestamp":1000,"use_mix_crop_center":1})";
    }
    static std::string description(int pure, const std::string& inputs) {
        return "task_id:1, pureAudioOutputStream:" + std::to_string(pure) + R"(, stream: {"input_stream_list":[)" +
               inputs +
               R"(],"output_param":{"output_stream_id":"8888_fcbd0847daa9c600a757e0d48049b252",)"
               R"("output_stream_type":0},"session_id":"8888_fcbd0847daa9c600a757e0d48049b252"})";
    }

    static std::string streamId(const std::string& name) { return "8888_" + kstmedia::getMD5(name); }

    // Starts the mix and lets it succeed.
    void mixed(const VexaTranscodingConfigInternal& config) {
        startMix(config);
        ASSERT_THAT(requests(), SizeIs(1));
        answerOk();
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
    std::vector<VexaMixUserInternal> users;
    std::string inputs = kCanvas;
    std::string reportedInputs = kReportedCanvas;
    for (int i = 0; i <= 16; ++i) {
        const std::string name = "user" + std::to_string(i);
        users.push_back(user(name, i));
        users.back().rect = {i, 2 * i, 3 * i, 4 * i};
        inputs += "," + input(streamId("room7_" + name + "_main"), i + 2, 0, i, 2 * i, 3 * i, 4 * i);
        reportedInputs += "," + reportedInput(streamId("room7_" + name + "_main"), i + 2, 0);
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
        forgetTheStorySoFar();
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
        forgetTheStorySoFar();
        VexaMixUserInternal bob = user("bob", 1);
        bob.streamType = type;

        startMix(mix({bob}));
        answerOk();

        EXPECT_EQ(body(0), mixBody(std::string(kCanvas) + "," + fullInput(bobsStream, 2, 0))) << type;
        EXPECT_THAT(reports().at(0).detail, HasSubstr(reportedInput(bobsStream, 2, 0))) << type;
    }
}

TEST_F(MixBodyTest, NamesOfAnyTextBecomeStreamIds) {
    VexaMixUserInternal odd = user("a \"quoted\" b\\ü 中", 1);
    VexaMixUserInternal oddRoom = user("a \"quoted\" b\\ü 中", 2);
    oddRoom.roomId = "röom \"7\"";
    const VexaMixUserInternal endless = user(std::string(5000, 'x'), 3);
    const VexaMixUserInternal nameless = user("", 4);

    mixed(mix({odd, oddRoom, endless, nameless}));

    EXPECT_EQ(body(0), mixBody(std::string(kCanvas) + "," + fullInput("8888_0800ebad1eae16480b20595cabdc20ad", 2, 0) +
                               "," + fullInput("8888_5811b5d80b670e2a8ae763c89d5696af", 3, 0) + "," +
                               fullInput("8888_3b0af0453b60095dd98bfe70a739af04", 4, 0) + "," +
                               fullInput(streamId("room7__main"), 5, 0)));
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

    EXPECT_EQ(eventId(1), eventId(0) + 1);
    EXPECT_THAT(body(1), HasSubstr("\"event_id\":" + std::to_string(eventId(1)) + ","));
}

TEST_F(MixBodyTest, RetryAfterClearSendsZeroesAndNoInputs) {
    startMix();
    answer(kTryAgain, "");
    mAdapter->clear();
    forgetTheStorySoFar();

    pass(Milliseconds(1000));

    std::string expected = mixBody("", R"("output_audio_bitrate":0,"output_audio_channels":0,)"
                                       R"("output_audio_sample_rate":0,"output_sei":"{}","output_stream_bitrate":0,)"
                                       R"("output_stream_frame_rate":0,"output_stream_gop":0,)");
    expected.replace(expected.find(":1000,"), 6, ":1001,");
    EXPECT_EQ(body(0), expected);
}

// ---- The description is made when the first answer comes
// -------------------------------------------------------------

TEST_F(MixBodyTest, DescriptionAfterClearIsThatOfAnEmptyMix) {
    startMix();

    mAdapter->clear();
    answerOk();

    EXPECT_EQ(reportedDescription(), description(1, ""));
}

TEST_F(MixBodyTest, DescriptionNamesTheUserAndRoomOfTheFirstAnswersTime) {
    startMix(mix({user("bob", 1)}));
    mAdapter->updateUserInfo(kSdkAppId, kUserSig, "carol");
    enterRoom("room9");

    answer(kTryAgain, "");
    enterRoom("room10");
    pass(Milliseconds(1000));
    answerOk();

    EXPECT_EQ(reportedDescription(),
              std::string(R"(task_id:1, pureAudioOutputStream:0, stream: {"input_stream_list":[)") + kReportedCanvas +
                  "," + reportedInput(streamId("room9_bob_main"), 2, 0) + R"(],"output_param":{"output_stream_id":")" +
                  kCarolInRoom9 + R"(","output_stream_type":0},"session_id":")" + kCarolInRoom9 + "\"}");
}

TEST_F(MixBodyTest, DescriptionShowsTheTasksIndex) {
    startMix();
    startMix();
    answerTo(1, 0, kOk);

    EXPECT_THAT(reports().at(0).detail, testing::StartsWith("task_id:2, pureAudioOutputStream:0, stream: {"));
}

TEST_F(MixBodyTest, DescriptionHasNoEnvelopeAndNoQuality) {
    mixed(mix());

    for (const char* key : {"interface", "timestamp", "event_id", "appid", "path", "domain", "bitrate", "gop",
                            "frame_rate", "audio_", "sei", "image_width", "location_x", "color", "crop"}) {
        EXPECT_THAT(reportedDescription(), Not(HasSubstr(key)));
    }
}
