// One input of a mix: receives a stream from the origin, decodes it, and puts the media into its MixFeed.
//
//     RtmpSource ── tags with presentation times ────▶ appsrc ! h264parse ! avdec_h264 ! appsink ──▶ MixFeed
//                                                      appsrc ! aacparse ! avdec_aac ! … ! appsink ──▶

#ifndef VEXALIVE_MEDIA_MIX_INPUT_STREAM_H
#define VEXALIVE_MEDIA_MIX_INPUT_STREAM_H

#include <memory>
#include <string>

#include "common/WorkerStatus.h"
#include "media/MixFeed.h"
#include "media/Pipeline.h"
#include "media/RtmpSource.h"

namespace vexalive {

/// One input of a mix. Call its members on the main loop only.
class MixInputStream {
public:
    MixInputStream(std::string streamId, std::string address);
    ~MixInputStream();

    const std::string& streamId() const { return mStreamId; }
    const std::string& address() const { return mAddress; }
    const std::shared_ptr<MixFeed>& feed() const { return mFeed; }

    /// Sets whether video is decoded. Audio always is.
    void enableVideo(bool isEnabled);

    /// Call once per second. Reconnects if the connection receives no media, or no media that can be decoded.
    void check();
    InputStatus status() const;

private:
    class Demuxer;

    void makeDecoders();
    void decodingFailed(const std::string& error);

    const std::string mStreamId;
    const std::string mAddress;
    const std::shared_ptr<MixFeed> mFeed;
    const std::shared_ptr<Demuxer> mDemuxer;  // shared with the streaming threads
    std::unique_ptr<Pipeline> mDecoders;      // new for each connection
    RtmpSource mSource;
    std::string mDecodingError;  // cleared when a connection has been steady without an error
};

}  // namespace vexalive

#endif
