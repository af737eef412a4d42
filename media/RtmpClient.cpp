#include "media/RtmpClient.h"

#include <utility>

#include "media/Log.h"

namespace vexalive {

using std::chrono::duration_cast;
using std::chrono::milliseconds;

unsigned RtmpProgress::begin() {
    const KstMutexLock lock(mMutex);
    mHasFlowed = false;
    mFirst = mLast = Clock::now();
    return ++mConnection;
}

void RtmpProgress::end() {
    const KstMutexLock lock(mMutex);
    mHasFlowed = false;
}

void RtmpProgress::add(unsigned connection, size_t bytes, bool isMedia) {
    const KstMutexLock lock(mMutex);
    if (connection != mConnection) {
        return;
    }
    mBytes += bytes;
    if (isMedia) {
        mLast = Clock::now();
        mFirst = mHasFlowed ? mFirst : mLast;
        mHasFlowed = mHasEverFlowed = true;
    }
}

void RtmpProgress::resetIdleTime(unsigned connection) {
    const KstMutexLock lock(mMutex);
    if (connection == mConnection) {
        mLast = Clock::now();
    }
}

unsigned RtmpProgress::connections() const {
    const KstMutexLock lock(mMutex);
    return mConnection;
}

bool RtmpProgress::hasFlowed() const {
    const KstMutexLock lock(mMutex);
    return mHasFlowed;
}

bool RtmpProgress::hasEverFlowed() const {
    const KstMutexLock lock(mMutex);
    return mHasEverFlowed;
}

milliseconds RtmpProgress::idleTime() const {
    const KstMutexLock lock(mMutex);
    return duration_cast<milliseconds>(Clock::now() - mLast);
}

milliseconds RtmpProgress::flowTime() const {
    const KstMutexLock lock(mMutex);
    return duration_cast<milliseconds>(mLast - mFirst);
}

uint64_t RtmpProgress::bytes() const {
    const KstMutexLock lock(mMutex);
    return mBytes;
}

void RtmpClient::setAddress(const std::string& address) {
    if (address == mAddress) {
        return;
    }
    mAddress = address;
    mRetry.reset();
    mError.clear();
    connect();
}

void RtmpClient::connect() {
    mTimer.cancel();
    mReconnects += mCountsNext ? 1 : 0;
    mCountsNext = true;
    close();
    mPipeline = open(mAddress, mProgress->begin(), [this](const Result<void>& result) { ended(result); });
    mPipeline->play();
}

void RtmpClient::ended(const Result<void>& result) {
    closeAndReconnect(result ? endError() : result.error().message);
}

void RtmpClient::closeAndReconnect(const std::string& error) {
    if (!error.empty()) {
        logLine(mRules.name + ": " + error);
    }
    mError = error;
    mCountsNext = !error.empty();
    if (isSteady()) {
        mRetry.reset();
    }
    close();
    mProgress->end();
    mPipeline.reset();
    mTimer.start(mRetry.nextPause(), [this] { connect(); });
}

void RtmpClient::reconnectLater(const std::string& error) {
    logLine(mRules.name + ": " + error);
    mError = error;
    mCountsNext = true;
    mTimer.start(mRetry.nextPause(), [this] { connect(); });
}

// The timeout is needed because a server that disappears does not close its connection.
void RtmpClient::check() {
    if (!mPipeline) {
        return;
    }
    if (isStalled(mRules.stallTimeout)) {
        mRetry.reset();  // reconnect soon: the stall timeout was already a long pause
        closeAndReconnect(stallError());
    } else if (!mTimer.isActive() && isSteady()) {
        mRetry.reset();
    }
}

bool RtmpClient::isSteady() const {
    return mProgress->hasFlowed() && mProgress->flowTime() >= mRules.steadyTime;
}

bool RtmpClient::isStalled(milliseconds timeout) const {
    return mProgress->idleTime() >= timeout;
}

void RtmpClient::disconnect() {
    mTimer.cancel();
    mPipeline.reset();
}

}  // namespace vexalive
