#include "media/MixMuxer.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "media/MixFlv.h"

namespace vexalive {

namespace {

constexpr int64_t kMaxHeld = 2000;    // milliseconds of held frames; if more are held, frames are dropped
constexpr int64_t kMaxAwaited = 300;  // milliseconds that audio waits for video, or video for audio
constexpr size_t kMaxQueued = 16;     // frames in the RtmpQueue; few, since the muxer cannot drop frames from it

}  // namespace

MixMuxer::MixMuxer(std::shared_ptr<RtmpQueue> queue, std::function<void()> requestKeyFrame)
    : mQueue(std::move(queue)), mRequestKeyFrame(std::move(requestKeyFrame)) {}

void MixMuxer::expectVideo(bool isExpected) {
    const KstMutexLock lock(mMutex);
    if (mExpectsVideo && !isExpected) {
        mAwaitsKeyFrame = false;
        mVideoHeader.reset();  // metadata without video is sent before the next frame
        mAudioHeader.reset();
        const auto from =
            std::remove_if(mFrames.begin(), mFrames.end(), [](const Frame& frame) { return frame.isVideo(); });
        mCounts.dropped += static_cast<uint64_t>(mFrames.end() - from);
        mFrames.erase(from, mFrames.end());
    }
    mExpectsVideo = isExpected;
}

void MixMuxer::put(std::shared_ptr<const Header> header, FlvTag tag, int64_t time) {
    const KstMutexLock lock(mMutex);
    followConnection();
    Frame frame{std::move(header), std::move(tag), time};
    int64_t& newest = frame.isVideo() ? mNewestVideo : mNewestAudio;
    // The last frames of a replaced encoder may arrive after frames of the new encoder.
    if (time <= newest || (frame.isVideo() && !mExpectsVideo)) {
        drop(frame);
        return;
    }
    newest = time;
    mAwaitsKeyFrame = mAwaitsKeyFrame && !frame.tag.isKeyFrame();
    if (mConnection == 0 || mAwaitsKeyFrame) {
        drop(frame);
        return;
    }
    insert(std::move(frame));
    dropIfFull();
    send();
}

void MixMuxer::followConnection() {
    const unsigned connection = mQueue->connection();
    if (connection == mConnection) {
        return;
    }
    mConnection = connection;
    for (const Frame& frame : mFrames) {
        drop(frame);
    }
    mFrames.clear();
    mVideoHeader.reset();
    mAudioHeader.reset();
    mAwaitsKeyFrame = mExpectsVideo;
    mRequestKeyFrame();
}

void MixMuxer::insert(Frame frame) {
    auto position = mFrames.end();
    while (position != mFrames.begin() && std::prev(position)->time > frame.time) {
        --position;
    }
    mFrames.insert(position, std::move(frame));
}

void MixMuxer::dropIfFull() {
    if (mFrames.back().time - mFrames.front().time <= kMaxHeld) {
        return;
    }
    const auto isKeyFrame = [](const Frame& frame) { return frame.tag.isKeyFrame(); };
    const auto last = std::find_if(mFrames.rbegin(), mFrames.rend(), isKeyFrame);
    auto end = last == mFrames.rend() ? mFrames.begin() : std::prev(last.base());
    if (end == mFrames.begin()) {  // no frame, or only the first one, is a key frame
        end = mFrames.end();
        mAwaitsKeyFrame = mExpectsVideo;
    }
    for (auto each = mFrames.begin(); each != end; ++each) {
        drop(*each);
    }
    mFrames.erase(mFrames.begin(), end);
    if (mAwaitsKeyFrame) {
        mRequestKeyFrame();
    }
}

bool MixMuxer::isCounted(const Frame& frame) const {
    return frame.isVideo() == mExpectsVideo;
}

void MixMuxer::drop(const Frame& frame) {
    mCounts.dropped += isCounted(frame) ? 1 : 0;
}

bool MixMuxer::isNext(const Frame& frame) const {
    if (!mExpectsVideo) {
        return true;
    }
    const int64_t other = frame.isVideo() ? mNewestAudio : mNewestVideo;
    return other >= frame.time || mFrames.back().time - frame.time > kMaxAwaited;
}

void MixMuxer::send() {
    while (!mFrames.empty() && isNext(mFrames.front()) && mQueue->frames() < kMaxQueued) {
        sendFrame(mFrames.front());
        mFrames.pop_front();
    }
}

void MixMuxer::sendFrame(const Frame& frame) {
    mFirst = mFirst < 0 ? frame.time : mFirst;
    mLast = std::max(mLast, frame.time - mFirst);
    if (frame.isVideo()) {
        mLast = mLastVideo = std::max(mLast, mLastVideo + 1);  // no two video frames have the same timestamp
    }
    std::shared_ptr<const Header>& sent = frame.isVideo() ? mVideoHeader : mAudioHeader;
    if (sent != frame.header) {
        sent = frame.header;
        const FlvTag metadata = metadataTag(mVideoHeader ? mVideoHeader->video : std::nullopt,
                                            mAudioHeader ? mAudioHeader->audio : std::nullopt);
        mQueue->push(mConnection, metadata.withTimestamp(mLast));
        mQueue->push(mConnection, frame.header->tag.withTimestamp(mLast));
    }
    mQueue->push(mConnection, frame.tag.withTimestamp(mLast));
    mCounts.frames += isCounted(frame) ? 1 : 0;
}

MixMuxer::Counts MixMuxer::counts() const {
    const KstMutexLock lock(mMutex);
    return mCounts;
}

}  // namespace vexalive
