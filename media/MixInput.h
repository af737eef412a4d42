// One input of a mix: fetches a stream from the origin, decodes it, and puts the media into its feed.
//
//     rtmp2src ! appsink ── tags, given their turn ──▶ appsrc ! h264parse ! avdec_h264 ! appsink ──▶ feed
//                                                      appsrc ! aacparse ! avdec_aac ! … ! appsink ──▶
//
// The connection is made anew whenever it ends: the origin keeps one open while no one publishes, and ends it when the
// publisher leaves.

#ifndef VEXALIVE_MEDIA_MIX_INPUT_H
#define VEXALIVE_MEDIA_MIX_INPUT_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "media/MixFeed.h"
#include "media/Pipeline.h"
#include "media/Retry.h"
#include "media/Status.h"

namespace vexalive {

class MixInput {
public:
    MixInput(std::string streamId, std::string source);
    ~MixInput();

    const std::string& streamId() const { return mStreamId; }
    const std::string& source() const { return mSource; }
    const std::shared_ptr<MixFeed>& feed() const { return mFeed; }

    // Without, video is not decoded.
    void wantPicture(bool isWanted);

    void check();  // once a second: gives up a connection on which nothing comes, or nothing that can be decoded
    InputStatus status() const;

private:
    class Demuxer;

    void connect();
    void reconnect(const std::string& error);
    void decodingFailed(const std::string& error);
    void connectAfter(std::chrono::milliseconds pause);

    const std::string mStreamId;
    const std::string mSource;
    const std::shared_ptr<MixFeed> mFeed;
    const std::shared_ptr<Demuxer> mDemuxer;  // shared with the streaming threads
    std::unique_ptr<Pipeline> mConnection;
    std::unique_ptr<Pipeline> mDecoders;
    Retry mRetry;
    unsigned mTimer = 0;       // until it is tried again
    uint64_t mReconnects = 0;  // but for those that only look whether someone publishes now
    std::string mError;
    std::string mCannotDecode;  // empty once all goes well for a while
};

}  // namespace vexalive

#endif
