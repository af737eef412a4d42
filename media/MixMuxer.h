// Interleaves the encoders' frames into the tags of one stream, for the mix's RtmpSink.
//
//     encoders ──▶ MixMuxer: ordered by time, bounded ──▶ RtmpQueue
//
// Before the first frame of another encoder, the muxer sends that encoder's header. So an encoder can be replaced while
// the connection stays.

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
        FlvTag tag;                        // its sequence header
        std::optional<VideoFormat> video;  // one of the two
        std::optional<AudioFormat> audio;
    };
    /// Frames of video, or of audio if the mix has no video.
    struct Counts {
        uint64_t frames = 0;
        uint64_t dropped = 0;
    };

    /// `requestKeyFrame` is called, on any thread, if nothing can be sent before the next key frame. It must not call
    /// the muxer.
    MixMuxer(std::shared_ptr<RtmpQueue> queue, std::function<void()> requestKeyFrame);

    /// Whether audio has to wait for video frames.
    void expectVideo(bool isExpected);
    /// `time` in milliseconds of running time.
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
    std::deque<Frame> mFrames KST_GUARDED_BY(mMutex);  // by time
    int64_t mNewestVideo KST_GUARDED_BY(mMutex) = INT64_MIN;
    int64_t mNewestAudio KST_GUARDED_BY(mMutex) = INT64_MIN;
    int64_t mFirst KST_GUARDED_BY(mMutex) = -1;  // the running time of timestamp 0
    int64_t mLast KST_GUARDED_BY(mMutex) = 0;    // last timestamp sent
    int64_t mLastVideo KST_GUARDED_BY(mMutex) = -1;
    Counts mCounts KST_GUARDED_BY(mMutex);

    // What the destination has received.
    unsigned mConnection KST_GUARDED_BY(mMutex) = 0;
    std::shared_ptr<const Header> mVideoHeader KST_GUARDED_BY(mMutex);
    std::shared_ptr<const Header> mAudioHeader KST_GUARDED_BY(mMutex);
};

}  // namespace vexalive

#endif
