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

TEST(MixLayout, CutsARectangleAtTheCanvas) {
    EXPECT_EQ(visiblePart({-100, 700, 300, 300}, 1280, 720), (Rectangle{0, 700, 200, 20}));
    EXPECT_EQ(visiblePart({-4000, -4000, 9000, 9000}, 1280, 720), (Rectangle{0, 0, 1280, 720}));
    EXPECT_EQ(visiblePart({10, 10, INT32_MAX, INT32_MAX}, 1280, 720), (Rectangle{10, 10, 1270, 710}));
}

TEST(MixLayout, ShowsNothingOfWhatIsBeyond) {
    EXPECT_TRUE(visiblePart({1280, 0, 100, 100}, 1280, 720).isEmpty());
    EXPECT_TRUE(visiblePart({0, -100, 100, 100}, 1280, 720).isEmpty());
    EXPECT_TRUE(visiblePart({INT32_MIN, INT32_MIN, 100, 100}, 1280, 720).isEmpty());
    EXPECT_TRUE(visiblePart({0, 0, 0, 100}, 1280, 720).isEmpty());
}

TEST(MixLayout, KeepsNeighboursNeighbours) {
    const Rectangle left = visiblePart({3, 0, 98, 100}, 1280, 720);
    const Rectangle right = visiblePart({101, 0, 98, 100}, 1280, 720);
    EXPECT_EQ(left.x + left.width, right.x);
    EXPECT_EQ(left.x % 2, 0);
    EXPECT_EQ(right.x % 2, 0);
}

TEST(MixLayout, StretchesAPictureOverItsRectangle) {
    EXPECT_EQ(place({0, 0, 200, 200}, 640, 360, false).source, (Rectangle{0, 0, 640, 360}));
}

TEST(MixLayout, CutsWhatStandsOverEvenly) {
    EXPECT_EQ(place({0, 0, 200, 200}, 640, 360, true).source, (Rectangle{140, 0, 360, 360}));
    EXPECT_EQ(place({0, 0, 200, 200}, 360, 640, true).source, (Rectangle{0, 140, 360, 360}));
    EXPECT_EQ(place({0, 0, 320, 180}, 640, 360, true).source, (Rectangle{0, 0, 640, 360}));
}

TEST(MixLayout, ShowsThePartOfThePictureThatIsOnTheCanvas) {
    EXPECT_EQ(place({-320, 0, 640, 360}, 640, 360, false).source, (Rectangle{320, 0, 320, 360}));
    EXPECT_EQ(place({-1280, -720, 2560, 1440}, 640, 360, false).source, (Rectangle{320, 180, 320, 180}));
    EXPECT_EQ(place({-100, 0, 200, 200}, 640, 360, true).source, (Rectangle{320, 0, 180, 360}));
}

TEST(MixLayout, StaysWithinThePicture) {
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

TEST(MixLayout, KnowsWhatHidesWhat) {
    EXPECT_TRUE(covers({0, 0, 100, 100}, {0, 0, 100, 100}));
    EXPECT_FALSE(covers({0, 0, 100, 100}, {0, 0, 100, 102}));
    EXPECT_FALSE(covers({2, 0, 100, 100}, {0, 0, 50, 50}));
}

}  // namespace
}  // namespace vexalive
