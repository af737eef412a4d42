// Sends FLV tags to an RTMP server.
//
//     RtmpQueue ──▶ appsrc ! rtmp2sink

#ifndef VEXALIVE_MEDIA_RTMP_SINK_H
#define VEXALIVE_MEDIA_RTMP_SINK_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "media/RtmpClient.h"

namespace vexalive {

/// The queue of tags to send to the server. Any thread.
class RtmpQueue {
public:
    explicit RtmpQueue(std::shared_ptr<RtmpProgress> progress) : mProgress(std::move(progress)) {}

    /// The number of the current connection; 0: not connected. If the number changes, send the stream headers again.
    unsigned connection() const;

    size_t bytes() const;   ///< in the queue; 0 without a connection
    size_t frames() const;  ///< tags in the queue; 0 without a connection

    /// Adds a tag, unless `connection` has ended.
    void push(unsigned connection, const std::string& tag);

    /// Begins a connection and queues the FLV header.
    void attach(unsigned connection, GstElement* appsrc);
    void detach();  ///< ends the stream and the connection

private:
    void pushBytes(std::string_view bytes) KST_REQUIRES(mMutex);

    const std::shared_ptr<RtmpProgress> mProgress;

    mutable KstMutex mMutex;
    unsigned mConnection KST_GUARDED_BY(mMutex) = 0;
    GstRef<GstElement> mAppsrc KST_GUARDED_BY(mMutex);
};

class RtmpSink final : public RtmpClient {
public:
    static constexpr const char* kStalledError = "it accepts no more data";

    explicit RtmpSink(Rules rules);

    const std::shared_ptr<RtmpQueue>& queue() const { return mQueue; }

    /// Whether tags are queued and the server has accepted none of them within the last `timeout`.
    bool isStalled(std::chrono::milliseconds timeout) const override;

    /// Ends the stream at the server, then calls `done`.
    void stop(std::function<void()> done);

private:
    std::unique_ptr<Pipeline> open(const std::string& address, unsigned connection, Pipeline::OnEnded onEnded) override;
    void close() override { mQueue->detach(); }
    void ended(const Result<void>& result) override;
    std::string endError() const override { return "it ended the stream"; }
    std::string stallError() const override { return kStalledError; }

    const std::shared_ptr<RtmpQueue> mQueue;  // shared with the streaming threads
    std::function<void()> mOnStopped;         // null unless stopping
};

}  // namespace vexalive

#endif
