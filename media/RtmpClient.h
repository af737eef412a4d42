// A connection to an RTMP server that reconnects whenever it breaks or stalls. RtmpSource and RtmpSink share these
// rules; they differ in what counts as progress.

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

/// Counts and times of transferred bytes, for the current connection and in total. Any thread.
///
/// Lock order: the source, the object that handles its tags, the queue, then this.
class RtmpProgress {
public:
    /// A connection begins. Returns its number, at least 1: calls with another number have no effect from now on.
    unsigned begin();
    void end();

    /// Counts transferred bytes. `isMedia`: they are media, not only protocol data.
    void add(unsigned connection, size_t bytes, bool isMedia);
    /// Restarts the idle time: there was nothing to transfer until now.
    void resetIdleTime(unsigned connection);

    unsigned connections() const;  ///< number of connections that have begun
    bool hasFlowed() const;        ///< whether media were transferred on this connection
    bool hasEverFlowed() const;
    std::chrono::milliseconds idleTime() const;  ///< since the last media, or since the connection began
    std::chrono::milliseconds flowTime() const;  ///< from the first to the last media of this connection
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
        std::string name;                         ///< for the log; not the address, which may contain a key
        std::chrono::milliseconds stallTimeout;   ///< time without progress until the client reconnects
        std::chrono::milliseconds steadyTime{0};  ///< time of media on one connection until the retry pauses restart
    };

    virtual ~RtmpClient() = default;
    RtmpClient(const RtmpClient&) = delete;
    RtmpClient& operator=(const RtmpClient&) = delete;

    /// Connects to the address, unless it is unchanged.
    void setAddress(const std::string& address);

    /// Call once a second. Reconnects if the connection has stalled.
    void check();

    /// Reconnects after the next retry pause. The connection stays until then.
    void reconnectLater(const std::string& error);

    bool isOpen() const { return mPipeline != nullptr; }  ///< connected, or connecting
    bool isReconnecting() const { return mTimer.isActive(); }
    bool hasFlowed() const { return mProgress->hasFlowed(); }
    bool isSteady() const;
    const std::string& error() const { return mError; }  ///< why the previous connection ended
    uint64_t reconnects() const { return mReconnects; }  ///< excludes those before the stream has begun
    const RtmpProgress& progress() const { return *mProgress; }

protected:
    explicit RtmpClient(Rules rules) : mRules(std::move(rules)) {}

    virtual std::unique_ptr<Pipeline> open(const std::string& address, unsigned connection, Pipeline::Ended ended) = 0;
    virtual void close() {}  ///< called before the connection ends
    virtual void ended(const Result<void>& result);
    virtual bool isStalled(std::chrono::milliseconds timeout) const;
    /// Errors for a clean end and for a stall. If empty, the client reconnects without reporting an error.
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
