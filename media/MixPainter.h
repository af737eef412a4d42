// Composes a frame of the mix: the canvas's colour, and on it the inputs' frames, or a dark grey box for an input
// without a frame.
//
// Frames are copied, and scaled if necessary, from the decoders' memory to the canvas. The painter stores no layout
// between frames, so a change is applied as a whole.

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

    /// The size of the frames from now on; both even.
    void setCanvas(int width, int height);

    /// The frame at running time `now`, without a timestamp; null if no buffer is available. The last layer is on top.
    GstRef<GstBuffer> paint(uint32_t colour, const std::vector<Layer>& layers, bool cropCenter, int64_t now);

private:
    class Scaler;

    GstVideoInfo mInfo{};
    GstRef<GstBufferPool> mPool;
    std::map<const MixFeed*, std::unique_ptr<Scaler>> mScalers;
};

/// The video format of the canvas, and of decoded frames unless their stream declares another colorimetry.
GstVideoInfo mixVideoInfo(int width, int height);

}  // namespace vexalive

#endif
