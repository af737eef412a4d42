// Receives a stream from an RTMP server, as FLV tags.
//
//     rtmp2src ! appsink ──▶ FlvReader ──▶ onTag
//
// The origin keeps a connection open while no one publishes, and ends it when the publisher leaves.

#ifndef VEXALIVE_MEDIA_RTMP_SOURCE_H
#define VEXALIVE_MEDIA_RTMP_SOURCE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "media/FlvStream.h"
#include "media/RtmpClient.h"

namespace vexalive {

class RtmpSource final : public RtmpClient {
public:
    struct Handlers {
        /// A connection is about to begin; no tag of an older one comes any more. Main loop.
        std::function<void()> onConnecting;
        /// Each tag, one at a time, on a streaming thread. `isCounted`: it is a frame of the stream as numbers count
        /// them, of video, or of audio if there is no video. Called with the source's lock held: it must not call the
        /// source. May be called for a while after the source has been destroyed: capture shared ownership.
        std::function<void(const FlvTag& tag, bool isCounted)> onTag;
    };

    RtmpSource(Rules rules, Handlers handlers);

    void stop() { disconnect(); }

    /// Media have come on this connection, and the last within `timeout`.
    bool isFlowing(std::chrono::milliseconds timeout) const;
    uint64_t frames() const;

private:
    class Stream;

    std::unique_ptr<Pipeline> open(const std::string& address, unsigned connection, Pipeline::Ended ended) override;
    std::string endError() const override { return hasFlowed() ? "its publisher has left" : ""; }
    std::string stallError() const override { return hasFlowed() ? "nothing came from it any more" : ""; }

    const std::function<void()> mOnConnecting;
    const std::shared_ptr<Stream> mStream;  // shared with the streaming threads
};

/// The error of a source that is connected while no one publishes the stream.
std::string absenceOf(const std::string& streamId, bool hasRun);

}  // namespace vexalive

#endif
