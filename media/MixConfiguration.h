// The configuration of a mix, read from JSON. Numbers are clamped to their ranges.

#ifndef VEXALIVE_MEDIA_MIX_CONFIGURATION_H
#define VEXALIVE_MEDIA_MIX_CONFIGURATION_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "common/Result.h"

namespace vexalive {

/// An area of the canvas or of a frame, in pixels. It may extend beyond the edges of the canvas.
struct Rectangle {
    int64_t x = 0;
    int64_t y = 0;
    int64_t width = 0;
    int64_t height = 0;

    bool isEmpty() const { return width <= 0 || height <= 0; }
    bool operator==(const Rectangle& other) const {
        return x == other.x && y == other.y && width == other.width && height == other.height;
    }
};

/// The format of the output's video. Each change requires a new encoder.
struct VideoFormat {
    int width = 0;  ///< even, like the height
    int height = 0;
    int frameRate = 0;   ///< frames per second
    int bitrate = 0;     ///< kbit/s
    int keySeconds = 0;  ///< seconds from one key frame to the next

    bool operator==(const VideoFormat& other) const {
        return width == other.width && height == other.height && frameRate == other.frameRate &&
               bitrate == other.bitrate && keySeconds == other.keySeconds;
    }
};

/// The format of the output's audio. Each change requires a new encoder.
struct AudioFormat {
    int sampleRate = 0;  ///< Hz
    int bitrate = 0;     ///< kbit/s
    int channels = 0;

    bool operator==(const AudioFormat& other) const {
        return sampleRate == other.sampleRate && bitrate == other.bitrate && channels == other.channels;
    }
};

struct InputConfiguration {
    std::string streamId;
    std::string address;
    int64_t layer = 0;    ///< a higher layer covers a lower one
    Rectangle rectangle;  ///< on the canvas; empty: the input has audio only
};

struct MixConfiguration {
    std::string destination;
    std::optional<VideoFormat> video;  ///< nullopt: the output has audio only
    uint32_t colour = 0;               ///< of the canvas: 0xRRGGBB
    bool cropCenter = false;           ///< crop frames to their rectangle; false: stretch them
    AudioFormat audio;
    std::vector<InputConfiguration> inputs;
};

/// Fails if a field has the wrong type or is missing. The fields of "output" have defaults and may be missing.
Result<MixConfiguration> readMixConfiguration(const nlohmann::json& configuration);

}  // namespace vexalive

#endif
