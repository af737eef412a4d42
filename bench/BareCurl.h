// The request of the adapter made by libcurl alone, with the same checks: the lower bound of its cost.

#ifndef VEXALIVE_BENCH_BARE_CURL_H
#define VEXALIVE_BENCH_BARE_CURL_H

#include <curl/curl.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace bench {

// The port of the service that the environment variable VEXALIVE_SERVICE_HOST names.
int servicePort();

// One request at a time on one easy handle; blocks the caller.
class BareEasy {
public:
    BareEasy();
    ~BareEasy();
    BareEasy(const BareEasy&) = delete;
    BareEasy& operator=(const BareEasy&) = delete;

    CURL* handle() const { return mHandle; }
    void perform();

    // Exits the program if the response is not the expected one.
    void expectSuccess(CURLcode result);

private:
    std::string mResponse;
    curl_slist* mHeaders = nullptr;
    CURL* mHandle;
};

// Concurrent requests on one multi handle with its own thread; does not block the caller. Reuses handles.
class BareMulti {
public:
    BareMulti();
    ~BareMulti();
    BareMulti(const BareMulti&) = delete;
    BareMulti& operator=(const BareMulti&) = delete;

    // `done` is called on the multi handle's thread.
    void send(std::function<void()> done);

private:
    struct Request;

    void run();
    bool startQueued();

    CURLM* mMulti;
    std::mutex mMutex;
    std::vector<std::function<void()>> mQueue;  // guarded by the mutex
    bool mIsStopping = false;                   // guarded by the mutex
    std::vector<std::unique_ptr<Request>> mUnused;
    std::thread mThread;
};

}  // namespace bench

#endif
