// What a mix shall be: read from the wish, with every number made usable.

#ifndef VEXALIVE_MEDIA_MIX_CONFIGURATION_H
#define VEXALIVE_MEDIA_MIX_CONFIGURATION_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace vexalive {

// In the canvas's pixels, or in a picture's. May reach beyond either.
struct MixRectangle {
    int64_t x = 0;
    int64_t y = 0;
    int64_t width = 0;
    int64_t height = 0;

    bool isEmpty() const { return width <= 0 || height <= 0; }
    bool operator==(const MixRectangle& other) const {
        return x == other.x && y == other.y && width == other.width && height == other.height;
    }
};

// The output's picture. A change of anything in here takes another encoder.
struct MixVideo {
    int width = 0;  // even, as is the height
    int height = 0;
    int frameRate = 0;   // frames a second
    int bitrate = 0;     // kbit/s
    int keySeconds = 0;  // between key frames

    bool operator==(const MixVideo& other) const {
        return width == other.width && height == other.height && frameRate == other.frameRate &&
               bitrate == other.bitrate && keySeconds == other.keySeconds;
    }
};

// The output's sound. A change of anything in here takes another encoder.
struct MixAudio {
    int sampleRate = 0;
    int bitrate = 0;  // kbit/s
    int channels = 0;

    bool operator==(const MixAudio& other) const {
        return sampleRate == other.sampleRate && bitrate == other.bitrate && channels == other.channels;
    }
};

struct MixInputWish {
    std::string streamId;
    std::string source;
    int64_t layer = 0;
    MixRectangle rectangle;  // empty: heard only
};

struct MixConfiguration {
    std::string destination;
    std::optional<MixVideo> video;  // none: the output is sound alone
    uint32_t colour = 0;            // of the canvas: 0xRRGGBB
    bool cropCenter = false;
    MixAudio audio;
    std::vector<MixInputWish> inputs;
};

// Throws what nlohmann-json throws if a field but those of the output is missing, or one has another type.
MixConfiguration readMixConfiguration(const nlohmann::json& wish);

}  // namespace vexalive

#endif
