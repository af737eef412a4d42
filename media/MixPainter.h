// Composes the video frames of the mix: the background colour, and on it the inputs' frames. An input without a frame
// is shown as a dark grey box.
//
// Frames are copied, and scaled if necessary, from the decoders' memory to the canvas. Each call of paint() receives
// the complete layout, so a change of the layout never applies to a part of a frame.

#ifndef VEXALIVE_MEDIA_MIX_PAINTER_H
#define VEXALIVE_MEDIA_MIX_PAINTER_H

#include <gst/video/video.h>

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "media/MixFeed.h"
#include "media/MixLayout.h"
#include "media/Pipeline.h"

namespace vexalive {

/// Not thread-safe.
class MixPainter {
public:
    struct Layer {
        std::shared_ptr<MixFeed> feed;
        Rectangle rectangle;
    };

    MixPainter();
    ~MixPainter();

    /// Sets the size of the next frames. Both numbers must be even.
    void setCanvas(int width, int height);

    /// Returns the frame for running time `now`, without a timestamp, or null if no buffer is available. The last layer
    /// is on top.
    GstRef<GstBuffer> paint(uint32_t colour, const std::vector<Layer>& layers, bool cropCenter, int64_t now);

private:
    class Scaler;

    GstVideoInfo mInfo{};
    GstRef<GstBufferPool> mPool;
    std::map<const MixFeed*, std::unique_ptr<Scaler>> mScalers;
};

/// The video format of the canvas. Decoded frames have it too, unless their stream declares another colorimetry.
GstVideoInfo mixVideoInfo(int width, int height);

}  // namespace vexalive

#endif
