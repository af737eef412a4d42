// The encoders of a mix: each a pipeline of its own, so one can be put in the place of another between two frames.

#ifndef VEXALIVE_MEDIA_MIX_ENCODER_H
#define VEXALIVE_MEDIA_MIX_ENCODER_H

#include <memory>

#include "media/MixConfiguration.h"
#include "media/MixOutput.h"
#include "media/Pipeline.h"

namespace vexalive {

// Takes raw frames at its appsrc "in", stamped with running time, and hands out encoded ones on a streaming thread. It
// ends when the appsrc is told so.
std::unique_ptr<Pipeline> makeEncoder(const MixVideo& video, std::shared_ptr<MixOutput::Frames> frames,
                                      Pipeline::Ended ended);
std::unique_ptr<Pipeline> makeEncoder(const MixAudio& audio, std::shared_ptr<MixOutput::Frames> frames,
                                      Pipeline::Ended ended);

}  // namespace vexalive

#endif
