// What the tests of the adapter over real HTTPS share: a member of a room with its adapter and listener, and waiting
// without sleeping.

#ifndef VEXALIVE_TESTS_SUPPORT_ROOM_MEMBER_H
#define VEXALIVE_TESTS_SUPPORT_ROOM_MEMBER_H

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Com/ILiveTrancodingDelegate.h"
#include "Com/LiveTranscodingAdapter.h"
#include "support/Oracle.h"

constexpr auto kPatience = std::chrono::seconds(90);  // before a test gives up; no test waits this long

// A list that others wait for.
template <class T>
class Journal {
public:
    void add(T entry) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mEntries.push_back(std::move(entry));
        mChanged.notify_all();
    }

    std::vector<T> all() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mEntries;
    }

    void forget() {
        const std::lock_guard<std::mutex> lock(mMutex);
        mEntries.clear();
    }

    // Waits for that many entries; returns what is there, fewer if patience runs out.
    std::vector<T> waitFor(size_t count) const {
        return waitFor(count, [](const T&) { return true; });
    }

    // The same of those that `concerns` is true for.
    template <class Predicate>
    std::vector<T> waitFor(size_t count, Predicate concerns) const {
        std::unique_lock<std::mutex> lock(mMutex);
        std::vector<T> found;
        mChanged.wait_for(lock, kPatience, [&] {
            found.clear();
            std::copy_if(mEntries.begin(), mEntries.end(), std::back_inserter(found), concerns);
            return found.size() >= count;
        });
        return found;
    }

private:
    mutable std::mutex mMutex;
    mutable std::condition_variable mChanged;
    std::vector<T> mEntries;
};

// One call of the listener.
using Call = oracle::Notification;

class Listener : public ILiveTrancodingDelegate {
public:
    void onStartPublishStreamUrl(int code, std::string message) override { told({"startRelay", code, message}); }
    void onStopPublishStreamUrl(int code, std::string message) override { told({"stopRelay", code, message}); }
    void onSetLiveMixTranscoding(int code, std::string message) override { told({"setMix", code, message}); }
    void onStopLiveMixTranscoding(int code, std::string message) override { told({"stopMix", code, message}); }

    Journal<Call> calls;
    std::function<void(const Call& call)> during;  // runs inside each call; set before the first

private:
    void told(const Call& call) {
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

// A member of the room "r1" who has entered it.
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
