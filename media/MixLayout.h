// Which part of an input's video is shown, and where on the canvas.

#ifndef VEXALIVE_MEDIA_MIX_LAYOUT_H
#define VEXALIVE_MEDIA_MIX_LAYOUT_H

#include "media/MixConfiguration.h"

namespace vexalive {

struct Placement {
    Rectangle source;  ///< in the frame
    Rectangle target;  ///< on the canvas, and within it
};

/// The part of `rectangle` that is on the canvas; may be empty. All edges are rounded down to even numbers, since four
/// pixels share a chroma sample. Rectangles that touched before still touch.
Rectangle visiblePart(const Rectangle& rectangle, int canvasWidth, int canvasHeight);

/// Finds the part of a frame that fills `target`, the visible part of `rectangle`, which must not be empty. Without
/// `cropCenter`, the frame is stretched to the rectangle. With `cropCenter`, the frame keeps its aspect ratio, fills
/// the rectangle, and is cropped equally on two opposite sides.
Placement placeFrame(const Rectangle& rectangle, const Rectangle& target, int frameWidth, int frameHeight,
                     bool cropCenter);

inline bool covers(const Rectangle& upper, const Rectangle& lower) {
    return upper.x <= lower.x && upper.y <= lower.y && upper.x + upper.width >= lower.x + lower.width &&
           upper.y + upper.height >= lower.y + lower.height;
}

}  // namespace vexalive

#endif
