// The encoders of a mix. Each encoder has its own pipeline, so it can be replaced between two frames.

#ifndef VEXALIVE_MEDIA_MIX_ENCODER_H
#define VEXALIVE_MEDIA_MIX_ENCODER_H

#include <memory>

#include "media/MixConfiguration.h"
#include "media/MixMuxer.h"
#include "media/Pipeline.h"

namespace vexalive {

/// Returns an encoder that is already playing. It encodes the raw frames that its appsrc "in" receives, whose
/// timestamps are running time. It puts the encoded frames into `muxer`, on a streaming thread. When the appsrc
/// receives the end of stream, the encoder outputs its last frames and calls `onEnded`.
std::unique_ptr<Pipeline> makeEncoder(const VideoFormat& format, std::shared_ptr<MixMuxer> muxer,
                                      Pipeline::OnEnded onEnded);
std::unique_ptr<Pipeline> makeEncoder(const AudioFormat& format, std::shared_ptr<MixMuxer> muxer,
                                      Pipeline::OnEnded onEnded);

}  // namespace vexalive

#endif
