// Uses each part of the library once, so that the build or the run fails if a part is missing. Connects to loopback
// only.

#include <future>
#include <iostream>
#include <memory>
#include <string>

#include "Com/LiveTranscodingAdapter.h"
#include "base/CVexaHttpSendRecv.h"
#include "base/Json.h"
#include "base/KstCopyOnWriteBuffer.h"
#include "base/Md5.h"
#include "base/Version.h"
#include "platform/Platform.h"

namespace {

// Stores the first outcome of a relay start.
class Listener : public ILiveTrancodingDelegate {
public:
    void onStartPublishStreamUrl(int errCode, std::string errMsg) override {
        mOutcome.set_value(std::to_string(errCode) + " " + errMsg);
    }
    void onStopPublishStreamUrl(int, std::string) override {}
    void onSetLiveMixTranscoding(int, std::string) override {}
    void onStopLiveMixTranscoding(int, std::string) override {}

    std::string outcome() { return mOutcome.get_future().get(); }

private:
    std::promise<std::string> mOutcome;
};

std::string outcomeOfAnEmptyRelay() {
    const auto listener = std::make_shared<Listener>();
    const auto adapter = std::make_shared<LiveTranscodingAdapter>();
    adapter->setLiveTranscodingDelegate(listener);
    adapter->startPublishStreamUrl(kstmedia::VexaPublishCDNParamInternal());
    return listener->outcome();
}

// The return code of a request to a port that refuses connections.
int returnCodeOfARefusedRequest() {
    std::promise<int> code;
    std::future<int> arrived = code.get_future();
    CVexaHttpSendRecv client;
    KstCopyOnWriteBuffer body;
    client.sendHttpsRequest(body, "https://127.0.0.1:1/",
                            [&code](int retCode, KstCopyOnWriteBuffer&) { code.set_value(retCode); });
    return arrived.get();
}

int failures = 0;

template <class T>
void expect(const char* what, const T& actual, const T& expected) {
    const bool met = actual == expected;
    std::cout << (met ? "ok   " : "FAIL ") << what << ": " << actual << "\n";
    failures += met ? 0 : 1;
}

}  // namespace

int main() {
    vexalive::setLogSink([](int, const char*, int, const char*, const std::string&) {});
    expect<std::string>("version", kstf_get_sdk_version(), "1.1.0");
    expect<std::string>("digest", kstmedia::getMD5("abc"), "900150983cd24fb0d6963f7d28e17f72");
    expect<std::string>("JSON", json::Serialize(json::Deserialize("{ \"b\": 1, \"a\": [] }")), "{\"a\":[],\"b\":1}");
    expect<std::string>("empty relay", outcomeOfAnEmptyRelay(),
                        "-3323 startPublishStreamUrl failure, param is invalid");
    expect<int>("refused request", returnCodeOfARefusedRequest(), CVexaHttpSendRecv::kRetryable);
    return failures;
}
