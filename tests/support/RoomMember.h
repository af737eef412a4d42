// A member of a room with its adapter and a listener that records its calls.

#ifndef VEXALIVE_TESTS_SUPPORT_ROOM_MEMBER_H
#define VEXALIVE_TESTS_SUPPORT_ROOM_MEMBER_H

#include <functional>
#include <memory>
#include <string>

#include "Com/ILiveTrancodingDelegate.h"
#include "Com/LiveTranscodingAdapter.h"
#include "support/Journal.h"
#include "support/Oracle.h"

// One call of the listener.
using Call = oracle::Notification;

class Listener : public ILiveTrancodingDelegate {
public:
    void onStartPublishStreamUrl(int code, std::string message) override { notified({"startRelay", code, message}); }
    void onStopPublishStreamUrl(int code, std::string message) override { notified({"stopRelay", code, message}); }
    void onSetLiveMixTranscoding(int code, std::string message) override { notified({"setMix", code, message}); }
    void onStopLiveMixTranscoding(int code, std::string message) override { notified({"stopMix", code, message}); }

    Journal<Call> calls;
    std::function<void(const Call& call)> during;  // runs inside each listener call; set it before the first one

private:
    void notified(const Call& call) {
        if (during) {
            during(call);
        }
        calls.add(call);
    }
};

inline kstmedia::VexaPublishCDNParamInternal relayParam() {
    kstmedia::VexaPublishCDNParamInternal param;
    param.appId = 1234;
    param.bizId = 8888;
    param.url = "rtmp://cdn.example/live/stream";
    return param;
}

inline kstmedia::VexaTranscodingConfigInternal mixConfig(int users = 2) {
    kstmedia::VexaTranscodingConfigInternal config;
    config.appId = 1234;
    config.bizId = 8888;
    config.videoWidth = 720;
    config.videoHeight = 1280;
    for (int i = 1; i <= users; ++i) {
        kstmedia::VexaMixUserInternal user;
        user.userId = "guest" + std::to_string(i);
        user.rect = {0, 100 * i, 320, 180};
        user.zOrder = i;
        config.mixUsersArray.push_back(user);
    }
    return config;
}

// Calls the operation that sends a request of this kind. `users`: the number of inputs of a mix.
inline void callOperation(LiveTranscodingAdapter& adapter, oracle::Kind kind, int users = 2) {
    switch (kind) {
        case oracle::kAddRelay:
            adapter.startPublishStreamUrl(relayParam());
            break;
        case oracle::kRemoveRelay:
            adapter.stopPublishStreamUrl();
            break;
        case oracle::kStartMix:
            adapter.setLiveMixTranscoding(mixConfig(users));
            break;
        case oracle::kCancelMix:
            adapter.stopLiveMixTranscoding();
            break;
    }
}

// A member who has entered the room "r1".
struct Member {
    explicit Member(const std::string& userId, const std::string& userSig = "signature",
                    const std::string& mapKey = "key") {
        adapter->setLiveTranscodingDelegate(listener);
        adapter->updateUserInfo(1400, userSig, userId);
        adapter->updateEnterRoomInfo("r1", mapKey);
    }

    std::shared_ptr<Listener> listener = std::make_shared<Listener>();
    std::shared_ptr<LiveTranscodingAdapter> adapter = std::make_shared<LiveTranscodingAdapter>();
};

#endif
