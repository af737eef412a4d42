// Paints the mix's picture: the canvas's colour, and on it the inputs' pictures, or a quiet grey where there is none.
//
// The pictures go from the decoders' memory straight to their place, scaled on the way if need be. All of a picture's
// place is looked up for each frame, so a change lands whole in one.

#ifndef VEXALIVE_MEDIA_MIX_PAINTER_H
#define VEXALIVE_MEDIA_MIX_PAINTER_H

#include <gst/video/video.h>

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "media/MixFeed.h"
#include "media/MixPlace.h"
#include "media/Pipeline.h"

namespace vexalive {

// For one thread.
class MixPainter {
public:
    struct Part {
        std::shared_ptr<MixFeed> feed;
        MixRectangle rectangle;
    };

    MixPainter();
    ~MixPainter();

    // What follows is painted on a canvas of this size; both even.
    void setCanvas(int width, int height);

    // The picture at the running time `now`, without a timestamp. The last of `parts` is on top.
    GstRef<GstBuffer> paint(uint32_t colour, const std::vector<Part>& parts, bool cropCenter, int64_t now);

private:
    class Scaler;

    GstVideoInfo mInfo{};
    GstRef<GstBufferPool> mPool;
    std::map<const MixFeed*, std::unique_ptr<Scaler>> mScalers;
};

// What every picture of the mix is: a decoder's, too, unless it says otherwise, and then it is painted as it stands.
GstVideoInfo mixPictureInfo(int width, int height);

}  // namespace vexalive

#endif
