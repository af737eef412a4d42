#include "media/MixFeed.h"

#include <utility>

namespace vexalive {

void MixFeed::putFrame(VideoFrame frame) {
    const KstMutexLock lock(mMutex);
    mLastPut = Pipeline::runningTime();
    // Queued frames with later times come from an older connection, or from before the publisher's clock jumped.
    while (!mFrames.empty() && mFrames.back().presentationTime >= frame.presentationTime) {
        mFrames.pop_back();
    }
    if (mFrames.size() == kMaxFrames) {
        mFrames.pop_front();
    }
    mFrames.push_back(std::move(frame));
}

void MixFeed::putAudio(int64_t presentationTime, const float* samples, int64_t count) {
    const KstMutexLock lock(mMutex);
    mAudio.put(AudioRing::positionOf(presentationTime), samples, count);
}

bool MixFeed::frameAt(int64_t now, VideoFrame& frame) {
    const KstMutexLock lock(mMutex);
    if (now - mLastPut > kFreezeTimeout) {
        mFrames.clear();
    }
    while (mFrames.size() > 1 && mFrames[1].presentationTime <= now) {
        mFrames.pop_front();
    }
    if (mFrames.empty()) {
        return false;
    }
    frame = mFrames.front().share();
    return true;
}

void MixFeed::addAudio(float* sum, int64_t position, int64_t count) const {
    const KstMutexLock lock(mMutex);
    mAudio.addTo(sum, position, count);
}

}  // namespace vexalive
