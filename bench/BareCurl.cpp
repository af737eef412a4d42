#include "BareCurl.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace bench {
namespace {

constexpr const char* kBody =
    R"({"appid":1250000000,"dest_stream_url":"rtmp://cdn.example/live/stream","domain":"8888.livepush.vexa.example",)"
    R"("event_id":1790000000,"interface":"add_relay_stream_url","path":"live",)"
    R"("stream_id":"8888_0123456789abcdef0123456789abcdef","timestamp":123456,"use_mix_crop_center":1})";

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    if (!value) {
        std::fprintf(stderr, "%s is not set\n", name);
        std::exit(1);
    }
    return value;
}

size_t receive(char* data, size_t, size_t size, void* answer) {
    static_cast<std::string*>(answer)->append(data, size);
    return size;
}

}  // namespace

int servicePort() {
    const std::string host = environment("VEXALIVE_SERVICE_HOST");
    return std::atoi(host.c_str() + host.rfind(':') + 1);
}

BareEasy::BareEasy() : mHandle(curl_easy_init()) {
    const std::string url = "https://" + environment("VEXALIVE_SERVICE_HOST") +
                            "/v3/liveinterface/add_relay_stream_url?sdkappid=1400000001&random=4711"
                            "&usersig=signature-of-the-user&parivMapKey=map-key-of-the-room";
    mHeaders = curl_slist_append(mHeaders, "Content-Type: application/json");
    mHeaders = curl_slist_append(mHeaders, "Expect:");
    curl_easy_setopt(mHandle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(mHandle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(mHandle, CURLOPT_CAINFO, environment("VEXALIVE_CA_FILE").c_str());
    curl_easy_setopt(mHandle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    curl_easy_setopt(mHandle, CURLOPT_PIPEWAIT, 1L);
    curl_easy_setopt(mHandle, CURLOPT_CONNECTTIMEOUT_MS, 5000L);
    curl_easy_setopt(mHandle, CURLOPT_TIMEOUT_MS, 10000L);
    curl_easy_setopt(mHandle, CURLOPT_POSTFIELDS, kBody);
    curl_easy_setopt(mHandle, CURLOPT_HTTPHEADER, mHeaders);
    curl_easy_setopt(mHandle, CURLOPT_WRITEFUNCTION, &receive);
    curl_easy_setopt(mHandle, CURLOPT_WRITEDATA, &mResponse);
}

BareEasy::~BareEasy() {
    curl_easy_cleanup(mHandle);
    curl_slist_free_all(mHeaders);
}

void BareEasy::perform() {
    expectSuccess(curl_easy_perform(mHandle));
}

void BareEasy::expectSuccess(CURLcode result) {
    if (result != CURLE_OK || mResponse.find("\"code\":0") == std::string::npos) {
        std::fprintf(stderr, "a request failed: %s\n", curl_easy_strerror(result));
        std::_Exit(1);
    }
    mResponse.clear();
}

struct BareMulti::Request {
    BareEasy easy;
    std::function<void()> done;
};

BareMulti::BareMulti() : mMulti(curl_multi_init()) {
    curl_multi_setopt(mMulti, CURLMOPT_MAX_CONCURRENT_STREAMS, 1000L);
    mThread = std::thread([this] { run(); });
}

BareMulti::~BareMulti() {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mIsStopping = true;
    }
    curl_multi_wakeup(mMulti);
    mThread.join();
    mUnused.clear();
    curl_multi_cleanup(mMulti);
}

void BareMulti::send(std::function<void()> done) {
    bool wake = false;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        wake = mQueue.empty();
        mQueue.push_back(std::move(done));
    }
    if (wake) {
        curl_multi_wakeup(mMulti);
    }
}

bool BareMulti::startQueued() {
    std::vector<std::function<void()>> inbox;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mIsStopping) {
            return false;
        }
        inbox.swap(mQueue);
    }
    for (auto& done : inbox) {
        std::unique_ptr<Request> request;
        if (mUnused.empty()) {
            request = std::make_unique<Request>();
        } else {
            request = std::move(mUnused.back());
            mUnused.pop_back();
        }
        request->done = std::move(done);
        CURL* handle = request->easy.handle();
        curl_easy_setopt(handle, CURLOPT_PRIVATE, request.release());
        curl_multi_add_handle(mMulti, handle);
    }
    return true;
}

void BareMulti::run() {
    while (startQueued()) {
        int running = 0;
        curl_multi_perform(mMulti, &running);
        int left = 0;
        while (CURLMsg* message = curl_multi_info_read(mMulti, &left)) {
            const CURLcode result = message->data.result;
            CURL* handle = message->easy_handle;
            Request* finished = nullptr;
            curl_easy_getinfo(handle, CURLINFO_PRIVATE, &finished);
            std::unique_ptr<Request> request(finished);
            curl_multi_remove_handle(mMulti, handle);
            request->easy.expectSuccess(result);
            request->done();
            mUnused.push_back(std::move(request));
        }
        curl_multi_poll(mMulti, nullptr, 0, 1000, nullptr);
    }
}

}  // namespace bench
