// A connection to an RTMP server that is made anew whenever it breaks or stalls. RtmpSource and RtmpSink have the same
// rules for that, and differ in what they call progress.

#ifndef VEXALIVE_MEDIA_RTMP_CLIENT_H
#define VEXALIVE_MEDIA_RTMP_CLIENT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "base/Mutex.h"
#include "media/MainLoop.h"
#include "media/Pipeline.h"
#include "media/Retry.h"

namespace vexalive {

/// What has passed, and when, on the current connection and in all. Any thread.
///
/// Its lock is the innermost: those of the source, of the object that handles its tags, and of the queue are taken
/// before it, in this order.
class RtmpProgress {
public:
    /// A connection begins. Returns its number, at least 1: calls with another number have no effect from now on.
    unsigned begin();
    void end();

    /// Bytes have passed. `isMedia`: not only what the protocol needs, so the stream flows.
    void add(unsigned connection, size_t bytes, bool isMedia);
    /// Nothing was due until now, so the idle time starts anew.
    void resetIdleTime(unsigned connection);

    unsigned connections() const;  ///< that have begun
    bool hasFlowed() const;        ///< on this connection
    bool hasEverFlowed() const;
    std::chrono::milliseconds idleTime() const;  ///< since the last of the media, or since the connection began
    std::chrono::milliseconds flowTime() const;  ///< from the first to the last of this connection's media
    uint64_t bytes() const;                      ///< on all connections

private:
    using Clock = std::chrono::steady_clock;

    mutable KstMutex mMutex;
    unsigned mConnection KST_GUARDED_BY(mMutex) = 0;
    bool mHasFlowed KST_GUARDED_BY(mMutex) = false;
    bool mHasEverFlowed KST_GUARDED_BY(mMutex) = false;
    Clock::time_point mFirst KST_GUARDED_BY(mMutex);
    Clock::time_point mLast KST_GUARDED_BY(mMutex);
    uint64_t mBytes KST_GUARDED_BY(mMutex) = 0;
};

/// Main loop only.
class RtmpClient {
public:
    struct Rules {
        std::string name;                         ///< in the log; not an address that may end in a key
        std::chrono::milliseconds stallTimeout;   ///< without progress; then the connection is made anew
        std::chrono::milliseconds steadyTime{0};  ///< of media on one connection; then the retry pauses start anew
    };

    virtual ~RtmpClient() = default;
    RtmpClient(const RtmpClient&) = delete;
    RtmpClient& operator=(const RtmpClient&) = delete;

    /// Connects, unless that is the address already.
    void setAddress(const std::string& address);

    /// To be called once a second: applies the stall rule.
    void check();

    /// Reconnects after the next retry pause. The connection stays until then.
    void reconnectLater(const std::string& error);

    bool isOpen() const { return mPipeline != nullptr; }  ///< connected, or connecting
    bool isReconnecting() const { return mTimer.isActive(); }
    bool hasFlowed() const { return mProgress->hasFlowed(); }
    bool isSteady() const;
    const std::string& error() const { return mError; }  ///< why the connection before this one ended
    uint64_t reconnects() const { return mReconnects; }  ///< without those for a stream that has not begun
    const RtmpProgress& progress() const { return *mProgress; }

protected:
    explicit RtmpClient(Rules rules) : mRules(std::move(rules)) {}

    virtual std::unique_ptr<Pipeline> open(const std::string& address, unsigned connection, Pipeline::Ended ended) = 0;
    virtual void close() {}  ///< the connection is about to end
    virtual void ended(const Result<void>& result);
    virtual bool isStalled(std::chrono::milliseconds timeout) const;
    /// Errors for a clean end and a stall. If empty, there is nothing to report: the client just connects again.
    virtual std::string endError() const = 0;
    virtual std::string stallError() const = 0;

    void disconnect();

    const std::shared_ptr<RtmpProgress> mProgress = std::make_shared<RtmpProgress>();

private:
    void connect();
    void lose(const std::string& error);

    const Rules mRules;
    std::string mAddress;
    std::unique_ptr<Pipeline> mPipeline;
    Retry mRetry;
    Timer mTimer;
    std::string mError;
    bool mCountsNext = false;  // whether the next connection is a reconnect
    uint64_t mReconnects = 0;
};

}  // namespace vexalive

#endif
