// A room with three members. Starts a relay of the local user's stream to a CDN address and a mix of all three members.
// Changes the layout when a member leaves, then stops the relay and the mix.
//
//     VEXALIVE_SERVICE_HOST=… VEXALIVE_CA_FILE=… example_room

#include <chrono>
#include <condition_variable>
#include <initializer_list>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Com/LiveTranscodingAdapter.h"

namespace {

constexpr int kAppId = 1250000000;
constexpr int kBizId = 8888;

constexpr const char* kRelay = "relay";
constexpr const char* kMix = "mix";
constexpr const char* kRelayStop = "end of the relay";
constexpr const char* kMixCancel = "end of the mix";

// Stores the latest outcome of each task.
class Listener : public ILiveTrancodingDelegate {
public:
    // If the adapter refuses a mix, it calls onStartPublishStreamUrl. If it refuses a relay stop, it calls
    // onStopLiveMixTranscoding. Both are intended, prescribed by the interface. The code identifies these cases.
    void onStartPublishStreamUrl(int errCode, std::string errMsg) override {
        store(errCode == -3324 ? kMix : kRelay, errCode, errMsg);
    }
    void onStopPublishStreamUrl(int errCode, std::string errMsg) override { store(kRelayStop, errCode, errMsg); }
    void onSetLiveMixTranscoding(int errCode, std::string errMsg) override { store(kMix, errCode, errMsg); }
    void onStopLiveMixTranscoding(int errCode, std::string errMsg) override {
        store(errCode == -3323 ? kRelayStop : kMixCancel, errCode, errMsg);
    }

    // Waits for the outcomes of the tasks. Returns whether all succeeded. The timeout is longer than all retries
    // together. It is needed because the listener is never notified of a response without a code.
    bool wait(std::initializer_list<const char*> tasks) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(4);
        bool succeeded = true;
        std::unique_lock<std::mutex> lock(mMutex);
        for (const char* task : tasks) {
            if (!mStored.wait_until(lock, deadline, [&] { return mCodes.count(task) != 0; })) {
                std::cout << "  " << task << ": no outcome" << std::endl;
                return false;
            }
            succeeded = mCodes[task] == 0 && succeeded;
            mCodes.erase(task);
        }
        return succeeded;
    }

private:
    void store(const char* task, int errCode, const std::string& errMsg) {
        const std::lock_guard<std::mutex> lock(mMutex);
        std::cout << "  " << task
                  << (errCode == 0 ? ": done" : ": failed with " + std::to_string(errCode) + ", " + errMsg)
                  << std::endl;
        mCodes[task] = errCode;
        mStored.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable mStored;
    std::map<std::string, int> mCodes;
};

// The inputs on a canvas of 1280 × 720 pixels. The fields are user, room (empty: the local user's room), rectangle and
// layer.
using Layout = std::vector<kstmedia::VexaMixUserInternal>;

const Layout kThree = {
    {"alice", "", {0, 0, 960, 720}, 1},
    {"bob", "", {960, 0, 320, 360}, 2},
    {"carol", "", {960, 360, 320, 360}, 3},
};
const Layout kTwo = {
    {"alice", "", {0, 0, 640, 720}, 1},
    {"bob", "", {640, 0, 640, 720}, 2},
};

kstmedia::VexaTranscodingConfigInternal mixOf(const Layout& layout) {
    kstmedia::VexaTranscodingConfigInternal config;
    config.appId = kAppId;
    config.bizId = kBizId;
    config.videoWidth = 1280;
    config.videoHeight = 720;
    config.videoBitrate = 1500;
    config.videoFramerate = 15;
    config.mixUsersArray = layout;
    return config;
}

}  // namespace

int main() {
    const auto listener = std::make_shared<Listener>();
    const auto adapter = std::make_shared<LiveTranscodingAdapter>();
    adapter->setLiveTranscodingDelegate(listener);
    adapter->updateUserInfo(1400000000, "the-users-signature", "alice");

    std::cout << "alice requests a relay and a mix of three; both wait until she has entered the room" << std::endl;
    kstmedia::VexaPublishCDNParamInternal relay;
    relay.appId = kAppId;
    relay.bizId = kBizId;
    relay.url = "rtmp://cdn.example/live/room";
    adapter->startPublishStreamUrl(relay);
    adapter->setLiveMixTranscoding(mixOf(kThree));

    std::cout << "alice enters the room: both are sent" << std::endl;
    adapter->updateEnterRoomInfo("room", "the-rooms-map-key");
    bool succeeded = listener->wait({kRelay, kMix});

    if (succeeded) {
        std::cout << "carol leaves: the mix shows alice and bob" << std::endl;
        adapter->setLiveMixTranscoding(mixOf(kTwo));
        succeeded = listener->wait({kMix});
    }

    std::cout << "alice ends the mix and the relay" << std::endl;
    adapter->stopLiveMixTranscoding();
    adapter->stopPublishStreamUrl();
    succeeded = listener->wait({kMixCancel, kRelayStop}) && succeeded;
    return succeeded ? 0 : 1;
}
