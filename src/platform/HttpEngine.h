// The one HTTPS engine of the process: libcurl's multi interface, shared by all clients.
//
// The first request starts it. Connections, TLS sessions and DNS answers are shared; over HTTP/2 requests share a
// connection. One thread at a time does the I/O, and nothing of a host's runs meanwhile on it (HttpThreads.h).

#ifndef VEXALIVE_PLATFORM_HTTP_ENGINE_H
#define VEXALIVE_PLATFORM_HTTP_ENGINE_H

#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/KstCopyOnWriteBuffer.h"
#include "base/Mutex.h"
#include "platform/HttpThreads.h"
#include "platform/Platform.h"

namespace vexalive {

struct OutgoingRequest {
    std::string url;
    KstCopyOnWriteBuffer body;
    std::shared_ptr<AnswerQueue> answers;  // who hears of the end
    Answer answer;                         // what is known of it already: the callback and the observer's part
    std::chrono::steady_clock::time_point started;
};

class HttpEngine {
public:
    // Started at the first call; never destroyed. Null if the process leaves before there was one. If a thread cannot
    // be started, the standard library's system error ends the process.
    static HttpEngine* instance();

    // Stops the engine for good, or keeps it from being started: before the libraries under it end.
    static void leave();

    void send(std::unique_ptr<OutgoingRequest> request) KST_EXCLUDES(mMutex);

private:
    struct Exchange;

    HttpEngine() noexcept;
    void stop() KST_EXCLUDES(mMutex);

    // Below: the thread that does the I/O only.
    void doIo();
    bool takeRequests() KST_EXCLUDES(mMutex);
    bool mayBegin() const;
    void begin(std::unique_ptr<OutgoingRequest> request);
    void collectFinished();
    void end(std::unique_ptr<Exchange> exchange, CURLcode result);
    std::unique_ptr<Exchange> takeExchange();
    std::unique_ptr<Exchange> makeExchange();
    void distrustOldConnections(CURL* handle) const;

    const HttpOptions mOptions;
    CURLM* mMulti = nullptr;
    CURLSH* mShare = nullptr;
    curl_slist* mHeaders = nullptr;
    std::set<Exchange*> mUnderWay;  // for the thread that does the I/O, as are those that follow
    std::vector<std::unique_ptr<Exchange>> mSpare;
    std::deque<std::unique_ptr<OutgoingRequest>> mHeldBack;  // until the first connection is known
    bool mIsServerKnown = false;                             // it has answered since the I/O began
    std::chrono::steady_clock::time_point mIoBegan;
    int mPollMilliseconds = 0;
    std::chrono::steady_clock::time_point mLastTimeout;  // of any exchange; the epoch if there was none

    KstMutex mMutex;
    std::vector<std::unique_ptr<OutgoingRequest>> mInbox KST_GUARDED_BY(mMutex);
    bool mLeaving KST_GUARDED_BY(mMutex) = false;
    HttpThreads mThreads;  // last: they run on all of the above
};

}  // namespace vexalive

#endif
