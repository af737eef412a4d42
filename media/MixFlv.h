// The mix's output as FLV tags: H.264 and AAC.

#ifndef VEXALIVE_MEDIA_MIX_FLV_H
#define VEXALIVE_MEDIA_MIX_FLV_H

#include <optional>
#include <string>
#include <string_view>

#include "media/FlvStream.h"
#include "media/MixConfiguration.h"

namespace vexalive {

// What a decoder needs before the first frame: the encoder's "codec data".
FlvTag setupTag(FlvTag::Kind kind, std::string_view codecData);

// One frame: length-prefixed H.264 units, or raw AAC.
FlvTag videoTag(std::string_view frame, bool isKey);
FlvTag audioTag(std::string_view frame);

// What a player and the server show, and wait for: without it, some wait for a picture that does not come.
FlvTag metadataTag(const std::optional<MixVideo>& video, const std::optional<MixAudio>& audio);

}  // namespace vexalive

#endif
