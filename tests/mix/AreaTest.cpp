#include <gmock/gmock.h>

#include "tools/mix/Area.h"

namespace vexalive {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(AreaTest, TheLargestRectanglesDoNotOverflow) {
    const Area area = Area::of({2147483647, -2147483647 - 1, 2147483647, -2147483647 - 1});
    EXPECT_EQ(area.right, 4294967294);
    EXPECT_EQ(area.bottom, -4294967296);
    EXPECT_TRUE(area.isEmpty());
}

TEST(AreaTest, TheVisiblePartsSurroundACover) {
    EXPECT_THAT(visibleParts({0, 0, 30, 30}, {{10, 10, 20, 20}}),
                ElementsAre(Area{0, 0, 30, 10}, Area{0, 10, 10, 20}, Area{20, 10, 30, 20}, Area{0, 20, 30, 30}));
}

TEST(AreaTest, ACoverOutsideHidesNothingAndAWholeCoverHidesAll) {
    const Area whole = {0, 0, 30, 30};
    EXPECT_THAT(visibleParts(whole, {{30, 0, 60, 30}}), ElementsAre(whole));
    EXPECT_THAT(visibleParts(whole, {{0, 0, -5, -5}}), ElementsAre(whole));
    EXPECT_THAT(visibleParts(whole, {{-1, -1, 31, 31}}), IsEmpty());
}

TEST(AreaTest, SeveralCoversTogetherHideARectangle) {
    const Area whole = {0, 0, 30, 30};
    EXPECT_THAT(visibleParts(whole, {{0, 0, 15, 30}, {15, 0, 30, 30}}), IsEmpty());
    EXPECT_THAT(visibleParts(whole, {{0, 0, 15, 30}, {16, 0, 30, 30}}), ElementsAre(Area{15, 0, 16, 30}));
    EXPECT_THAT(visibleParts({0, 0, 0, 30}, {}), IsEmpty());
}

}  // namespace vexalive
