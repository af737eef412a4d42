// Runs adapters against the local service of the environment variables. Prints resource counts: a name and a number on
// each line.
//
//     relay_probe construction    one adapter
//     relay_probe starts N        N starts of a relay by one adapter that is already connected
//     relay_probe sequence N      N adapters, first idle; then each starts a relay, one after another

#include <semaphore.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "Com/LiveTranscodingAdapter.h"
#include "CountedCalls.h"
#include "platform/Platform.h"

namespace {

constexpr int kWarmUp = 20;
constexpr int kSharedThreads = 2;  // threads of the HTTPS client that live until the process exits
constexpr auto kThreadEndTimeout = std::chrono::seconds(5);

class Listener : public ILiveTrancodingDelegate {
public:
    Listener() { sem_init(&mNotified, 0, 0); }
    void onStartPublishStreamUrl(int errCode, std::string errMsg) override {
        if (errCode != 0) {
            std::fprintf(stderr, "a start failed: %d %s\n", errCode, errMsg.c_str());
            std::_Exit(1);
        }
        sem_post(&mNotified);
    }
    void onStopPublishStreamUrl(int, std::string) override {}
    void onSetLiveMixTranscoding(int, std::string) override {}
    void onStopLiveMixTranscoding(int, std::string) override {}

    void wait() { sem_wait(&mNotified); }

private:
    sem_t mNotified;  // a Journal would allocate and so change the counts
};

using Adapter = std::shared_ptr<LiveTranscodingAdapter>;

void enterRoom(const Adapter& adapter, const std::shared_ptr<Listener>& listener) {
    adapter->setLiveTranscodingDelegate(listener);
    adapter->updateUserInfo(1400000001, "signature-of-the-user", "u-counted");
    adapter->updateEnterRoomInfo("4711", "map-key-of-the-room");
}

void startRelay(const Adapter& adapter, Listener& listener) {
    kstmedia::VexaPublishCDNParamInternal param;
    param.appId = 1250000000;
    param.bizId = 8888;
    param.url = "rtmp://cdn.example/live/stream";
    adapter->startPublishStreamUrl(param);
    listener.wait();
}

int threads() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

void print(const char* name, double number) {
    std::printf("%s %g\n", name, number);
}

void construction() {
    const auto first = std::make_shared<LiveTranscodingAdapter>();
    const int before = allocations;
    const auto adapter = std::make_shared<LiveTranscodingAdapter>();
    print("allocations", allocations - before);
}

void starts(int number) {
    const auto listener = std::make_shared<Listener>();
    const auto adapter = std::make_shared<LiveTranscodingAdapter>();
    enterRoom(adapter, listener);
    for (int i = 0; i < kWarmUp; ++i) {
        startRelay(adapter, *listener);
    }
    const int before = allocations;
    for (int i = 0; i < number; ++i) {
        startRelay(adapter, *listener);
    }
    print("allocations", static_cast<double>(allocations - before) / number);
}

void sequence(int number) {
    const int before = threads();
    std::vector<Adapter> adapters;
    for (int i = 0; i < number; ++i) {
        adapters.push_back(std::make_shared<LiveTranscodingAdapter>());
    }
    print("threads_while_idle", threads() - before);

    const auto listener = std::make_shared<Listener>();
    for (const Adapter& adapter : adapters) {
        enterRoom(adapter, listener);
        startRelay(adapter, *listener);
    }
    print("connections", connections);
    const auto deadline = std::chrono::steady_clock::now() + kThreadEndTimeout;
    while (threads() - before - number > kSharedThreads && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    print("threads_beyond_workers", threads() - before - number);
}

}  // namespace

int main(int argc, char** argv) {
    vexalive::setLogSink([](auto&&...) {});
    vexalive::setEventSink([](auto&&...) {});
    const std::string what = argc > 1 ? argv[1] : "";
    const int number = argc > 2 ? std::atoi(argv[2]) : 0;
    if (what == "construction") {
        construction();
    } else if (what == "starts") {
        starts(number);
    } else if (what == "sequence") {
        sequence(number);
    } else {
        return 2;
    }
    return 0;
}
