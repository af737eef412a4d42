// Sends the adapter's request with libcurl alone, with the same checks of certificate and response. Its cost is a lower
// bound for the cost of the adapter.

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

// The port in the environment variable VEXALIVE_SERVICE_HOST.
int servicePort();

// Sends one request at a time on one easy handle. perform() blocks until the response has arrived.
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

// Sends concurrent requests on one multi handle, which has its own thread. send() does not block. Easy handles are
// reused.
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
