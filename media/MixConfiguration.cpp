#include "media/MixConfiguration.h"

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>

namespace vexalive {

using nlohmann::json;

namespace {

// A numeric field of "output". `fallback` is used if the field is missing or not positive.
struct Number {
    const char* key;
    int fallback;
    int min;
    int max;
};
constexpr Number kVideoBitrate{"output_stream_bitrate", 1500, 50, 20000};
constexpr Number kKeySeconds{"output_stream_gop", 2, 1, 10};
constexpr Number kFrameRate{"output_stream_frame_rate", 20, 1, 60};
constexpr Number kSampleRate{"output_audio_sample_rate", 48000, 8000, 48000};
constexpr Number kAudioBitrate{"output_audio_bitrate", 64, 16, 320};
constexpr Number kChannels{"output_audio_channels", 2, 1, 2};

// The sample rates of AAC that are in the range of kSampleRate.
constexpr int kSampleRates[] = {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000};

// Width and height in pixels: the encoder's minimum, and the maximum that a desktop computer can encode in real time.
constexpr int64_t kMinSide = 16;
constexpr int64_t kMaxSide = 4096;

int readNumber(const json& output, const Number& number) {
    const int64_t value = output.value(number.key, int64_t{0});
    return value <= 0 ? number.fallback : static_cast<int>(std::clamp<int64_t>(value, number.min, number.max));
}

int nearestSampleRate(int wanted) {
    return *std::min_element(std::begin(kSampleRates), std::end(kSampleRates),
                             [wanted](int a, int b) { return std::abs(a - wanted) < std::abs(b - wanted); });
}

// Rounds up to an even number: 4:2:0 video has one chroma sample for two columns or rows.
int readSide(const json& canvas, const char* key) {
    const int64_t side = std::clamp(canvas.at(key).get<int64_t>(), kMinSide, kMaxSide);
    return static_cast<int>(side + side % 2);
}

// Throws json::exception, like readMix().
InputConfiguration readInput(const json& fields) {
    InputConfiguration input;
    input.streamId = fields.at("stream_id").get<std::string>();
    input.address = fields.at("source").get<std::string>();
    input.layer = fields.at("layer").get<int64_t>();
    if (!fields.at("audio_only").get<bool>()) {
        input.rectangle = {fields.at("x").get<int64_t>(), fields.at("y").get<int64_t>(),
                           fields.at("width").get<int64_t>(), fields.at("height").get<int64_t>()};
    }
    return input;
}

MixConfiguration readMix(const json& configuration) {
    const json& output = configuration.at("output");
    const json& canvas = configuration.at("canvas");
    MixConfiguration mix;
    mix.destination = configuration.at("destination").get<std::string>();
    mix.cropCenter = configuration.at("crop_center").get<bool>();
    if (!canvas.is_null()) {
        VideoFormat& video = mix.video.emplace();
        video.width = readSide(canvas, "width");
        video.height = readSide(canvas, "height");
        video.frameRate = readNumber(output, kFrameRate);
        video.bitrate = readNumber(output, kVideoBitrate);
        video.keySeconds = readNumber(output, kKeySeconds);
        mix.colour = static_cast<uint32_t>(
            std::strtoul(canvas.at("color").get_ref<const std::string&>().c_str(), nullptr, 16) & 0xffffff);
    }
    mix.audio.sampleRate = nearestSampleRate(readNumber(output, kSampleRate));
    mix.audio.bitrate = readNumber(output, kAudioBitrate);
    mix.audio.channels = readNumber(output, kChannels);
    for (const json& input : configuration.at("inputs")) {
        mix.inputs.push_back(readInput(input));
    }
    return mix;
}

}  // namespace

Result<MixConfiguration> readMixConfiguration(const json& configuration) {
    try {
        return readMix(configuration);
    } catch (const json::exception& error) {
        return failure(error.what());
    }
}

}  // namespace vexalive
