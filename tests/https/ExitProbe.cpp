// A program that exits while adapters of every kind of lifetime are at work. Run many times by ExitTest: it must end by
// itself with the status 0, whatever the moment.
//
//     exit_probe HOW MICROSECONDS      HOW: return, exit, listener, quick

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "Room.h"
#include "platform/Platform.h"

namespace {

std::unique_ptr<Member> staticMember;  // ends after main has

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    const char* how = argv[1];
    const std::chrono::microseconds moment(std::atoi(argv[2]));
    vexalive::setLogSink([](auto&&...) {});
    vexalive::setEventSink([](auto&&...) {});

    static std::vector<std::unique_ptr<Member>>& leaked = *new std::vector<std::unique_ptr<Member>>();
    std::vector<std::unique_ptr<Member>> local;
    static std::atomic<bool> leaving{false};
    const bool fromListener = std::strcmp(how, "listener") == 0;
    const auto work = [&](std::unique_ptr<Member> member) {
        if (fromListener) {
            member->listener->during = [](const Call&) {
                if (!leaving.exchange(true)) {
                    std::exit(0);
                }
            };
        }
        member->adapter->startPublishStreamUrl(relayParam());
        member->adapter->setLiveMixTranscoding(mixConfig());
        member->adapter->setLiveMixTranscoding({});
        return member;
    };
    staticMember = work(std::make_unique<Member>("static"));
    for (int i = 0; i < 3; ++i) {
        leaked.push_back(work(std::make_unique<Member>("leaked")));
        local.push_back(work(std::make_unique<Member>("local")));
    }
    std::this_thread::sleep_for(moment);
    if (fromListener) {
        leaked[0]->listener->calls.waitFor(1);
        std::this_thread::sleep_for(std::chrono::seconds(30));  // the listener's exit ends this
        return 3;
    }
    if (std::strcmp(how, "exit") == 0) {
        std::exit(0);
    }
    if (std::strcmp(how, "quick") == 0) {
        std::quick_exit(0);
    }
    return 0;
}
