#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "media/MixPainter.h"

namespace vexalive {
namespace {

using Yuv = std::array<int, 3>;

const Yuv kBlack{16, 128, 128};
const Yuv kGrey{53, 128, 128};
const Yuv kLeft{81, 90, 240};
const Yuv kRight{41, 240, 110};
const Yuv kOther{145, 54, 34};

uint8_t& sampleOf(GstVideoFrame& frame, int plane, int x, int y) {
    const int subsampling = plane == 0 ? 1 : 2;
    auto* const data = static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane));
    return data[y / subsampling * GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane) + x / subsampling];
}

// A frame whose left half has one colour and whose right half has another.
VideoFrame makeFrame(int width, int height, const Yuv& left, const Yuv& right) {
    VideoFrame result;
    result.info = mixVideoInfo(width, height);
    result.presentationTime = Pipeline::runningTime();
    result.buffer.reset(gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&result.info), nullptr));
    GstVideoFrame frame;
    gst_video_frame_map(&frame, &result.info, result.buffer.get(), GST_MAP_WRITE);
    for (int plane = 0; plane < 3; ++plane) {
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                sampleOf(frame, plane, x, y) = static_cast<uint8_t>((x < width / 2 ? left : right)[size_t(plane)]);
            }
        }
    }
    gst_video_frame_unmap(&frame);
    return result;
}

std::shared_ptr<MixFeed> feedWith(VideoFrame frame) {
    auto feed = std::make_shared<MixFeed>();
    feed->putFrame(std::move(frame));
    return feed;
}

class MixPainterTest : public testing::Test {
protected:
    void SetUp() override { mPainter.setCanvas(320, 180); }

    GstRef<GstBuffer> paint(const std::vector<MixPainter::Layer>& parts, bool cropCenter = true) {
        return mPainter.paint(0, parts, cropCenter, Pipeline::runningTime());
    }

    static Yuv at(const GstRef<GstBuffer>& buffer, int x, int y) {
        GstVideoInfo info = mixVideoInfo(320, 180);
        GstVideoFrame frame;
        gst_video_frame_map(&frame, &info, buffer.get(), GST_MAP_READ);
        const Yuv found{sampleOf(frame, 0, x, y), sampleOf(frame, 1, x, y), sampleOf(frame, 2, x, y)};
        gst_video_frame_unmap(&frame);
        return found;
    }

    struct Pixel {
        int x;
        int y;
        Yuv colour;
    };
    static void expectPixels(const GstRef<GstBuffer>& buffer, const std::vector<Pixel>& pixels) {
        for (const Pixel& each : pixels) {
            EXPECT_EQ(at(buffer, each.x, each.y), each.colour) << each.x << ", " << each.y;
        }
    }

    MixPainter mPainter;
};

TEST_F(MixPainterTest, PaintsTheCanvasAndPlaceholders) {
    const auto canvas = paint({{std::make_shared<MixFeed>(), {20, 20, 100, 50}}});
    expectPixels(canvas, {{19, 20, kBlack}, {20, 20, kGrey}, {119, 69, kGrey}, {120, 69, kBlack}, {119, 70, kBlack}});
}

TEST_F(MixPainterTest, CopiesAFrameOfTheRightSize) {
    const auto canvas = paint({{feedWith(makeFrame(64, 36, kLeft, kRight)), {100, 60, 64, 36}}});
    expectPixels(canvas, {{99, 60, kBlack},
                          {100, 60, kLeft},
                          {131, 95, kLeft},
                          {132, 95, kRight},
                          {163, 95, kRight},
                          {164, 95, kBlack}});
}

TEST_F(MixPainterTest, ScalesAFrameToItsRectangle) {
    for (const bool cropCenter : {false, true}) {
        const auto canvas = paint({{feedWith(makeFrame(64, 36, kLeft, kRight)), {40, 40, 100, 100}}}, cropCenter);
        expectPixels(canvas, {{38, 90, kBlack},
                              {40, 40, kLeft},
                              {80, 139, kLeft},
                              {100, 40, kRight},
                              {139, 139, kRight},
                              {140, 90, kBlack},
                              {90, 140, kBlack}});
    }
}

TEST_F(MixPainterTest, PutsTheLastOnTop) {
    const MixPainter::Layer lower{feedWith(makeFrame(64, 36, kLeft, kLeft)), {0, 0, 100, 100}};
    const MixPainter::Layer upper{feedWith(makeFrame(64, 36, kOther, kOther)), {50, 50, 100, 100}};
    const auto canvas = paint({lower, upper});
    expectPixels(canvas, {{40, 40, kLeft}, {70, 70, kOther}});
    EXPECT_EQ(at(paint({upper, lower}), 70, 70), kLeft);
}

TEST_F(MixPainterTest, ConvertsFullRangeColours) {
    VideoFrame full = makeFrame(64, 36, {0, 128, 128}, {255, 128, 128});
    full.info.colorimetry.range = GST_VIDEO_COLOR_RANGE_0_255;
    const auto canvas = paint({{feedWith(std::move(full)), {100, 60, 64, 36}}});
    EXPECT_NEAR(at(canvas, 110, 80)[0], 16, 1);
    EXPECT_NEAR(at(canvas, 150, 80)[0], 235, 1);
    expectPixels(canvas, {{98, 80, kBlack}, {166, 80, kBlack}});
}

TEST_F(MixPainterTest, FollowsTheSizeOfTheFrameAndOfTheCanvas) {
    const auto feed = feedWith(makeFrame(64, 36, kLeft, kLeft));
    paint({{feed, {0, 0, 100, 100}}});
    feed->putFrame(makeFrame(36, 64, kOther, kOther));
    EXPECT_EQ(at(paint({{feed, {0, 0, 100, 100}}}), 50, 50), kOther);
    mPainter.setCanvas(640, 360);
    EXPECT_EQ(gst_buffer_get_size(paint({{feed, {0, 0, 100, 100}}}).get()), 640U * 360 * 3 / 2);
}

TEST(MixFeed, ShowsEachFrameAtItsPresentationTimeHoweverEarlyTheyCome) {
    constexpr int64_t kInterval = 16'666'667;
    constexpr int64_t kAhead = 1'000'000'000;
    MixFeed feed;
    int64_t next = Pipeline::runningTime() - 10'000'000'000;
    int64_t now = next;
    for (int i = 0; i < 200; ++i, now += kInterval) {
        for (; next <= now + kAhead; next += kInterval) {
            feed.putFrame({next, {}, GstRef<GstBuffer>(gst_buffer_new())});
        }
        VideoFrame shown;
        ASSERT_TRUE(feed.frameAt(now, shown)) << i;
        ASSERT_EQ(shown.presentationTime, now) << i;
    }
}

TEST(MixFeed, ShowsAFrameThatIsFarTooEarly) {
    MixFeed feed;
    const int64_t now = Pipeline::runningTime();
    feed.putFrame({now + 3600'000'000'000, {}, GstRef<GstBuffer>(gst_buffer_new())});
    VideoFrame shown;
    EXPECT_TRUE(feed.frameAt(now, shown));
}

// Random rectangles and frames: no crash, and no pixel outside of the rectangle changes.
TEST_F(MixPainterTest, AcceptsAnyRectangle) {
    std::mt19937 random(1);
    const auto any = [&](int lowest, int highest) {
        return std::uniform_int_distribution<int>(lowest, highest)(random);
    };
    for (int round = 0; round < 3000; ++round) {
        const auto feed = feedWith(makeFrame(2 * any(1, 90), any(2, 130), kLeft, kRight));
        const bool isFar = any(0, 9) == 0;
        Rectangle rectangle{any(-400, 400), any(-400, 400), any(0, 500), any(0, 500)};
        if (isFar) {
            rectangle.width = INT32_MAX;
        }
        const bool cropsCenter = any(0, 1) == 0;
        if (any(0, 3) == 0) {  // halves the frame; with linear scaling of chroma, that would crash
            rectangle.width = rectangle.height = 64;
            feed->putFrame(makeFrame(128 + 2 * any(0, 20), 128, kLeft, kRight));
        }
        const auto canvas = paint({{feed, rectangle}}, cropsCenter);
        const Rectangle to = visiblePart(rectangle, 320, 180);
        if (to.x > 0) {
            ASSERT_EQ(at(canvas, static_cast<int>(to.x) - 1, 90), kBlack) << round;
        }
        if (to.y + to.height < 180) {
            ASSERT_EQ(at(canvas, 160, static_cast<int>(to.y + to.height)), kBlack) << round;
        }
        if (!to.isEmpty()) {
            ASSERT_NE(at(canvas, static_cast<int>(to.x), static_cast<int>(to.y)), kBlack) << round;
        }
    }
}

}  // namespace
}  // namespace vexalive

// GLib never frees its allocations of load time. The suppression of these leaks needs complete stacks.
extern "C" const char* __asan_default_options() {
    return "fast_unwind_on_malloc=0";
}
extern "C" const char* __lsan_default_suppressions() {
    return "leak:call_init\n";
}

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    gst_init(nullptr, nullptr);
    return RUN_ALL_TESTS();
}
