// The one HTTPS engine of the process: libcurl's multi interface, shared by all clients.
//
// The first request starts the engine. All clients share connections, TLS sessions and DNS results; over HTTP/2,
// requests share a connection. One thread at a time does the I/O. While it does, this thread runs no host code
// (HttpThreads.h).

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
    std::shared_ptr<ResponseQueue> responses;  // receives the completion
    Completion completion;                     // only the callback and the observer's fields are set so far
    std::chrono::steady_clock::time_point started;
};

class HttpEngine {
public:
    // The first call starts the engine, which is never destroyed. Null if the engine was not started before the process
    // began to exit. If a thread cannot be started, std::system_error ends the process.
    static HttpEngine* instance();

    // Stops the engine permanently, or prevents its start. Runs at exit, before libcurl and OpenSSL are cleaned up.
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
    std::deque<std::unique_ptr<OutgoingRequest>> mPending;  // not started yet, see canStart()
    bool mHasResponse = false;                              // a response has arrived since mIoStarted
    std::chrono::steady_clock::time_point mIoStarted;
    int mPollMilliseconds = 0;
    std::chrono::steady_clock::time_point mLastTimeout;  // when an exchange last timed out; the epoch if never

    KstMutex mMutex;
    std::vector<std::unique_ptr<OutgoingRequest>> mInbox KST_GUARDED_BY(mMutex);
    bool mShuttingDown KST_GUARDED_BY(mMutex) = false;
    HttpThreads mThreads;  // last: the threads use all members above
};

}  // namespace vexalive

#endif
