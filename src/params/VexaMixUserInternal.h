/// @file
/// One input of a cloud mix and its position on the canvas.

#ifndef VEXALIVE_PARAMS_VEXA_MIX_USER_INTERNAL_H
#define VEXALIVE_PARAMS_VEXA_MIX_USER_INTERNAL_H

#include <cstdint>
#include <string>

namespace kstmedia {

/// A mix user. The struct does not check its values; the adapter does.
struct VexaMixUserInternal {
    /// Position and size on the canvas, in pixels. The origin is the top left corner.
    struct Rect {
        int32_t x = 0;  ///< left edge
        int32_t y = 0;  ///< top edge
        int32_t w = 0;  ///< width
        int32_t h = 0;  ///< height
    };

    std::string userId;      ///< the user whose stream is mixed
    std::string roomId;      ///< the room of that user; if empty, the local user's room
    Rect rect;               ///< sent unchanged, neither scaled nor clipped
    int32_t zOrder = 0;      ///< layer; a higher one covers a lower one; with video 0 to 16, different for each user
    bool pureAudio = false;  ///< this input contributes audio only
    int32_t streamType = 0;  ///< 2: the user's auxiliary stream; any other value: the main stream
};

}  // namespace kstmedia

#endif
