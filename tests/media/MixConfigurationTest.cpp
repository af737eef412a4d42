#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "media/MixConfiguration.h"

namespace vexalive {
namespace {

using nlohmann::json;

json wishWith(const json& output) {
    return {{"destination", "rtmp://127.0.0.1:1935/mix/8888_a"},
            {"crop_center", true},
            {"canvas", {{"width", 1280}, {"height", 720}, {"color", "0x12aBfF"}}},
            {"inputs", json::array()},
            {"output", output}};
}

json input(bool isAudioOnly) {
    return {{"stream_id", "8888_b"},
            {"source", "rtmp://127.0.0.1:1935/live/8888_b"},
            {"audio_only", isAudioOnly},
            {"layer", 3},
            {"x", -40},
            {"y", 2147483647},
            {"width", 641},
            {"height", 360}};
}

TEST(MixConfiguration, ReadsAWholeWish) {
    json wish = wishWith({{"output_stream_bitrate", 900},
                          {"output_stream_gop", 3},
                          {"output_stream_frame_rate", 25},
                          {"output_audio_sample_rate", 44100},
                          {"output_audio_bitrate", 96},
                          {"output_audio_channels", 1}});
    wish["inputs"].push_back(input(false));
    const MixConfiguration mix = readMixConfiguration(wish);

    EXPECT_EQ(mix.destination, "rtmp://127.0.0.1:1935/mix/8888_a");
    EXPECT_TRUE(mix.cropCenter);
    EXPECT_EQ(mix.colour, 0x12abffU);
    EXPECT_EQ(mix.video, (VideoFormat{1280, 720, 25, 900, 3}));
    EXPECT_EQ(mix.audio, (AudioFormat{44100, 96, 1}));
    ASSERT_EQ(mix.inputs.size(), 1U);
    EXPECT_EQ(mix.inputs[0].streamId, "8888_b");
    EXPECT_EQ(mix.inputs[0].address, "rtmp://127.0.0.1:1935/live/8888_b");
    EXPECT_EQ(mix.inputs[0].layer, 3);
    EXPECT_EQ(mix.inputs[0].rectangle, (Rectangle{-40, 2147483647, 641, 360}));
}

TEST(MixConfiguration, HasDefaults) {
    const MixConfiguration mix = readMixConfiguration(wishWith(json::object()));
    EXPECT_EQ(mix.video, (VideoFormat{1280, 720, 20, 1500, 2}));
    EXPECT_EQ(mix.audio, (AudioFormat{48000, 64, 2}));
}

struct Case {
    int64_t wished;
    VideoFormat video;
    AudioFormat audio;
};

class MixConfigurationNumbers : public testing::TestWithParam<Case> {};

TEST_P(MixConfigurationNumbers, AreMadeUsable) {
    json output;
    for (const char* key : {"output_stream_bitrate", "output_stream_gop", "output_stream_frame_rate",
                            "output_audio_sample_rate", "output_audio_bitrate", "output_audio_channels"}) {
        output[key] = GetParam().wished;
    }
    const MixConfiguration mix = readMixConfiguration(wishWith(output));
    EXPECT_EQ(mix.video, GetParam().video);
    EXPECT_EQ(mix.audio, GetParam().audio);
}

INSTANTIATE_TEST_SUITE_P(Whatever, MixConfigurationNumbers,
                         testing::Values(Case{0, {1280, 720, 20, 1500, 2}, {48000, 64, 2}},
                                         Case{-1, {1280, 720, 20, 1500, 2}, {48000, 64, 2}},
                                         Case{INT32_MIN, {1280, 720, 20, 1500, 2}, {48000, 64, 2}},
                                         Case{1, {1280, 720, 1, 50, 1}, {8000, 16, 1}},
                                         Case{23000, {1280, 720, 60, 20000, 10}, {22050, 320, 2}},
                                         Case{INT32_MAX, {1280, 720, 60, 20000, 10}, {48000, 320, 2}}));

TEST(MixConfiguration, IsSoundAloneWithoutACanvas) {
    json wish = wishWith(json::object());
    wish["canvas"] = nullptr;
    EXPECT_FALSE(readMixConfiguration(wish).video);
}

TEST(MixConfiguration, MakesTheCanvasOneThatCanBeEncoded) {
    json wish = wishWith(json::object());
    wish["canvas"]["width"] = 853;
    wish["canvas"]["height"] = 1;
    EXPECT_EQ(readMixConfiguration(wish).video->width, 854);
    EXPECT_EQ(readMixConfiguration(wish).video->height, 16);
    wish["canvas"]["width"] = INT32_MAX;
    EXPECT_EQ(readMixConfiguration(wish).video->width, 4096);
}

TEST(MixConfiguration, GivesAnInputThatIsHeardOnlyNoPlace) {
    json wish = wishWith(json::object());
    wish["inputs"].push_back(input(true));
    wish["inputs"].push_back(input(false));
    wish["inputs"][1]["height"] = 0;
    const MixConfiguration mix = readMixConfiguration(wish);
    EXPECT_TRUE(mix.inputs[0].rectangle.isEmpty());
    EXPECT_TRUE(mix.inputs[1].rectangle.isEmpty());
}

TEST(MixConfiguration, ThrowsWhereSomethingIsMissing) {
    for (const char* key : {"destination", "crop_center", "canvas", "inputs", "output"}) {
        json wish = wishWith(json::object());
        wish.erase(key);
        EXPECT_THROW(readMixConfiguration(wish), json::exception) << key;
    }
    EXPECT_THROW(readMixConfiguration(wishWith({{"output_stream_gop", "2"}})), json::exception);
}

}  // namespace
}  // namespace vexalive
