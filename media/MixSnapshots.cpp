#include "media/MixSnapshots.h"

#include <gst/video/video.h>

#include <algorithm>
#include <utility>

#include "media/Log.h"
#include "media/MainLoop.h"

namespace vexalive {

namespace {

constexpr int kMinSide = 16;

}  // namespace

// The pending requests.
struct MixSnapshots::Requests {
    std::queue<Done> done;  // the oldest request first
    unsigned pipeline = 0;  // id of the current pipeline; all requests to older pipelines have failed

    void complete(const std::string& jpeg) {
        if (!done.empty()) {
            const Done first = std::move(done.front());
            done.pop();
            first(jpeg);
        }
    }
};

MixSnapshots::MixSnapshots() : mRequests(std::make_shared<Requests>()) {}

void MixSnapshots::make(GstSample* frame, int width, Done done) {
    GstVideoInfo info;
    if (!gst_video_info_from_caps(&info, gst_sample_get_caps(frame))) {
        done("");
        return;
    }
    const int columns = std::clamp(width, kMinSide, GST_VIDEO_INFO_WIDTH(&info));
    const int rows = std::max(columns * GST_VIDEO_INFO_HEIGHT(&info) / GST_VIDEO_INFO_WIDTH(&info), kMinSide);
    if (!mPipeline || columns != mWidth || rows != mHeight) {
        makePipeline(columns, rows);
    }
    mRequests->done.push(std::move(done));
    gst_app_src_push_sample(GST_APP_SRC(mPipeline->find("in")), frame);
}

void MixSnapshots::makePipeline(int width, int height) {
    fail();
    mWidth = width;
    mHeight = height;
    mPipeline = std::make_unique<Pipeline>(
        // The video is converted through RGB. JPEG samples range from 0 to 255, video samples from 16 to 235. Without
        // the detour, neither the converter nor jpegenc converts the range.
        "appsrc name=in format=time max-bytes=0"
        " ! videoconvertscale n-threads=1"
        " ! video/x-raw,format=RGB,pixel-aspect-ratio=1/1"
        ",width=" +
            std::to_string(width) + ",height=" + std::to_string(height) +
            " ! jpegenc ! appsink name=out sync=false async=false",
        [this](const Result<void>& result) {
            logLine("no snapshot: " + (result ? "the pipeline ended" : result.error().message));
            fail();
        });
    mPipeline->onSample("out", [requests = mRequests, number = mRequests->pipeline](GstSample* sample) {
        GstBuffer* const buffer = gst_sample_get_buffer(sample);
        std::string jpeg(gst_buffer_get_size(buffer), '\0');
        gst_buffer_extract(buffer, 0, jpeg.data(), jpeg.size());
        callOnMainLoop([requests, number, jpeg = std::move(jpeg)] {
            if (number == requests->pipeline) {
                requests->complete(jpeg);
            }
        });
    });
    mPipeline->play();
}

void MixSnapshots::fail() {
    mPipeline.reset();
    ++mRequests->pipeline;
    while (!mRequests->done.empty()) {
        mRequests->complete("");
    }
}

}  // namespace vexalive
