// Brings the mix to its destination.
//
//     encoders ──▶ Frames: puts audio and video in order, bounded ──▶  appsrc ! rtmp2sink
//
// The connection is made anew only when it breaks. What encoder a frame comes from is no matter to it: before the first
// frame of another one, that one's setup is sent on.

#ifndef VEXALIVE_MEDIA_MIX_OUTPUT_H
#define VEXALIVE_MEDIA_MIX_OUTPUT_H

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "media/FlvStream.h"
#include "media/MixConfiguration.h"
#include "media/Pipeline.h"
#include "media/Retry.h"
#include "media/Status.h"

namespace vexalive {

class MixOutput {
public:
    // Of one encoder.
    struct Setup {
        FlvTag tag;
        std::optional<MixVideo> video;  // one of the two
        std::optional<MixAudio> audio;
    };

    // Any thread.
    class Frames {
    public:
        // `requestKeyFrame` is called, on any thread, when nothing can be sent until a key frame comes.
        explicit Frames(std::function<void()> requestKeyFrame);

        // Whether frames of video are to come. Without one, none is waited for.
        void expectVideo(bool isExpected);
        void put(std::shared_ptr<const Setup> setup, FlvTag tag, int64_t time);

    private:
        friend class MixOutput;

        struct Frame {
            std::shared_ptr<const Setup> setup;
            FlvTag tag;
            int64_t time;  // milliseconds of running time
        };

        unsigned begin(GstElement* appsrc);  // a connection; returns its number
        void end();
        void delivered(unsigned connection, size_t bytes);
        bool hasFlowed() const;  // on this connection
        bool hasEverFlowed() const;
        int64_t millisecondsIdle() const;  // since it has taken something
        MediaNumbers numbers() const;

        // Under mMutex.
        bool isCounted(const FlvTag& tag) const;
        void putInOrder(Frame frame);
        void makeRoom();
        void drop(const Frame& frame);
        void send();
        bool isInOrder(const Frame& frame) const;
        void sendFrame(const Frame& frame);
        void push(const std::string& bytes);

        const std::function<void()> mRequestKeyFrame;
        mutable std::mutex mMutex;
        bool mExpectsVideo = false;
        bool mAwaitsKeyFrame = false;
        std::deque<Frame> mFrames;  // by time
        int64_t mNewestVideo = INT64_MIN;
        int64_t mNewestAudio = INT64_MIN;
        int64_t mFirst = -1;  // the time that is 0 at the destination
        int64_t mLast = 0;    // that was sent
        int64_t mLastVideo = -1;

        GstRef<GstElement> mAppsrc;  // null: not connected
        unsigned mConnection = 0;
        std::shared_ptr<const Setup> mVideoSetup;  // that the destination has
        std::shared_ptr<const Setup> mAudioSetup;
        uint64_t mDelivered = 0;  // buffers, on this connection
        int64_t mDeliveredAt = 0;
        bool mHasEverFlowed = false;
        MediaNumbers mNumbers;
    };

    explicit MixOutput(std::function<void()> requestKeyFrame);
    ~MixOutput();

    const std::shared_ptr<Frames>& frames() const { return mFrames; }
    void setDestination(const std::string& destination);
    void check();  // once a second: gives up a connection that takes nothing any more
    MediaNumbers numbers() const;
    void stop(std::function<void()> done);

private:
    void connect();
    void reconnect(const std::string& error);

    const std::shared_ptr<Frames> mFrames;
    std::string mDestination;
    std::unique_ptr<Pipeline> mPipeline;
    Retry mRetry;
    unsigned mTimer = 0;  // until it is tried again
    uint64_t mConnections = 0;
    std::string mError;
    std::function<void()> mStopped;
};

}  // namespace vexalive

#endif
