#include "media/MixPlace.h"

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

// The part of a picture's width or height that belongs to `shown`, if `used` of it, in the middle, is spread over
// `whole`.
Span sourceOf(Span shown, Span whole, double used, int picture) {
    const double scale = used / static_cast<double>(whole.length);
    const double first = (picture - used) / 2 + static_cast<double>(shown.begin - whole.begin) * scale;
    const double last = first + static_cast<double>(shown.length) * scale;
    const int64_t most = std::max<int64_t>(even(picture), 2);
    const int64_t begin = std::clamp<int64_t>(even(std::lround(first)), 0, most - 2);
    const int64_t end = std::clamp<int64_t>(even(std::lround(last)), begin + 2, most);
    return {begin, end - begin};
}

}  // namespace

MixRectangle visiblePart(const MixRectangle& rectangle, int canvasWidth, int canvasHeight) {
    const Span across = visible(rectangle.x, rectangle.width, canvasWidth);
    const Span down = visible(rectangle.y, rectangle.height, canvasHeight);
    return {across.begin, down.begin, across.length, down.length};
}

MixPlace placePicture(const MixRectangle& rectangle, const MixRectangle& to, int pictureWidth, int pictureHeight,
                      bool cropCenter) {
    double usedWidth = pictureWidth;
    double usedHeight = pictureHeight;
    if (cropCenter) {
        const double shape = static_cast<double>(rectangle.width) / static_cast<double>(rectangle.height);
        usedWidth = std::min(usedWidth, usedHeight * shape);
        usedHeight = std::min(usedHeight, pictureWidth / shape);
    }
    const Span across = sourceOf({to.x, to.width}, {rectangle.x, rectangle.width}, usedWidth, pictureWidth);
    const Span down = sourceOf({to.y, to.height}, {rectangle.y, rectangle.height}, usedHeight, pictureHeight);
    return {{across.begin, down.begin, across.length, down.length}, to};
}

}  // namespace vexalive
