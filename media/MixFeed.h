// The decoded media of one input that the mix has not used yet. Presentation times are running time in nanoseconds.

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

    /// Sets `frame` to the frame to show at `now`, or to the earliest frame if all frames are later than `now`. Returns
    /// false if there is no frame, or if the last frame arrived more than kFreezeTimeout ago: a frozen frame would look
    /// like live video.
    bool frameAt(int64_t now, VideoFrame& frame);
    /// See AudioRing::addTo().
    void addAudio(float* sum, int64_t position, int64_t count) const;

private:
    static constexpr int64_t kFreezeTimeout = 1'100'000'000;  // nanoseconds
    static constexpr size_t kMaxFrames = 64;  // enough for MixTimeline::kMaxLead (1 s) at 60 frames per second

    mutable KstMutex mMutex;
    std::deque<VideoFrame> mFrames KST_GUARDED_BY(mMutex);  // in the order of presentation time
    int64_t mLastPut KST_GUARDED_BY(mMutex) = 0;            // running time of the last frame's arrival
    AudioRing mAudio KST_GUARDED_BY(mMutex);
};

}  // namespace vexalive

#endif
