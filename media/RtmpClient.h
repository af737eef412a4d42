// A client of an RTMP server. It reconnects whenever its connection breaks or stalls. RtmpSource and RtmpSink share
// these rules and define what a stall is.

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
/// A thread that holds several mutexes locks them in this order: the source's, the tag handler's, the queue's, this
/// one.
class RtmpProgress {
public:
    /// Begins a connection and returns its number, at least 1. From now on, calls with another number have no effect.
    unsigned begin();
    void end();

    /// Counts transferred bytes. `isMedia` is false for protocol data without media.
    void add(unsigned connection, size_t bytes, bool isMedia);
    /// Restarts the idle time. Call this if there was nothing to transfer until now.
    void resetIdleTime(unsigned connection);

    unsigned connections() const;                ///< number of connections that have begun
    bool hasFlowed() const;                      ///< whether media were transferred on this connection
    bool hasEverFlowed() const;                  ///< whether media were transferred on any connection
    std::chrono::milliseconds idleTime() const;  ///< time since the last media, or since the connection began
    std::chrono::milliseconds flowTime() const;  ///< time from the first to the last media of this connection
    uint64_t bytes() const;                      ///< on all connections

private:
    using Clock = std::chrono::steady_clock;

    mutable KstMutex mMutex;
    unsigned mConnection KST_GUARDED_BY(mMutex) = 0;
    bool mHasFlowed KST_GUARDED_BY(mMutex) = false;
    bool mHasEverFlowed KST_GUARDED_BY(mMutex) = false;
    Clock::time_point mFirst KST_GUARDED_BY(mMutex);  // time of the first media of this connection
    Clock::time_point mLast KST_GUARDED_BY(mMutex);   // end of the last transfer; start of the idle time
    uint64_t mBytes KST_GUARDED_BY(mMutex) = 0;
};

/// Call its members on the main loop only.
class RtmpClient {
public:
    struct Rules {
        std::string name;                         ///< for the log, which must not contain the address with its key
        std::chrono::milliseconds stallTimeout;   ///< time without progress until the client reconnects
        std::chrono::milliseconds steadyTime{0};  ///< flowTime() after which the retry pauses restart
    };

    virtual ~RtmpClient() = default;
    RtmpClient(const RtmpClient&) = delete;
    RtmpClient& operator=(const RtmpClient&) = delete;

    /// Connects to `address`. Does nothing if the address is unchanged.
    void setAddress(const std::string& address);

    /// Call once per second. Reconnects if the connection has stalled.
    void check();

    /// Reconnects after the next retry pause. The connection stays open until then.
    void reconnectLater(const std::string& error);

    bool isOpen() const { return mPipeline != nullptr; }  ///< connected, or connecting
    bool isReconnecting() const { return mTimer.isActive(); }
    bool hasFlowed() const { return mProgress->hasFlowed(); }
    bool isSteady() const;                               ///< whether media have flowed for Rules::steadyTime
    const std::string& error() const { return mError; }  ///< why the previous connection ended
    uint64_t reconnects() const { return mReconnects; }  ///< not counted before the stream has begun
    const RtmpProgress& progress() const { return *mProgress; }

protected:
    explicit RtmpClient(Rules rules) : mRules(std::move(rules)) {}

    virtual std::unique_ptr<Pipeline> open(const std::string& address, unsigned connection,
                                           Pipeline::OnEnded onEnded) = 0;
    virtual void close() {}  ///< called before the pipeline is destroyed
    virtual void ended(const Result<void>& result);
    virtual bool isStalled(std::chrono::milliseconds timeout) const;
    /// The error to report if the server ends the stream. If empty, the client reconnects without reporting an error.
    virtual std::string endError() const = 0;
    /// The same, if the connection stalls.
    virtual std::string stallError() const = 0;

    void disconnect();

    const std::shared_ptr<RtmpProgress> mProgress = std::make_shared<RtmpProgress>();

private:
    void connect();
    void closeAndReconnect(const std::string& error);

    const Rules mRules;
    std::string mAddress;
    std::unique_ptr<Pipeline> mPipeline;
    Retry mRetry;
    Timer mTimer;
    std::string mError;
    bool mCountsNext = false;  // whether the next connection counts as a reconnect
    uint64_t mReconnects = 0;
};

}  // namespace vexalive

#endif
