// Rectangles on a canvas, in pixels. The coordinates have 64 bits, so the sum of two 32-bit numbers does not overflow.

#ifndef VEXALIVE_TOOLS_MIX_AREA_H
#define VEXALIVE_TOOLS_MIX_AREA_H

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "params/VexaMixUserInternal.h"

namespace vexalive {

struct Area {
    int64_t left = 0;
    int64_t top = 0;
    int64_t right = 0;
    int64_t bottom = 0;

    static Area of(const kstmedia::VexaMixUserInternal::Rect& rect) {
        return {rect.x, rect.y, int64_t{rect.x} + rect.w, int64_t{rect.y} + rect.h};
    }
    int64_t width() const { return right - left; }
    int64_t height() const { return bottom - top; }
    bool isEmpty() const { return right <= left || bottom <= top; }
};

inline bool operator==(const Area& a, const Area& b) {
    return a.left == b.left && a.top == b.top && a.right == b.right && a.bottom == b.bottom;
}

// The area that `a` and `b` share; may be empty.
inline Area intersection(const Area& a, const Area& b) {
    return {std::max(a.left, b.left), std::max(a.top, b.top), std::min(a.right, b.right), std::min(a.bottom, b.bottom)};
}

// Returns the parts of `area` that no element of `covers` hides, as disjoint rectangles.
inline std::vector<Area> visibleParts(const Area& area, const std::vector<Area>& covers) {
    std::vector<Area> visible = {area};
    for (const Area& cover : covers) {
        std::vector<Area> rest;
        for (const Area& part : visible) {
            const Area hidden = intersection(part, cover);
            if (hidden.isEmpty()) {
                rest.push_back(part);
                continue;
            }
            rest.push_back({part.left, part.top, part.right, hidden.top});
            rest.push_back({part.left, hidden.top, hidden.left, hidden.bottom});
            rest.push_back({hidden.right, hidden.top, part.right, hidden.bottom});
            rest.push_back({part.left, hidden.bottom, part.right, part.bottom});
        }
        visible = std::move(rest);
    }
    visible.erase(std::remove_if(visible.begin(), visible.end(), [](const Area& part) { return part.isEmpty(); }),
                  visible.end());
    return visible;
}

}  // namespace vexalive

#endif
