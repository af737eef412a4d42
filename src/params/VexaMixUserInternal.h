/// @file
/// One input of a cloud mix and its position on the canvas.

#ifndef VEXALIVE_PARAMS_VEXA_MIX_USER_INTERNAL_H
#define VEXALIVE_PARAMS_VEXA_MIX_USER_INTERNAL_H

#include <cstdint>
#include <string>

namespace kstmedia {

/// A mix user. The record itself checks nothing.
struct VexaMixUserInternal {
    /// Position and size on the canvas, in pixels. The origin is the top left corner.
    struct Rect {
        int32_t x = 0;  ///< left edge
        int32_t y = 0;  ///< top edge
        int32_t w = 0;  ///< width
        int32_t h = 0;  ///< height
    };

    std::string userId;      ///< whose stream is mixed
    std::string roomId;      ///< that user's room; empty means the local user's
    Rect rect;               ///< sent as given: neither scaled nor clipped
    int32_t zOrder = 0;      ///< layer, 0 to 16, unique among the inputs of a mix with video; higher is nearer
    bool pureAudio = false;  ///< this input contributes audio only
    int32_t streamType = 0;  ///< 2: the user's auxiliary stream; any other value: the main stream
};

}  // namespace kstmedia

#endif
