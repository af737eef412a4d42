#include "media/MixSnapshots.h"

#include <gst/video/video.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "media/Worker.h"

namespace vexalive {

namespace {

constexpr int kMinSide = 16;

}  // namespace

// Those who wait for a picture, in the order in which they asked.
struct MixSnapshots::Waiting {
    std::queue<Done> done;
    unsigned pipeline = 0;  // how many there were: what an older one still brings, has been answered

    void answer(const std::string& jpeg) {
        if (!done.empty()) {
            const Done first = std::move(done.front());
            done.pop();
            first(jpeg);
        }
    }
};

MixSnapshots::MixSnapshots() : mWaiting(std::make_shared<Waiting>()) {}

void MixSnapshots::make(GstSample* picture, int width, Done done) {
    GstVideoInfo info;
    if (!gst_video_info_from_caps(&info, gst_sample_get_caps(picture))) {
        done("");
        return;
    }
    const int wide = std::clamp(width, kMinSide, GST_VIDEO_INFO_WIDTH(&info));
    const int high = std::max(wide * GST_VIDEO_INFO_HEIGHT(&info) / GST_VIDEO_INFO_WIDTH(&info), kMinSide);
    if (!mPipeline || wide != mWidth || high != mHeight) {
        makePipeline(wide, high);
    }
    mWaiting->done.push(std::move(done));
    gst_app_src_push_sample(GST_APP_SRC(mPipeline->find("in")), picture);
}

void MixSnapshots::makePipeline(int width, int height) {
    giveUp();
    mWidth = width;
    mHeight = height;
    mPipeline = std::make_unique<Pipeline>(
        // Through RGB, since a JPEG's colours range from 0 to 255, and those of a video from 16 to 235: neither the
        // converter nor jpegenc minds the difference by itself.
        "appsrc name=in format=time max-bytes=0"
        " ! videoconvertscale n-threads=1"
        " ! video/x-raw,format=RGB,pixel-aspect-ratio=1/1"
        ",width=" +
            std::to_string(width) + ",height=" + std::to_string(height) +
            " ! jpegenc ! appsink name=out sync=false async=false",
        [this](const std::string& error) {
            tell("no picture: " + error);
            giveUp();
        });
    mPipeline->take("out", [waiting = mWaiting, number = mWaiting->pipeline](GstSample* sample) {
        GstBuffer* const buffer = gst_sample_get_buffer(sample);
        std::string jpeg(gst_buffer_get_size(buffer), '\0');
        gst_buffer_extract(buffer, 0, jpeg.data(), jpeg.size());
        callAfter(std::chrono::milliseconds(0), [waiting, number, jpeg = std::move(jpeg)] {
            if (number == waiting->pipeline) {
                waiting->answer(jpeg);
            }
        });
    });
    mPipeline->play();
}

void MixSnapshots::giveUp() {
    mPipeline.reset();
    ++mWaiting->pipeline;
    while (!mWaiting->done.empty()) {
        mWaiting->answer("");
    }
}

}  // namespace vexalive
