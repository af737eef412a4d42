// The queue between a command's threads and its main one.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "tools/Mailbox.h"

namespace {

using vexalive::Mailbox;

std::vector<int> all(Mailbox<int>& box) {
    const std::deque<int> items = box.takeAll();
    return {items.begin(), items.end()};
}

TEST(Mailbox, LeavesOutWhatComesWhileItIsFullAndCountsIt) {
    Mailbox<int> box(2);
    for (int item = 1; item <= 5; ++item) {
        box.put(item);
    }
    EXPECT_EQ(box.takeOmitted(), 3u);
    EXPECT_EQ(box.takeOmitted(), 0u);
    EXPECT_THAT(all(box), ::testing::ElementsAre(1, 2));
    box.put(6);
    EXPECT_THAT(all(box), ::testing::ElementsAre(6));
    EXPECT_EQ(box.takeOmitted(), 0u);
}

TEST(Mailbox, TakesAllWhereNoBoundIsGiven) {
    Mailbox<int> box;
    for (int item = 0; item < 100'000; ++item) {
        box.put(item);
    }
    EXPECT_EQ(all(box).size(), 100'000u);
    EXPECT_EQ(box.takeOmitted(), 0u);
}

}  // namespace
