#include "media/MixLayout.h"

#include <algorithm>
#include <cmath>

namespace vexalive {

namespace {

struct Span {
    int64_t begin;
    int64_t length;
};

int64_t even(int64_t value) {
    return value & ~int64_t{1};
}

Span visible(int64_t begin, int64_t length, int64_t canvas) {
    const int64_t from = even(std::clamp<int64_t>(begin, 0, canvas));
    const int64_t to = even(std::clamp<int64_t>(begin + length, 0, canvas));
    return {from, to - from};
}

// Handles one dimension, width or height. The middle `used` pixels of the frame fill `whole` on the canvas. Returns the
// pixels of the frame that fill `shown`, a part of `whole`.
Span sourceSpan(Span shown, Span whole, double used, int frame) {
    const double scale = used / static_cast<double>(whole.length);
    const double first = (frame - used) / 2 + static_cast<double>(shown.begin - whole.begin) * scale;
    const double last = first + static_cast<double>(shown.length) * scale;
    const int64_t limit = std::max<int64_t>(even(frame), 2);
    const int64_t begin = std::clamp<int64_t>(even(std::lround(first)), 0, limit - 2);
    const int64_t end = std::clamp<int64_t>(even(std::lround(last)), begin + 2, limit);
    return {begin, end - begin};
}

}  // namespace

Rectangle visiblePart(const Rectangle& rectangle, int canvasWidth, int canvasHeight) {
    const Span across = visible(rectangle.x, rectangle.width, canvasWidth);
    const Span down = visible(rectangle.y, rectangle.height, canvasHeight);
    return {across.begin, down.begin, across.length, down.length};
}

Placement placeFrame(const Rectangle& rectangle, const Rectangle& target, int frameWidth, int frameHeight,
                     bool cropCenter) {
    double usedWidth = frameWidth;
    double usedHeight = frameHeight;
    if (cropCenter) {
        const double aspect = static_cast<double>(rectangle.width) / static_cast<double>(rectangle.height);
        usedWidth = std::min(usedWidth, usedHeight * aspect);
        usedHeight = std::min(usedHeight, frameWidth / aspect);
    }
    const Span across = sourceSpan({target.x, target.width}, {rectangle.x, rectangle.width}, usedWidth, frameWidth);
    const Span down = sourceSpan({target.y, target.height}, {rectangle.y, rectangle.height}, usedHeight, frameHeight);
    return {{across.begin, down.begin, across.length, down.length}, target};
}

}  // namespace vexalive
