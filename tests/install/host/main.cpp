// Starts and ends a relay through the host's own facilities.

#include <cstdio>
#include <future>
#include <memory>
#include <string>

#include "Com/LiveTranscodingAdapter.h"
#include "Seam.h"

namespace {

class Listener : public ILiveTrancodingDelegate {
public:
    void onStartPublishStreamUrl(int errCode, std::string errMsg) override { store(mStarted, errCode, errMsg); }
    void onStopPublishStreamUrl(int errCode, std::string errMsg) override { store(mStopped, errCode, errMsg); }
    void onSetLiveMixTranscoding(int, std::string) override {}
    void onStopLiveMixTranscoding(int, std::string) override {}

    std::string started() { return mStarted.get_future().get(); }
    std::string stopped() { return mStopped.get_future().get(); }

private:
    static void store(std::promise<std::string>& outcome, int errCode, const std::string& errMsg) {
        outcome.set_value(std::to_string(errCode) + " " + errMsg);
    }

    std::promise<std::string> mStarted;
    std::promise<std::string> mStopped;
};

int failures = 0;

void expectStart(const char* what, const std::string& actual, const std::string& expected) {
    const bool met = actual.compare(0, expected.size(), expected) == 0;
    std::printf("%s %s: %s\n", met ? "ok  " : "FAIL", what, actual.c_str());
    failures += met ? 0 : 1;
}

}  // namespace

int main() {
    const auto listener = std::make_shared<Listener>();
    auto adapter = std::make_shared<LiveTranscodingAdapter>();
    adapter->setLiveTranscodingDelegate(listener);
    adapter->updateUserInfo(1400, "signature", "u1");
    adapter->updateEnterRoomInfo("r1", "key");

    adapter->startPublishStreamUrl({12345, 8888, "rtmp://cdn.host.test/live"});
    expectStart("start", listener->started(), "0 sucess");
    adapter->stopPublishStreamUrl();
    expectStart("stop", listener->stopped(), "0 sucess");

    const auto reports = awaitReports(2);
    adapter.reset();
    endDeliveries();

    const std::string base = "https://service.host.test/v3/liveinterface/";
    const auto sent = requests();
    expectStart("first request", sent.at(0), base + "add_relay_stream_url?sdkappid=1400&random=");
    expectStart("second request", sent.at(1), base + "remove_relay_stream_url?sdkappid=1400&random=");
    expectStart("first report", reports.at(0), "30 ");
    expectStart("second report", reports.at(1), "30 ");
    return failures;
}
