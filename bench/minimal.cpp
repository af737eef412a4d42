// The smallest useful program: starts a relay and waits for the outcome. Never run; its size is what the library adds
// to a host that has nothing of it yet.

#include <future>
#include <memory>
#include <mutex>

#include "Com/LiveTranscodingAdapter.h"

namespace {

class Listener : public ILiveTrancodingDelegate {
public:
    int wait() { return mOutcome.get_future().get(); }

    void onStartPublishStreamUrl(int errCode, std::string) override {
        std::call_once(mTold, [&] { mOutcome.set_value(errCode); });
    }
    void onStopPublishStreamUrl(int, std::string) override {}
    void onSetLiveMixTranscoding(int, std::string) override {}
    void onStopLiveMixTranscoding(int, std::string) override {}

private:
    std::once_flag mTold;
    std::promise<int> mOutcome;
};

}  // namespace

int main() {
    const auto listener = std::make_shared<Listener>();
    const auto adapter = std::make_shared<LiveTranscodingAdapter>();
    adapter->setLiveTranscodingDelegate(listener);
    adapter->updateUserInfo(1400000000, "the-users-signature", "alice");
    adapter->updateEnterRoomInfo("room", "the-rooms-map-key");

    kstmedia::VexaPublishCDNParamInternal relay;
    relay.appId = 1250000000;
    relay.bizId = 8888;
    relay.url = "rtmp://cdn.example/live/stream";
    adapter->startPublishStreamUrl(relay);
    return listener->wait() == 0 ? 0 : 1;
}
