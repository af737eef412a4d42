// The media of one input that the mix has not used yet, with their presentation times: running time, in nanoseconds.

#ifndef VEXALIVE_MEDIA_MIX_FEED_H
#define VEXALIVE_MEDIA_MIX_FEED_H

#include <gst/video/video.h>

#include <cstddef>
#include <deque>

#include "base/Mutex.h"
#include "media/AudioRing.h"
#include "media/Pipeline.h"

namespace vexalive {

struct VideoFrame {
    int64_t presentationTime = 0;
    GstVideoInfo info{};
    GstRef<GstBuffer> buffer;

    VideoFrame share() const { return {presentationTime, info, GstRef<GstBuffer>(gst_buffer_ref(buffer.get()))}; }
};

/// Any thread.
class MixFeed {
public:
    void putFrame(VideoFrame frame);
    void putAudio(int64_t presentationTime, const float* samples, int64_t count);

    /// The frame to show at `now`, or the first if all are early. False if there is none, or if the last one arrived
    /// more than kFreezeTimeout ago: a frozen frame would look like live video.
    bool frameAt(int64_t now, VideoFrame& frame);
    /// As AudioRing::addTo().
    void addAudio(float* sum, int64_t position, int64_t count) const;

private:
    static constexpr int64_t kFreezeTimeout = 1'100'000'000;
    static constexpr size_t kMaxFrames = 64;  // 60 per second for MixTimeline::kMaxLead

    mutable KstMutex mMutex;
    std::deque<VideoFrame> mFrames KST_GUARDED_BY(mMutex);  // by presentation time
    int64_t mLastPut KST_GUARDED_BY(mMutex) = 0;            // running time of the last frame's arrival
    AudioRing mAudio KST_GUARDED_BY(mMutex);
};

}  // namespace vexalive

#endif
