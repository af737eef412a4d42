// Which part of an input's picture stands where on the canvas.

#ifndef VEXALIVE_MEDIA_MIX_PLACE_H
#define VEXALIVE_MEDIA_MIX_PLACE_H

#include "media/MixConfiguration.h"

namespace vexalive {

struct MixPlace {
    MixRectangle from;  // in the picture
    MixRectangle to;    // on the canvas, and within it
};

// What of `rectangle` lies on a canvas of that size; may be empty. All edges are even, since four pixels share their
// colour: an edge between two rectangles stays one.
MixRectangle visiblePart(const MixRectangle& rectangle, int canvasWidth, int canvasHeight);

// `to` is a visible part of `rectangle`, not empty. The picture is stretched over the rectangle, or, with `cropCenter`,
// fills it in its own shape, what stands over being cut evenly.
MixPlace placePicture(const MixRectangle& rectangle, const MixRectangle& to, int pictureWidth, int pictureHeight,
                      bool cropCenter);

inline bool covers(const MixRectangle& upper, const MixRectangle& lower) {
    return upper.x <= lower.x && upper.y <= lower.y && upper.x + upper.width >= lower.x + lower.width &&
           upper.y + upper.height >= lower.y + lower.height;
}

}  // namespace vexalive

#endif
