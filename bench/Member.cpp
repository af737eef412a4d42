#include "Member.h"

#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <cstdio>
#include <cstdlib>

#include "platform/Platform.h"

namespace bench {
namespace {

class Listener : public ILiveTrancodingDelegate {
public:
    explicit Listener(Signal& done) : mDone(done) {}

    void onStartPublishStreamUrl(int errCode, std::string errMsg) override {
        if (errCode != 0) {
            std::fprintf(stderr, "a start failed: %d %s\n", errCode, errMsg.c_str());
            std::_Exit(1);
        }
        mDone.notify();
    }
    void onStopPublishStreamUrl(int, std::string) override {}
    void onSetLiveMixTranscoding(int, std::string) override {}
    void onStopLiveMixTranscoding(int, std::string) override {}

private:
    Signal& mDone;
};

}  // namespace

void silenceLogsAndReports() {
    const auto logger = std::make_shared<spdlog::logger>("vexalive", std::make_shared<spdlog::sinks::null_sink_mt>());
    logger->set_level(spdlog::level::warn);
    spdlog::register_logger(logger);
    vexalive::setEventSink([](const vexalive::EventReport&) {});
}

Member::Member(const std::string& userId, Signal* done)
    : mListener(std::make_shared<Listener>(done ? *done : mOwnSignal)),
      mAdapter(std::make_shared<LiveTranscodingAdapter>()) {
    mParam.appId = 1250000000;
    mParam.bizId = 8888;
    mParam.url = "rtmp://cdn.example/live/stream";
    mAdapter->setLiveTranscodingDelegate(mListener);
    mAdapter->updateUserInfo(1400000001, "signature-of-the-user", userId);
    mAdapter->updateEnterRoomInfo("4711", "map-key-of-the-room");
}

void Member::start() {
    mAdapter->startPublishStreamUrl(mParam);
}

}  // namespace bench
