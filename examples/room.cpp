// A room of three: relays the local user's stream to a CDN address, mixes all three members into one picture, changes
// the picture when one of them leaves, and ends both.
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
constexpr const char* kEndOfRelay = "end of the relay";
constexpr const char* kEndOfMix = "end of the mix";

// Keeps what was told last of each task.
class Listener : public ILiveTrancodingDelegate {
public:
    // A refused mix is told as a relay start, a refused relay stop as a mix cancel: the code tells them apart.
    void onStartPublishStreamUrl(int errCode, std::string errMsg) override {
        keep(errCode == -3324 ? kMix : kRelay, errCode, errMsg);
    }
    void onStopPublishStreamUrl(int errCode, std::string errMsg) override { keep(kEndOfRelay, errCode, errMsg); }
    void onSetLiveMixTranscoding(int errCode, std::string errMsg) override { keep(kMix, errCode, errMsg); }
    void onStopLiveMixTranscoding(int errCode, std::string errMsg) override {
        keep(errCode == -3323 ? kEndOfRelay : kEndOfMix, errCode, errMsg);
    }

    // Waits until each of the tasks has been told; true if all of them went well. Gives up after a time in which every
    // retry has come to its end, since an answer without a code is never told.
    bool wait(std::initializer_list<const char*> tasks) {
        const auto patience = std::chrono::steady_clock::now() + std::chrono::minutes(4);
        bool allWell = true;
        std::unique_lock<std::mutex> lock(mMutex);
        for (const char* task : tasks) {
            if (!mTold.wait_until(lock, patience, [&] { return mCodes.count(task) != 0; })) {
                std::cout << "  " << task << ": nothing was told" << std::endl;
                return false;
            }
            allWell = mCodes[task] == 0 && allWell;
            mCodes.erase(task);
        }
        return allWell;
    }

private:
    void keep(const char* task, int errCode, const std::string& errMsg) {
        const std::lock_guard<std::mutex> lock(mMutex);
        std::cout << "  " << task
                  << (errCode == 0 ? ": done" : ": failed with " + std::to_string(errCode) + ", " + errMsg)
                  << std::endl;
        mCodes[task] = errCode;
        mTold.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable mTold;
    std::map<std::string, int> mCodes;
};

// Who stands where on a canvas of 1280 by 720: user, room (empty: this one), rectangle, layer.
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

    std::cout << "alice asks for a relay and for a mix of three; both wait until she has entered the room" << std::endl;
    kstmedia::VexaPublishCDNParamInternal relay;
    relay.appId = kAppId;
    relay.bizId = kBizId;
    relay.url = "rtmp://cdn.example/live/room";
    adapter->startPublishStreamUrl(relay);
    adapter->setLiveMixTranscoding(mixOf(kThree));

    std::cout << "alice enters the room: both are sent" << std::endl;
    adapter->updateEnterRoomInfo("room", "the-rooms-map-key");
    bool allWell = listener->wait({kRelay, kMix});

    if (allWell) {
        std::cout << "carol leaves: alice and bob share the picture" << std::endl;
        adapter->setLiveMixTranscoding(mixOf(kTwo));
        allWell = listener->wait({kMix});
    }

    std::cout << "alice ends the mix and the relay" << std::endl;
    adapter->stopLiveMixTranscoding();
    adapter->stopPublishStreamUrl();
    allWell = listener->wait({kEndOfMix, kEndOfRelay}) && allWell;
    return allWell ? 0 : 1;
}
