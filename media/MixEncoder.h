// The encoders of a mix. Each is a pipeline of its own, so it can be replaced between two frames.

#ifndef VEXALIVE_MEDIA_MIX_ENCODER_H
#define VEXALIVE_MEDIA_MIX_ENCODER_H

#include <memory>

#include "media/MixConfiguration.h"
#include "media/MixMuxer.h"
#include "media/Pipeline.h"

namespace vexalive {

/// Encodes the raw frames that its appsrc "in" receives, with running time as timestamps, and puts the encoded frames
/// into `muxer` on a streaming thread. After the end of stream at the appsrc, the pipeline ends.
std::unique_ptr<Pipeline> makeEncoder(const VideoFormat& format, std::shared_ptr<MixMuxer> muxer,
                                      Pipeline::Ended ended);
std::unique_ptr<Pipeline> makeEncoder(const AudioFormat& format, std::shared_ptr<MixMuxer> muxer,
                                      Pipeline::Ended ended);

}  // namespace vexalive

#endif
