/// @file
/// How to mix several members' streams into one output stream.

#ifndef VEXALIVE_PARAMS_VEXA_TRANSCODING_CONFIG_INTERNAL_H
#define VEXALIVE_PARAMS_VEXA_TRANSCODING_CONFIG_INTERNAL_H

#include <cstdint>
#include <string>
#include <vector>

#include "params/VexaMixUserInternal.h"

namespace kstmedia {

/// The configuration of a mix. The struct does not check its values; the adapter does. In a mix with video, no number
/// except `mode` may be 0. In an audio-only mix, `appId` and `bizId` may not be 0. If a bitrate, frame rate, GOP,
/// sample rate or channel count is -1, it is not sent, and the service chooses the value. Width and height are sent
/// unchanged. The service defines the units; those below are the usual ones.
struct VexaTranscodingConfigInternal {
    int32_t mode = 0;                                ///< for the application's own use; not sent and not checked
    int32_t appId = 0;                               ///< CDN application id
    int32_t bizId = 0;                               ///< CDN biz id
    int32_t videoWidth = -1;                         ///< width of the canvas, in pixels
    int32_t videoHeight = -1;                        ///< height of the canvas, in pixels
    int32_t videoBitrate = -1;                       ///< kbit/s
    int32_t videoFramerate = -1;                     ///< frames per second
    int32_t videoGOP = -1;                           ///< key-frame interval, in seconds
    int32_t audioSampleRate = -1;                    ///< Hz
    int32_t audioBitrate = -1;                       ///< kbit/s
    int32_t audioChannels = -1;                      ///< 1 or 2
    std::vector<VexaMixUserInternal> mixUsersArray;  ///< the inputs, in the application's order

    /// The numbers, then each user as " mixUser1:[…]", as room event reports show it. Each user's entry is truncated to
    /// 259 characters.
    std::string to_string() const;
};

}  // namespace kstmedia

#endif
