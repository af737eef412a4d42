// Interleaves the encoders' frames into the tags of one stream, for the mix's RtmpSink.
//
//     encoders ──▶ MixMuxer: ordered by time, bounded ──▶ RtmpQueue
//
// Before the first frame of a new encoder, the muxer sends that encoder's header. An encoder can therefore be replaced
// while the connection stays open.

#ifndef VEXALIVE_MEDIA_MIX_MUXER_H
#define VEXALIVE_MEDIA_MIX_MUXER_H

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>

#include "base/Mutex.h"
#include "media/FlvStream.h"
#include "media/MixConfiguration.h"
#include "media/RtmpSink.h"

namespace vexalive {

/// Any thread.
class MixMuxer {
public:
    /// The format of one encoder's output.
    struct Header {
        FlvTag tag;                        ///< the sequence header
        std::optional<VideoFormat> video;  ///< set if the encoder is for video
        std::optional<AudioFormat> audio;  ///< set if the encoder is for audio
    };
    /// Counts video frames, or audio frames if the mix has no video.
    struct Counts {
        uint64_t frames = 0;
        uint64_t dropped = 0;
    };

    /// Calls `requestKeyFrame`, on any thread, if no frame can be sent before the next key frame. `requestKeyFrame`
    /// must not call the muxer.
    MixMuxer(std::shared_ptr<RtmpQueue> queue, std::function<void()> requestKeyFrame);

    /// Sets whether the output has video. If it has, audio frames wait for the video frames of the same time.
    void expectVideo(bool isExpected);
    /// Adds an encoded frame. `time` is running time in milliseconds.
    void put(std::shared_ptr<const Header> header, FlvTag tag, int64_t time);
    Counts counts() const;

private:
    struct Frame {
        std::shared_ptr<const Header> header;
        FlvTag tag;
        int64_t time;

        bool isVideo() const { return tag.kind == FlvTag::Kind::kVideo; }
    };

    void followConnection() KST_REQUIRES(mMutex);
    bool isCounted(const Frame& frame) const KST_REQUIRES(mMutex);
    void insert(Frame frame) KST_REQUIRES(mMutex);
    void dropIfFull() KST_REQUIRES(mMutex);
    void drop(const Frame& frame) KST_REQUIRES(mMutex);
    void send() KST_REQUIRES(mMutex);
    bool isNext(const Frame& frame) const KST_REQUIRES(mMutex);
    void sendFrame(const Frame& frame) KST_REQUIRES(mMutex);

    const std::shared_ptr<RtmpQueue> mQueue;
    const std::function<void()> mRequestKeyFrame;

    mutable KstMutex mMutex;
    bool mExpectsVideo KST_GUARDED_BY(mMutex) = false;
    bool mAwaitsKeyFrame KST_GUARDED_BY(mMutex) = false;
    std::deque<Frame> mFrames KST_GUARDED_BY(mMutex);         // in the order of `time`
    int64_t mNewestVideo KST_GUARDED_BY(mMutex) = INT64_MIN;  // `time` of the newest video frame
    int64_t mNewestAudio KST_GUARDED_BY(mMutex) = INT64_MIN;
    int64_t mFirst KST_GUARDED_BY(mMutex) = -1;      // `time` of timestamp 0 of the output; -1: nothing sent yet
    int64_t mLast KST_GUARDED_BY(mMutex) = 0;        // timestamp of the last frame that was sent
    int64_t mLastVideo KST_GUARDED_BY(mMutex) = -1;  // timestamp of the last video frame that was sent
    Counts mCounts KST_GUARDED_BY(mMutex);

    // The connection, and the last headers that were sent on it.
    unsigned mConnection KST_GUARDED_BY(mMutex) = 0;
    std::shared_ptr<const Header> mVideoHeader KST_GUARDED_BY(mMutex);
    std::shared_ptr<const Header> mAudioHeader KST_GUARDED_BY(mMutex);
};

}  // namespace vexalive

#endif
