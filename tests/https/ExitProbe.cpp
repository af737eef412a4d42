// A program that exits while static, local and leaked adapters send requests. ExitTest runs it many times and expects
// exit status 0, whatever the moment of the exit. Just before, the program prints how many requests are in flight.
//
//     exit_probe HOW MICROSECONDS      exits after MICROSECONDS; HOW is return, exit, listener or quick
//     exit_probe idle 0                spends 1.5 s in an exit handler while the client has idle threads

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/CVexaHttpSendRecv.h"
#include "platform/Platform.h"
#include "support/RoomMember.h"

namespace {

std::unique_ptr<Member> staticMember;  // destroyed after main() has returned
std::atomic<int> inFlight{0};

void printInFlight() {
    const std::string text = std::to_string(inFlight);
    if (write(STDOUT_FILENO, text.data(), text.size()) < 0) {
        std::_Exit(4);
    }
}

long countThreads() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

// Simulates a host with slow exit handlers. No thread of the client may end while they run: a thread that ends uses
// objects of the client that may already be destroyed.
void exitSlowly() {
    const long threads = countThreads();
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // idle threads end after 1 s unless prevented
    if (countThreads() != threads) {
        std::_Exit(5);
    }
}

// All callbacks block until each has begun. This makes the client start more threads than it retains when they idle.
int exitWithIdleThreads() {
    constexpr int kClients = 4;
    std::atexit(&exitSlowly);  // registered before the client's own exit handler, so it runs after that one
    const std::string url = std::string("https://") + std::getenv("VEXALIVE_SERVICE_HOST") + "/";
    std::atomic<int> begun{0};
    std::promise<void> allBegun;
    const std::shared_future<void> release(allBegun.get_future());
    std::vector<std::unique_ptr<CVexaHttpSendRecv>> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.push_back(std::make_unique<CVexaHttpSendRecv>());
        KstCopyOnWriteBuffer body;
        clients.back()->sendHttpsRequest(body, url, [&](int, KstCopyOnWriteBuffer&) {
            if (++begun == kClients) {
                allBegun.set_value();
            }
            release.wait();
        });
    }
    release.wait();
    clients.clear();  // waits for the callbacks
    return countThreads() > kClients ? 0 : 6;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    const char* how = argv[1];
    if (std::strcmp(how, "idle") == 0) {
        return exitWithIdleThreads();
    }
    const std::chrono::microseconds moment(std::atoi(argv[2]));
    vexalive::setLogSink([](auto&&...) {});
    vexalive::setEventSink([](auto&&...) {});
    vexalive::setHttpObserver([](const vexalive::HttpExchange& exchange) {
        inFlight += exchange.phase == vexalive::HttpExchange::kStarted;
        inFlight -= exchange.phase == vexalive::HttpExchange::kDelivered;
    });

    static std::vector<std::unique_ptr<Member>>& leaked = *new std::vector<std::unique_ptr<Member>>();
    std::vector<std::unique_ptr<Member>> local;
    static std::atomic<bool> ready{false};
    static std::atomic<bool> exiting{false};
    const bool fromListener = std::strcmp(how, "listener") == 0;
    const auto end = std::chrono::steady_clock::now() + moment;
    const auto work = [&](std::unique_ptr<Member> member) {
        // Each notification starts the next request, so that some are always in flight.
        const std::weak_ptr<LiveTranscodingAdapter> weak = member->adapter;
        member->listener->during = [weak, fromListener, end](const Call& call) {
            if (fromListener && ready && std::chrono::steady_clock::now() >= end && !exiting.exchange(true)) {
                printInFlight();
                std::exit(0);
            }
            const auto adapter = weak.lock();
            if (adapter && call.code == 0) {
                callOperation(*adapter, call.operation == "startRelay" ? oracle::kAddRelay : oracle::kStartMix);
            }
        };
        callOperation(*member->adapter, oracle::kAddRelay);
        callOperation(*member->adapter, oracle::kStartMix);
        return member;
    };
    staticMember = work(std::make_unique<Member>("static"));
    for (int i = 0; i < 3; ++i) {
        leaked.push_back(work(std::make_unique<Member>("leaked")));
        local.push_back(work(std::make_unique<Member>("local")));
    }
    leaked[0]->adapter->setLiveMixTranscoding({});
    ready = true;  // from here on, a listener may call exit(): all members are constructed
    std::this_thread::sleep_for(moment);
    if (fromListener) {
        std::this_thread::sleep_for(std::chrono::seconds(30));  // a listener ends the process during this sleep
        return 3;
    }
    printInFlight();
    if (std::strcmp(how, "exit") == 0) {
        std::exit(0);
    }
    if (std::strcmp(how, "quick") == 0) {
        std::quick_exit(0);
    }
    return 0;
}
