#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "media/MixConfiguration.h"

namespace vexalive {
namespace {

using nlohmann::json;

json configuration(const json& output = json::object()) {
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

TEST(MixConfiguration, ReadsEachField) {
    json all = configuration({{"output_stream_bitrate", 900},
                              {"output_stream_gop", 3},
                              {"output_stream_frame_rate", 25},
                              {"output_audio_sample_rate", 44100},
                              {"output_audio_bitrate", 96},
                              {"output_audio_channels", 1}});
    all["inputs"].push_back(input(false));
    const MixConfiguration mix = readMixConfiguration(all).value();

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

// If every numeric field has `value` (or is absent), the output has these formats.
struct NumbersCase {
    std::optional<int64_t> value;
    VideoFormat video;
    AudioFormat audio;
};

TEST(MixConfiguration, BringsNumbersIntoTheirRange) {
    const NumbersCase cases[] = {{std::nullopt, {1280, 720, 20, 1500, 2}, {48000, 64, 2}},
                                 {0, {1280, 720, 20, 1500, 2}, {48000, 64, 2}},
                                 {-1, {1280, 720, 20, 1500, 2}, {48000, 64, 2}},
                                 {INT32_MIN, {1280, 720, 20, 1500, 2}, {48000, 64, 2}},
                                 {1, {1280, 720, 1, 50, 1}, {8000, 16, 1}},
                                 {23000, {1280, 720, 60, 20000, 10}, {22050, 320, 2}},
                                 {INT32_MAX, {1280, 720, 60, 20000, 10}, {48000, 320, 2}}};
    for (const NumbersCase& each : cases) {
        json output = json::object();
        for (const char* key : {"output_stream_bitrate", "output_stream_gop", "output_stream_frame_rate",
                                "output_audio_sample_rate", "output_audio_bitrate", "output_audio_channels"}) {
            if (each.value) {
                output[key] = *each.value;
            }
        }
        const MixConfiguration mix = readMixConfiguration(configuration(output)).value();
        EXPECT_EQ(mix.video, each.video) << output;
        EXPECT_EQ(mix.audio, each.audio) << output;
    }
}

TEST(MixConfiguration, BringsTheCanvasIntoTheEncodersRange) {
    json all = configuration();
    for (const auto& [side, even] : {std::pair(853, 854), {1, 16}, {INT32_MAX, 4096}}) {
        all["canvas"]["width"] = all["canvas"]["height"] = side;
        EXPECT_EQ(readMixConfiguration(all)->video->width, even);
        EXPECT_EQ(readMixConfiguration(all)->video->height, even);
    }
    all["canvas"] = nullptr;
    EXPECT_FALSE(readMixConfiguration(all)->video);  // audio only
}

TEST(MixConfiguration, GivesAnAudioOnlyInputNoRectangle) {
    json all = configuration();
    all["inputs"] = {input(true), input(false)};
    all["inputs"][1]["height"] = 0;
    const auto read = readMixConfiguration(all);
    for (const InputConfiguration& each : read->inputs) {
        EXPECT_TRUE(each.rectangle.isEmpty());
    }
}

TEST(MixConfiguration, FailsIfAFieldIsMissingOrHasAnotherType) {
    for (const char* key : {"destination", "crop_center", "canvas", "inputs", "output"}) {
        json all = configuration();
        all.erase(key);
        EXPECT_FALSE(readMixConfiguration(all)) << key;
    }
    EXPECT_FALSE(readMixConfiguration(configuration({{"output_stream_gop", "2"}})));
}

}  // namespace
}  // namespace vexalive
