// What one input has brought and the mix has not used up: pictures and sound, each with the running time of its turn.
// Any thread.

#ifndef VEXALIVE_MEDIA_MIX_FEED_H
#define VEXALIVE_MEDIA_MIX_FEED_H

#include <gst/video/video.h>

#include <cstddef>
#include <deque>
#include <mutex>

#include "media/MixSound.h"
#include "media/Pipeline.h"

namespace vexalive {

struct MixPicture {
    int64_t turn = 0;
    GstVideoInfo info{};
    GstRef<GstBuffer> buffer;

    MixPicture share() const { return {turn, info, GstRef<GstBuffer>(gst_buffer_ref(buffer.get()))}; }
};

class MixFeed {
public:
    void putPicture(MixPicture picture);
    void putSound(int64_t turn, const float* samples, int64_t count);

    // The picture whose turn it is at `now`, or the first if all are early. False if there is none, or the last came so
    // long ago that the publisher must have stopped: a frozen picture passes for a live one.
    bool pictureAt(int64_t now, MixPicture& picture);
    void addSound(float* sum, int64_t position, int64_t count) const;

private:
    static constexpr int64_t kFrozen = 1'100'000'000;
    static constexpr size_t kMaxPictures = 64;  // 60 a second, as early as MixTimeline lets them come

    mutable std::mutex mMutex;
    std::deque<MixPicture> mPictures;  // in the order of their turns
    int64_t mCame = 0;                 // the last picture
    MixSound mSound;
};

}  // namespace vexalive

#endif
