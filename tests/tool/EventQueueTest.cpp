#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/EventQueue.h"

namespace {

using vexalive::EventQueue;

TEST(EventQueue, DropsAndCountsItemsWhileItIsFull) {
    const auto queue = EventQueue<int>::make(2).value();
    for (int item = 1; item <= 5; ++item) {
        queue->push(item);
    }
    EXPECT_EQ(queue->drainDropped(), 3u);
    EXPECT_EQ(queue->drainDropped(), 0u);
    EXPECT_THAT(queue->drain(), ::testing::ElementsAre(1, 2));
    queue->push(6);
    EXPECT_THAT(queue->drain(), ::testing::ElementsAre(6));
    EXPECT_EQ(queue->drainDropped(), 0u);
}

TEST(EventQueue, IsUnboundedWithoutACapacity) {
    const auto queue = EventQueue<int>::make().value();
    for (int item = 0; item < 100'000; ++item) {
        queue->push(item);
    }
    EXPECT_EQ(queue->drain().size(), 100'000u);
    EXPECT_EQ(queue->drainDropped(), 0u);
}

}  // namespace
