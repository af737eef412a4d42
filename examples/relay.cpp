// Starts a relay of the local user's stream to a CDN address, then stops it. This is the smallest complete application.
//
//     VEXALIVE_SERVICE_HOST=… VEXALIVE_CA_FILE=… example_relay rtmp://cdn.example/live/stream

#include <future>
#include <iostream>
#include <mutex>

#include "Com/LiveTranscodingAdapter.h"

// The outcome of one request. Only the first call of set() counts: after an empty response, the listener is notified
// twice.
class Outcome {
public:
    void set(int errCode, const std::string& errMsg) {
        std::cout << errCode << " " << errMsg << std::endl;
        std::call_once(mOnce, [&] { mCode.set_value(errCode); });
    }
    int wait() { return mCode.get_future().get(); }

private:
    std::once_flag mOnce;
    std::promise<int> mCode;
};

class Listener : public ILiveTrancodingDelegate {
public:
    Outcome start;
    Outcome stop;

    void onStartPublishStreamUrl(int errCode, std::string errMsg) override { start.set(errCode, errMsg); }
    void onStopPublishStreamUrl(int errCode, std::string errMsg) override { stop.set(errCode, errMsg); }
    void onSetLiveMixTranscoding(int, std::string) override {}
    void onStopLiveMixTranscoding(int, std::string) override {}
};

int main(int argc, char** argv) {
    const auto listener = std::make_shared<Listener>();
    const auto adapter = std::make_shared<LiveTranscodingAdapter>();
    adapter->setLiveTranscodingDelegate(listener);
    adapter->updateUserInfo(1400000000, "the-users-signature", "alice");
    adapter->updateEnterRoomInfo("room", "the-rooms-map-key");

    kstmedia::VexaPublishCDNParamInternal param;
    param.appId = 1250000000;
    param.bizId = 8888;
    param.url = argc > 1 ? argv[1] : "";
    adapter->startPublishStreamUrl(param);  // returns at once, like all operations
    if (listener->start.wait() != 0) {
        return 1;
    }
    adapter->stopPublishStreamUrl();
    return listener->stop.wait() == 0 ? 0 : 1;
}
