// The encoders of a mix. Each is a pipeline of its own, so it can be replaced between two frames.

#ifndef VEXALIVE_MEDIA_MIX_ENCODER_H
#define VEXALIVE_MEDIA_MIX_ENCODER_H

#include <memory>

#include "media/MixConfiguration.h"
#include "media/MixMuxer.h"
#include "media/Pipeline.h"

namespace vexalive {

/// Encodes the raw frames that its appsrc "in" gets, with running time as timestamps, and puts them into `muxer` on a
/// streaming thread. Ends after the end of stream at the appsrc.
std::unique_ptr<Pipeline> makeEncoder(const VideoFormat& format, std::shared_ptr<MixMuxer> muxer,
                                      Pipeline::Ended ended);
std::unique_ptr<Pipeline> makeEncoder(const AudioFormat& format, std::shared_ptr<MixMuxer> muxer,
                                      Pipeline::Ended ended);

}  // namespace vexalive

#endif
