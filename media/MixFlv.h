// Builds the FLV tags of a mix's output: H.264 and AAC.

#ifndef VEXALIVE_MEDIA_MIX_FLV_H
#define VEXALIVE_MEDIA_MIX_FLV_H

#include <optional>
#include <string>
#include <string_view>

#include "media/FlvStream.h"
#include "media/MixConfiguration.h"

namespace vexalive {

/// `codecData` is the value of "codec_data" in the encoder's caps.
FlvTag sequenceHeaderTag(FlvTag::Kind kind, std::string_view codecData);

/// `frame` is one encoded frame: length-prefixed H.264 NAL units, or raw AAC.
FlvTag videoTag(std::string_view frame, bool isKey);
FlvTag audioTag(std::string_view frame);

/// The onMetaData tag. Without it, some players of an audio-only stream wait for video.
FlvTag metadataTag(const std::optional<VideoFormat>& video, const std::optional<AudioFormat>& audio);

}  // namespace vexalive

#endif
