// Several threads and listeners call adapters, which are destroyed at any moment. The tests check that no listener call
// follows the destruction, no resource remains, every request completes once, and the last operation is executed. They
// are mainly for ThreadSanitizer and AddressSanitizer.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "StressService.h"
#include "platform/Platform.h"
#include "support/Poll.h"
#include "support/RoomMember.h"

namespace {

using std::chrono::milliseconds;

// ---- Adapters whose destruction is observed -------------------------------------------------------------------------

std::atomic<int> adaptersAlive{0};
std::atomic<int> callsAfterDestruction{0};

class CountingListener : public ILiveTrancodingDelegate {
public:
    void onStartPublishStreamUrl(int, std::string) override { notified(); }
    void onStopPublishStreamUrl(int, std::string) override { notified(); }
    void onSetLiveMixTranscoding(int, std::string) override { notified(); }
    void onStopLiveMixTranscoding(int, std::string) override { notified(); }

    std::function<void()> during;
    std::atomic<int> calls{0};
    std::atomic<bool> isAdapterDestroyed{false};

private:
    void notified() {
        callsAfterDestruction += isAdapterDestroyed;
        ++calls;
        if (during) {
            during();
        }
    }
};

using AdapterPointer = std::shared_ptr<LiveTranscodingAdapter>;

// The thread that drops the last reference destroys the adapter. From then on, the listener must not be called.
AdapterPointer makeAdapter(const std::shared_ptr<CountingListener>& listener, const std::string& userId) {
    ++adaptersAlive;
    const AdapterPointer adapter(new LiveTranscodingAdapter(),
                                 [notified = listener](LiveTranscodingAdapter* itself) mutable {
                                     notified->isAdapterDestroyed = true;
                                     delete itself;
                                     notified.reset();  // it may own an object that owns this function
                                     --adaptersAlive;
                                 });
    adapter->setLiveTranscodingDelegate(listener);
    adapter->updateUserInfo(1400, "signature", userId);
    adapter->updateEnterRoomInfo("r1", "key");
    return adapter;
}

void awaitNone(const std::atomic<int>& count) {
    pollUntil([&] { return count == 0; });
    EXPECT_EQ(0, count);
}

// ---- Checked by every test: each request completes once, and no resource remains ------------------------------------

class Races : public testing::Test {
protected:
    Races() {
        const char* given = std::getenv("VEXALIVE_SEED");
        mSeed = given ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device()();
        std::printf("VEXALIVE_SEED=%u\n", mSeed);
        callsAfterDestruction = 0;
        vexalive::setHttpObserver([this](const vexalive::HttpExchange& exchange) {
            countEvent();
            const std::lock_guard<std::mutex> lock(mMutex);
            int& phases = mPhases[exchange.id];
            mMisplaced += phases != exchange.phase;
            ++phases;
            mOpen += exchange.phase == vexalive::HttpExchange::kStarted;
            mOpen -= exchange.phase == vexalive::HttpExchange::kDelivered;
        });
        vexalive::setLogSink([this](auto&&...) { countEvent(); });
        vexalive::setEventSink([this](const vexalive::EventReport& report) {
            countEvent();
            const std::lock_guard<std::mutex> lock(mMutex);
            for (auto& [text, count] : mReportsWith) {
                count += (report.roomUser + "\n" + report.detail).find(text) != std::string::npos;
            }
        });
    }

    ~Races() override {
        awaitNone(adaptersAlive);
        awaitNone(mOpen);
        vexalive::setHttpObserver(nullptr);
        vexalive::setLogSink(nullptr);
        vexalive::setEventSink(nullptr);
        EXPECT_EQ(0, callsAfterDestruction);
        const std::lock_guard<std::mutex> lock(mMutex);
        EXPECT_EQ(0, mMisplaced);
        EXPECT_FALSE(mPhases.empty());
    }

    void countEvent() {
        if (mEventsLeft > 0 && --mEventsLeft == 0) {
            mAfterEvents();
        }
    }

    // Calls `operation` and waits for the first report that contains this string.
    template <class F>
    void awaitReportWith(const std::string& text, F operation) {
        const auto reports = [&] {
            const std::lock_guard<std::mutex> lock(mMutex);
            return mReportsWith[text];
        };
        EXPECT_EQ(0, reports()) << text;  // this read creates the entry; later reports are counted
        operation();
        EXPECT_TRUE(pollUntil([&] { return reports() > 0; })) << text;
    }

    unsigned mSeed;
    std::atomic<int> mOpen{0};        // requests that are not complete
    std::atomic<int> mEventsLeft{0};  // events until mAfterEvents is called
    std::function<void()> mAfterEvents;

private:
    std::mutex mMutex;
    std::map<uint64_t, int> mPhases;  // number of phases by exchange id; each phase occurs once, in order
    int mMisplaced = 0;
    std::map<std::string, int> mReportsWith;
};

// Calls an operation that the random number `dice` selects.
void anyOperation(LiveTranscodingAdapter& adapter, const std::shared_ptr<CountingListener>& listener,
                  unsigned long dice) {
    using namespace oracle;
    static constexpr Kind kKinds[] = {kAddRelay, kAddRelay, kAddRelay, kRemoveRelay, kRemoveRelay,
                                      kStartMix, kStartMix, kStartMix, kCancelMix,   kCancelMix};
    switch (const unsigned long roll = dice % 16) {
        case 10:
            return adapter.startPublishStreamUrl({});
        case 11:
            return static_cast<void>(adapter.setLiveMixTranscoding({}));
        case 12:
            return adapter.updateEnterRoomInfo("r1", "key");
        case 13:
            return adapter.setLiveTranscodingDelegate(listener);
        case 14:
            return adapter.clear();
        case 15:
            adapter.resetInfo();
            return adapter.updateEnterRoomInfo("r1", "key");
        default:
            return callOperation(adapter, kKinds[roll], 1 + static_cast<int>(dice / 16 % 4));
    }
}

TEST_F(Races, AdaptersAreMadeUsedAndDroppedByManyThreadsAndByTheirListeners) {
    struct Slot {
        std::mutex mutex;
        AdapterPointer adapter;
        std::shared_ptr<CountingListener> listener;
    };
    constexpr size_t kSlots = 16;
    constexpr int kThreads = 4;
    constexpr int kOperations = 1000;
    std::vector<Slot> slots(kSlots);
    std::atomic<unsigned> seed{mSeed};

    const auto pick = [&](size_t index) {
        const std::lock_guard<std::mutex> lock(slots[index].mutex);
        return std::make_pair(slots[index].adapter, slots[index].listener);
    };
    const auto put = [&](size_t index, AdapterPointer adapter, std::shared_ptr<CountingListener> listener) {
        Slot& slot = slots[index];
        const std::lock_guard<std::mutex> lock(slot.mutex);
        slot.adapter.swap(adapter);
        slot.listener.swap(listener);
    };  // the last owner destroys the previous adapter and listener
    std::atomic<int> reentered{0};
    std::atomic<bool> isEnding{false};
    const std::function<void(size_t)> replace = [&](size_t index) {
        const auto listener = std::make_shared<CountingListener>();
        listener->during = [&, index] {
            std::mt19937 random(++seed);
            if (isEnding) {
                return;
            }
            ++reentered;
            const auto [adapter, itsListener] = pick(random() % 4 == 0 ? random() % kSlots : index);
            if (adapter && random() % 3 != 0) {
                anyOperation(*adapter, itsListener, random());
            }
            if (random() % 8 == 0) {
                put(index, nullptr, nullptr);
            }
            if (random() % 16 == 0) {
                std::this_thread::sleep_for(milliseconds(random() % 3));
            }
        };
        put(index, makeAdapter(listener, "user" + std::to_string(index)), listener);
    };

    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            std::mt19937 random(++seed);
            for (int n = 0; n < kOperations; ++n) {
                const size_t index = random() % kSlots;
                const auto [adapter, listener] = pick(index);
                if (!adapter || random() % 32 == 0) {
                    replace(index);
                } else {
                    anyOperation(*adapter, listener, random());
                }
                if (random() % 8 == 0) {
                    std::this_thread::sleep_for(milliseconds(random() % 4));
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    isEnding = true;
    for (size_t i = 0; i < kSlots; ++i) {
        put(i, nullptr, nullptr);
    }
    awaitNone(adaptersAlive);
    awaitNone(mOpen);
    EXPECT_GT(reentered, 0);
    std::printf("%d listener calls called again\n", reentered.load());
}

// Drops the adapter inside the nth event (log line, phase of an exchange, report or listener call), on its thread.
TEST_F(Races, AdapterMayBeDroppedAtTheNthEvent) {
    constexpr int kEvents = 60;
    std::mutex mutex;
    AdapterPointer owner;
    std::atomic<bool> isDropped{false};
    mAfterEvents = [&] {
        AdapterPointer dropped;  // destroyed after the lock is released
        const std::lock_guard<std::mutex> lock(mutex);
        dropped.swap(owner);
        isDropped = true;
    };
    for (int n = 1; n <= kEvents; ++n) {
        const auto listener = std::make_shared<CountingListener>();
        AdapterPointer adapter = makeAdapter(listener, "u-dropped");
        // Each listener call starts further operations, so that there are at least n events.
        listener->during = [this, calls = listener.get(), weak = std::weak_ptr<LiveTranscodingAdapter>(adapter)] {
            countEvent();
            if (const AdapterPointer itself = weak.lock()) {
                anyOperation(*itself, nullptr, calls->calls % 2 == 0 ? 0 : 10);
                anyOperation(*itself, nullptr, calls->calls % 4 == 0 ? 5 : 8);
            }
        };
        {
            const std::lock_guard<std::mutex> lock(mutex);
            owner = adapter;
            isDropped = false;
        }
        mEventsLeft = n;
        adapter->startPublishStreamUrl(relayParam());
        adapter->setLiveMixTranscoding(mixConfig());
        adapter.reset();
        EXPECT_TRUE(pollUntil([&] { return isDropped.load(); })) << "after " << n << " events";
        mEventsLeft = 0;
        mAfterEvents();
        awaitNone(adaptersAlive);
    }
}

TEST_F(Races, LastCallOfManyThreadsIsExecuted) {
    for (int round = 0; round < 20; ++round) {
        const auto listener = std::make_shared<CountingListener>();
        const AdapterPointer adapter = makeAdapter(listener, "u-many");
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < 4; ++i) {
            threads.emplace_back([&, i] {
                std::mt19937 random(mSeed + i);
                for (int n = 0; n < 40; ++n) {
                    anyOperation(*adapter, listener, random());
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        // A room entry repeats the pending starts, before later calls. This waits until the worker has repeated them.
        const std::string userId = "u-through-" + std::to_string(round);
        adapter->setLiveTranscodingDelegate(listener);
        adapter->updateEnterRoomInfo("r1", "key");
        adapter->updateUserInfo(1400, "signature", userId);
        awaitReportWith("r1_" + userId + "\n", [&] { adapter->startPublishStreamUrl({}); });

        auto param = relayParam();
        param.url = "rtmp://cdn.example/last/" + std::to_string(round);
        awaitReportWith("\"dest_stream_url\":\"" + param.url + "\"", [&] { adapter->startPublishStreamUrl(param); });
    }
}

TEST_F(Races, AdapterMayBeCalledFromItsOwnListenerAgainAndAgain) {
    constexpr int kCalls = 200;
    const auto listener = std::make_shared<CountingListener>();
    AdapterPointer adapter = makeAdapter(listener, "u-reentered");
    Journal<bool> done;
    const std::weak_ptr<LiveTranscodingAdapter> weak = adapter;
    listener->during = [&, weak] {
        const int calls = listener->calls;
        if (calls >= kCalls) {
            done.add(true);
        } else if (const AdapterPointer itself = weak.lock()) {
            calls % 3 == 0   ? itself->stopPublishStreamUrl()
            : calls % 3 == 1 ? itself->startPublishStreamUrl(relayParam())
                             : itself->startPublishStreamUrl({});
        }
    };
    adapter->startPublishStreamUrl(relayParam());
    EXPECT_FALSE(done.waitFor(1).empty());
    adapter.reset();
    awaitNone(adaptersAlive);
}

TEST_F(Races, BlockedListenerDoesNotDelayOtherAdapters) {
    constexpr int kBlocks = 40;
    constexpr int kMeanwhile = 4;  // starts of the other adapters during each blocked call
    std::atomic<int> others{0};
    std::atomic<bool> isOver{false};
    Journal<bool> done;
    std::vector<AdapterPointer> adapters;
    // Makes an adapter and starts a relay. Each listener call starts the relay again, while isToContinue() returns
    // true.
    const auto addRestartingAdapter = [&](const std::string& userId, std::function<bool()> isToContinue) {
        const auto listener = std::make_shared<CountingListener>();
        adapters.push_back(makeAdapter(listener, userId));
        listener->during = [isToContinue = std::move(isToContinue), weak = std::weak_ptr(adapters.back())] {
            const AdapterPointer itself = weak.lock();
            if (isToContinue() && itself) {
                itself->startPublishStreamUrl(relayParam());
            }
        };
        adapters.back()->startPublishStreamUrl(relayParam());
    };
    for (const char* userId : {"u-busy", "u-busy-too"}) {
        addRestartingAdapter(userId, [&] {
            ++others;
            return !isOver;
        });
    }
    int blocks = 0;
    addRestartingAdapter("u-blocked", [&] {
        const int enough = others + kMeanwhile;
        EXPECT_TRUE(pollUntil([&] { return others >= enough; })) << "in call " << blocks;
        isOver = ++blocks == kBlocks || others < enough;
        if (isOver) {
            done.add(true);
        }
        return !isOver;
    });
    EXPECT_FALSE(done.waitFor(1).empty());
    awaitNone(mOpen);
    adapters.clear();
    awaitNone(adaptersAlive);
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const StressService service("random", std::random_device()());
    vexalive::HttpOptions options;
    options.caFile = service.caFile();
    return vexalive::setHttpOptions(options) ? RUN_ALL_TESTS() : 1;
}
