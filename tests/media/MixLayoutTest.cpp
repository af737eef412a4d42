#include <gtest/gtest.h>

#include <ostream>

#include "media/MixLayout.h"

namespace vexalive {

void PrintTo(const Rectangle& r, std::ostream* out) {
    *out << r.width << " x " << r.height << " at " << r.x << ", " << r.y;
}

namespace {

Placement place(const Rectangle& rectangle, int width, int height, bool cropCenter) {
    return placeFrame(rectangle, visiblePart(rectangle, 1280, 720), width, height, cropCenter);
}

TEST(MixLayout, ClipsARectangleAtTheCanvas) {
    const std::pair<Rectangle, Rectangle> cases[] = {
        {{-100, 700, 300, 300}, {0, 700, 200, 20}},
        {{-4000, -4000, 9000, 9000}, {0, 0, 1280, 720}},
        {{10, 10, INT32_MAX, INT32_MAX}, {10, 10, 1270, 710}},
        {{3, 0, 98, 100}, {2, 0, 98, 100}},       // this rectangle and the next are adjacent, and
        {{101, 0, 98, 100}, {100, 0, 98, 100}}};  // their results are adjacent, too
    for (const auto& [rectangle, visible] : cases) {
        EXPECT_EQ(visiblePart(rectangle, 1280, 720), visible);
    }
    for (const Rectangle& outside :
         {Rectangle{1280, 0, 100, 100}, {0, -100, 100, 100}, {INT32_MIN, INT32_MIN, 100, 100}, {0, 0, 0, 100}}) {
        EXPECT_TRUE(visiblePart(outside, 1280, 720).isEmpty());
    }
}

struct PlacementCase {
    Rectangle rectangle;
    int width;
    int height;
    bool cropCenter;
    Rectangle source;
};

TEST(MixLayout, StretchesOrCropsTheVisiblePartOfAFrame) {
    const PlacementCase cases[] = {{{0, 0, 200, 200}, 640, 360, false, {0, 0, 640, 360}},
                                   {{0, 0, 200, 200}, 640, 360, true, {140, 0, 360, 360}},
                                   {{0, 0, 200, 200}, 360, 640, true, {0, 140, 360, 360}},
                                   {{0, 0, 320, 180}, 640, 360, true, {0, 0, 640, 360}},
                                   {{-320, 0, 640, 360}, 640, 360, false, {320, 0, 320, 360}},
                                   {{-1280, -720, 2560, 1440}, 640, 360, false, {320, 180, 320, 180}},
                                   {{-100, 0, 200, 200}, 640, 360, true, {320, 0, 180, 360}}};
    for (const PlacementCase& each : cases) {
        EXPECT_EQ(place(each.rectangle, each.width, each.height, each.cropCenter).source, each.source);
    }
}

TEST(MixLayout, StaysWithinTheFrame) {
    for (const int64_t edge : {1, 2, 3, 719, 5000, 2147483647}) {
        for (const bool cropCenter : {false, true}) {
            const Placement found = place({-1, 0, edge + 1, 720}, 33, 18, cropCenter);
            if (found.target.isEmpty()) {
                continue;
            }
            EXPECT_GE(found.source.x, 0) << edge;
            EXPECT_GE(found.source.width, 2) << edge;
            EXPECT_LE(found.source.x + found.source.width, 33) << edge;
            EXPECT_LE(found.source.y + found.source.height, 18) << edge;
        }
    }
}

TEST(MixLayout, AnEqualOrLargerRectangleCoversAnother) {
    EXPECT_TRUE(covers({0, 0, 100, 100}, {0, 0, 100, 100}));
    EXPECT_FALSE(covers({0, 0, 100, 100}, {0, 0, 100, 102}));
    EXPECT_FALSE(covers({2, 0, 100, 100}, {0, 0, 50, 50}));
}

}  // namespace
}  // namespace vexalive
