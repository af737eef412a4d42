// The adapter's request by libcurl alone, with as much checked: the floor under what the adapter costs.

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

// One request at a time on one handle; the caller waits.
class BareEasy {
public:
    BareEasy();
    ~BareEasy();
    BareEasy(const BareEasy&) = delete;
    BareEasy& operator=(const BareEasy&) = delete;

    CURL* handle() const { return mHandle; }
    void perform();

    // Ends the program if the answer is not the one that a service gives.
    void expectAnswer(CURLcode result);

private:
    std::string mAnswer;
    curl_slist* mHeaders = nullptr;
    CURL* mHandle;
};

// Many requests at a time on a thread of their own; no caller waits. Handles are used again.
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
    bool takeRequests();

    CURLM* mMulti;
    std::mutex mMutex;
    std::vector<std::function<void()>> mInbox;  // guarded by the mutex
    bool mLeaving = false;                      // guarded by the mutex
    std::vector<std::unique_ptr<Request>> mUnused;
    std::thread mThread;
};

}  // namespace bench

#endif
