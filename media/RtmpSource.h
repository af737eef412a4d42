// Receives a stream from an RTMP server, as FLV tags.
//
//     rtmp2src ! appsink ──▶ FlvReader ──▶ onTag
//
// The origin keeps a connection open while nobody publishes, and closes it when the publisher disconnects.

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
        /// Called on the main loop before a connection begins. No tag of an older connection follows.
        std::function<void()> onConnecting;
        /// Called with each tag, one at a time, on a streaming thread. `isCounted` says that the tag counts as a frame:
        /// a video frame, or an audio frame if there is no video. The source's mutex is locked: do not call the source.
        /// Calls may follow even after the source has been destroyed: capture shared ownership.
        std::function<void(const FlvTag& tag, bool isCounted)> onTag;
    };

    RtmpSource(Rules rules, Handlers handlers);

    void stop() { disconnect(); }

    /// Whether this connection has received media within the last `timeout`.
    bool isFlowing(std::chrono::milliseconds timeout) const;
    uint64_t frames() const;  ///< number of counted frames on all connections

private:
    class Stream;

    std::unique_ptr<Pipeline> open(const std::string& address, unsigned connection, Pipeline::OnEnded onEnded) override;
    std::string endError() const override { return hasFlowed() ? "its publisher has disconnected" : ""; }
    std::string stallError() const override { return hasFlowed() ? "it sends no more data" : ""; }

    const std::function<void()> mOnConnecting;
    const std::shared_ptr<Stream> mStream;  // shared with the streaming threads
};

/// The error for a source that is connected while nobody publishes the stream. `hasRun` says that the source has
/// received media before.
std::string absenceError(const std::string& streamId, bool hasRun);

}  // namespace vexalive

#endif
