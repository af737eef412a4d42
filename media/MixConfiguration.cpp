#include "media/MixConfiguration.h"

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>

namespace vexalive {

using nlohmann::json;

namespace {

// What the output's numbers are if the wish leaves them out or has 0 or less, and between what they are held.
struct Number {
    const char* key;
    int usual;
    int lowest;
    int highest;
};
constexpr Number kVideoBitrate{"output_stream_bitrate", 1500, 50, 20000};
constexpr Number kKeySeconds{"output_stream_gop", 2, 1, 10};
constexpr Number kFrameRate{"output_stream_frame_rate", 20, 1, 60};
constexpr Number kSampleRate{"output_audio_sample_rate", 48000, 8000, 48000};
constexpr Number kAudioBitrate{"output_audio_bitrate", 64, 16, 320};
constexpr Number kChannels{"output_audio_channels", 2, 1, 2};

// Those that AAC knows, of the range above.
constexpr int kSampleRates[] = {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000};

// What the encoder takes, and what a machine can be asked for.
constexpr int64_t kMinSide = 16;
constexpr int64_t kMaxSide = 4096;

int readNumber(const json& output, const Number& number) {
    const int64_t value = output.value(number.key, int64_t{0});
    return value <= 0 ? number.usual : static_cast<int>(std::clamp<int64_t>(value, number.lowest, number.highest));
}

int nearestSampleRate(int wanted) {
    return *std::min_element(std::begin(kSampleRates), std::end(kSampleRates),
                             [wanted](int a, int b) { return std::abs(a - wanted) < std::abs(b - wanted); });
}

// Of an odd length, the last column or row would be half a sample of colour.
int readSide(const json& canvas, const char* key) {
    const int64_t side = std::clamp(canvas.at(key).get<int64_t>(), kMinSide, kMaxSide);
    return static_cast<int>(side + side % 2);
}

MixInputWish readInput(const json& wish) {
    MixInputWish input;
    input.streamId = wish.at("stream_id").get<std::string>();
    input.source = wish.at("source").get<std::string>();
    input.layer = wish.at("layer").get<int64_t>();
    if (!wish.at("audio_only").get<bool>()) {
        input.rectangle = {wish.at("x").get<int64_t>(), wish.at("y").get<int64_t>(), wish.at("width").get<int64_t>(),
                           wish.at("height").get<int64_t>()};
    }
    return input;
}

}  // namespace

MixConfiguration readMixConfiguration(const json& wish) {
    const json& output = wish.at("output");
    const json& canvas = wish.at("canvas");
    MixConfiguration mix;
    mix.destination = wish.at("destination").get<std::string>();
    mix.cropCenter = wish.at("crop_center").get<bool>();
    if (!canvas.is_null()) {
        MixVideo& video = mix.video.emplace();
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
    for (const json& input : wish.at("inputs")) {
        mix.inputs.push_back(readInput(input));
    }
    return mix;
}

}  // namespace vexalive
