// The one HTTPS engine of the process: libcurl's multi interface, shared by all clients.
//
// The first request starts it. All clients share connections, TLS sessions and DNS results; over HTTP/2 requests share
// a connection. One thread at a time does the I/O, and no host code runs on it meanwhile (HttpThreads.h).

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
    std::shared_ptr<ResponseQueue> responses;  // where the completion goes
    Completion completion;                     // filled in so far: the callback and the observer's part
    std::chrono::steady_clock::time_point started;
};

class HttpEngine {
public:
    // The first call starts the engine, which is never destroyed. Null if the process exits before the first call. If a
    // thread cannot be started, the standard library's system error ends the process.
    static HttpEngine* instance();

    // Stops the engine permanently, or prevents its start. Runs at exit, before the libraries below are destroyed.
    static void shutDown();

    void send(std::unique_ptr<OutgoingRequest> request) KST_EXCLUDES(mMutex);

private:
    struct Exchange;

    HttpEngine() noexcept;
    void stop() KST_EXCLUDES(mMutex);

    // The functions below run on the I/O thread only.
    void runIo();
    bool startRequests() KST_EXCLUDES(mMutex);
    bool canStart() const;
    void startExchange(std::unique_ptr<OutgoingRequest> request);
    void collectFinished();
    void finish(std::unique_ptr<Exchange> exchange, CURLcode result);
    std::unique_ptr<Exchange> acquireExchange();
    std::unique_ptr<Exchange> createExchange();
    void avoidStaleConnections(CURL* handle) const;

    const HttpOptions mOptions;
    CURLM* mMulti = nullptr;
    CURLSH* mShare = nullptr;
    curl_slist* mHeaders = nullptr;
    std::set<Exchange*> mActive;  // from here to mLastTimeout: I/O thread only
    std::vector<std::unique_ptr<Exchange>> mPool;
    std::deque<std::unique_ptr<OutgoingRequest>> mPending;  // waiting for the first response
    bool mHasResponse = false;                              // since the I/O started
    std::chrono::steady_clock::time_point mIoStarted;
    int mPollMilliseconds = 0;
    std::chrono::steady_clock::time_point mLastTimeout;  // of any exchange; the epoch if none

    KstMutex mMutex;
    std::vector<std::unique_ptr<OutgoingRequest>> mInbox KST_GUARDED_BY(mMutex);
    bool mShuttingDown KST_GUARDED_BY(mMutex) = false;
    HttpThreads mThreads;  // last: the threads use all members above
};

}  // namespace vexalive

#endif
