// The body of a mix request, and the description of the mix at the start of its trace.

#include <algorithm>
#include <array>

#include "Com/LiveRequests.h"
#include "FlowTest.h"

using kstmedia::VexaMixUserInternal;
using kstmedia::VexaTranscodingConfigInternal;
using ::testing::HasSubstr;

class MixBodyTest : public FlowTest {
protected:
    void SetUp() override { givenInRoom(); }

    static constexpr const char* kAllSettings =
        R"("output_audio_bitrate":64,"output_audio_channels":2,"output_audio_sample_rate":48000,"output_sei":"{}",)"
        R"("output_stream_bitrate":1500,"output_stream_frame_rate":20,"output_stream_gop":2,)";

    static constexpr const char* kOddName = "a \"quoted\" b\\ü 中";
    static constexpr const char* kOddRoom = "röom \"7\"";
    static constexpr const char* kOddNameInOddRoom = "8888_5811b5d80b670e2a8ae763c89d5696af";

    static constexpr int kAudio = 4;  // the type of an input without video
    struct Input {
        std::string streamId;
        int type = 0;
        std::array<int, 4> rect = {0, 0, 720, 1280};
    };
    using Inputs = std::vector<Input>;

    static bool isPureAudio(const Inputs& inputs) {
        return std::all_of(inputs.begin(), inputs.end(), [](const Input& input) { return input.type == kAudio; });
    }
    // The list of the inputs as JSON. If there is video, the canvas is first. A report omits some members of the body.
    static std::string list(const Inputs& inputs, bool isBody) {
        int layer = 1;
        std::string json;
        const auto add = [&](const std::string& id, const char* color, int type, std::array<int, 4> rect) {
            const auto member = [isBody](const char* name, int value) {
                return isBody ? '"' + std::string(name) + "\":" + std::to_string(value) + ',' : "";
            };
            json += std::string(layer == 1 ? "" : ",") + R"({"input_stream_id":")" + id + R"(","layout_params":{)" +
                    (isBody ? color : "") + member("image_height", rect[3]) +
                    "\"image_layer\":" + std::to_string(layer) + ',' + member("image_width", rect[2]) +
                    "\"input_type\":" + std::to_string(type) + ',' + member("location_x", rect[0]) +
                    member("location_y", rect[1]);
            json.back() = '}';
            json += '}';
            ++layer;
        };
        if (!isPureAudio(inputs)) {
            add("canvas1", R"("color":"0x000000",)", 3, {0, 0, 720, 1280});
        }
        for (const Input& input : inputs) {
            add(input.streamId, "", input.type, input.rect);
        }
        return R"("input_stream_list":[)" + json + "]";
    }

    // The body of the first request.
    std::string mixBody(const Inputs& inputs, const std::string& settings = kAllSettings,
                        const std::string& ownStream = kAliceMain, int timestamp = 1000) {
        return R"({"appid":12345,"domain":"8888.push.test","event_id":)" + std::to_string(eventId(0)) + "," +
               list(inputs, true) + R"(,"interface":"set_live_mix_transcoding","output_param":{)" + settings +
               R"("output_stream_id":")" + ownStream + R"(","output_stream_type":0},"path":"live","session_id":")" +
               ownStream + R"(","timestamp":)" + std::to_string(timestamp) + R"(,"use_mix_crop_center":1})";
    }
    void expectDescription(const Inputs& inputs, const std::string& ownStream = kAliceMain) const {
        const std::string detail = reports().at(0).detail;
        EXPECT_EQ(detail.substr(0, detail.find(" [tryHttp:")),
                  "task_id:1, pureAudioOutputStream:" + std::to_string(isPureAudio(inputs)) + ", stream: {" +
                      list(inputs, false) + R"(,"output_param":{"output_stream_id":")" + ownStream +
                      R"(","output_stream_type":0},"session_id":")" + ownStream + "\"}");
    }

    // Starts the mix, responds with success, and expects these inputs in the body and in the report.
    void expectMix(const VexaTranscodingConfigInternal& config, const Inputs& inputs,
                   const std::string& settings = kAllSettings, const std::string& ownStream = kAliceMain) {
        startMix(config);
        ASSERT_THAT(requests(), testing::SizeIs(1));
        EXPECT_EQ(body(0), mixBody(inputs, settings, ownStream));
        respondOk();
        ASSERT_THAT(reports(), testing::SizeIs(1));
        expectDescription(inputs, ownStream);
    }
};

TEST_F(MixBodyTest, InputsAreListedByTheirLayersAndNumberedFromTwoBehindTheCanvas) {
    VexaMixUserInternal carol = user("carol", 9);
    carol.roomId = "room9";
    carol.rect = {-5, 10, 360, 640};
    VexaMixUserInternal bob = user("bob", 5);
    bob.rect = {1, 2, 3, 4};

    expectMix(mix({bob, user("alice", 1), carol}),
              {{kAliceMain}, {kBobMain, 0, {1, 2, 3, 4}}, {kCarolInRoom9, 0, {-5, 10, 360, 640}}});
}

TEST_F(MixBodyTest, AudioOnlyHasNoCanvasAndStartsAtLayerOne) {
    expectMix(mix({audioUser("bob"), audioUser("alice")}), {{kBobMain, kAudio}, {kAliceMain, kAudio}});
}

TEST_F(MixBodyTest, AudioInputAmongVideoKeepsItsTypeAndTheCanvas) {
    expectMix(mix({user("alice", 4), audioUser("bob")}), {{kBobMain, kAudio}, {kAliceMain}});
}

TEST_F(MixBodyTest, OutputFieldsOfMinusOneAreOmitted) {
    VexaTranscodingConfigInternal none = mix();
    std::string settings = kAllSettings;
    for (const vexalive::requests::ConfigField& field : vexalive::requests::kConfigFields) {
        if (field.outputKey) {
            clearRecords();
            none.*field.value = -1;
            const size_t start = settings.find('"' + std::string(field.outputKey));
            settings.erase(start, settings.find(',', start) + 1 - start);

            startMix(none);

            EXPECT_EQ(body(0), mixBody({{kAliceMain}}, settings));
        }
    }
    EXPECT_EQ(settings, R"("output_sei":"{}",)");
}

TEST_F(MixBodyTest, OutputFieldsAreSentWhateverElseTheirValue) {
    VexaTranscodingConfigInternal config = mix({audioUser("alice")});
    config.videoBitrate = 0;
    config.videoGOP = -2;
    config.videoFramerate = 2147483647;
    config.audioSampleRate = -2147483647 - 1;
    config.audioBitrate = 0;
    config.audioChannels = 1;

    expectMix(config, {{kAliceMain, kAudio}},
              R"("output_audio_bitrate":0,"output_audio_channels":1,)"
              R"("output_audio_sample_rate":-2147483648,"output_sei":"{}","output_stream_bitrate":0,)"
              R"("output_stream_frame_rate":2147483647,"output_stream_gop":-2,)");
}

TEST_F(MixBodyTest, OnlyStreamTypeTwoIsTheAuxiliaryStream) {
    for (const int type : {2, 0, 1, 3, -2, 7}) {
        clearRecords();
        VexaMixUserInternal bob = user("bob", 1);
        bob.streamType = type;
        const Inputs inputs = {{type == 2 ? kBobAux : kBobMain}};

        startMix(mix({bob}));
        respondOk();

        EXPECT_EQ(body(0), mixBody(inputs)) << type;
        EXPECT_THAT(reports().at(0).detail, HasSubstr(list(inputs, false))) << type;
    }
}

TEST_F(MixBodyTest, NamesOfAnyCharactersBecomeStreamIdsOfTheUsersRoomOrTheLocalOne) {
    VexaMixUserInternal oddRoom = user(kOddName, 2);
    oddRoom.roomId = kOddRoom;
    VexaMixUserInternal longRoom = user("bob", 5);
    longRoom.roomId = std::string(5000, 'r');

    expectMix(mix({user(kOddName, 1), oddRoom, user(std::string(5000, 'x'), 3), user("", 4), longRoom}),
              {{"8888_0800ebad1eae16480b20595cabdc20ad"},
               {kOddNameInOddRoom},
               {"8888_3b0af0453b60095dd98bfe70a739af04"},
               {"8888_76beca96e210662f1dbb8b8d215d4b17"},
               {"8888_715754969a5aa83f21b91147109249c7"}});
}

TEST_F(MixBodyTest, OwnNamesOfAnyCharactersBecomeTheOutputsStreamId) {
    mAdapter->updateUserInfo(kSdkAppId, kUserSig, kOddName);
    enterRoom(kOddRoom);

    expectMix(mix({user(kOddName, 1)}), {{kOddNameInOddRoom}}, kAllSettings, kOddNameInOddRoom);
}

TEST_F(MixBodyTest, ModeIsOnlyReported) {
    VexaTranscodingConfigInternal config = mix();
    config.mode = -12345;

    expectMix(config, {{kAliceMain}});

    EXPECT_THAT(reports().at(0).information, HasSubstr("mode:-12345,"));
}

TEST_F(MixBodyTest, RetryAfterClearSendsZeroesAndNoInputs) {
    startMix();
    respond(kRetryable, "");
    mAdapter->clear();
    clearRecords();

    pass(Milliseconds(1000));

    EXPECT_EQ(body(0), mixBody({},
                               R"("output_audio_bitrate":0,"output_audio_channels":0,"output_audio_sample_rate":0,)"
                               R"("output_sei":"{}","output_stream_bitrate":0,"output_stream_frame_rate":0,)"
                               R"("output_stream_gop":0,)",
                               kAliceMain, 1001));
}

TEST_F(MixBodyTest, RetryHasTheIdsOfARelayStartedMeanwhile) {
    startMix(mix({user("bob", 1)}));
    respond(kRetryable, "");
    kstmedia::VexaPublishCDNParamInternal param = relay();
    param.appId = 77;
    param.bizId = 66;
    startRelay(param);

    pass(Milliseconds(1000));

    EXPECT_THAT(body(2), HasSubstr(R"({"appid":77,"domain":"66.push.test",)"));
    EXPECT_THAT(body(2), HasSubstr(R"("session_id":"66_fcbd0847daa9c600a757e0d48049b252")"));
    EXPECT_THAT(body(2), HasSubstr(R"("input_stream_id":"66_b2d700c9449aa7a1002cd7ceaceabdca")"));
}

// ---- The description is made when the first response comes ----------------------------------------------------------

TEST_F(MixBodyTest, DescriptionAfterClearDescribesAnEmptyMix) {
    startMix();

    mAdapter->clear();
    respondOk();

    expectDescription({});
}

TEST_F(MixBodyTest, DescriptionNamesTheUserAndRoomAtTheTimeOfTheFirstResponse) {
    startMix(mix({user("bob", 1)}));
    mAdapter->updateUserInfo(kSdkAppId, kUserSig, "carol");
    enterRoom("room9");

    respond(kRetryable, "");
    enterRoom("room10");
    pass(Milliseconds(1000));
    respondOk();

    expectDescription({{"8888_a3fe5477ad348c0d01c9c65a61dc95be"}},
                      kCarolInRoom9);  // the digest is that of bob in room9
}

TEST_F(MixBodyTest, DescriptionNamesOneRoomThoughTheWorkerEntersAnotherWhileItIsBuilt) {
    startMix(mix({user("bob", 1)}));
    onDigest = [this] { enterRoom("room9"); };

    respondOk();

    expectDescription({{kBobMain}});
}

TEST_F(MixBodyTest, DescriptionShowsTheTasksIndex) {
    startMix();
    startMix();
    respondTo(1, 0, kOk);

    EXPECT_THAT(reports().at(0).detail, testing::StartsWith("task_id:2, pureAudioOutputStream:0, stream: {"));
}
