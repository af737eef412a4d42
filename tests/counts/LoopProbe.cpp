// Posts on a task loop, so that CountsTest can count system calls and instructions. Prints how many posts signalled.
//
//     loop_probe busy N    N posts while the worker is busy; then all of them run
//     loop_probe idle N    N posts, each while the worker waits

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "base/KstMessageLoop.h"

namespace {

std::atomic<int> signals{0};

int signalsOfABusyWorker(int number) {
    const auto loop = std::make_shared<KstMessageLoop>();
    std::promise<void> begun;
    std::promise<void> release;
    loop->PostTask([&] {
        begun.set_value();
        release.get_future().wait();
    });
    begun.get_future().wait();

    const int before = signals;
    int ran = 0;
    std::future<void> last;
    for (int i = 0; i < number; ++i) {
        last = loop->PostTask([&ran] { ++ran; });
    }
    const int after = signals;
    release.set_value();
    last.wait();
    return after - before;
}

int signalsOfAnIdleWorker(int number) {
    const auto loop = std::make_shared<KstMessageLoop>();
    std::atomic<int> ran{0};
    for (int i = 1; i <= number; ++i) {
        loop->PostTask([&ran] { ++ran; });
        // No event marks the moment at which the worker waits again. A sleep does not distort the count.
        do {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        } while (ran < i);
    }
    return signals;
}

}  // namespace

extern "C" int pthread_cond_signal(pthread_cond_t* condition) {
    static const auto real = reinterpret_cast<decltype(&pthread_cond_signal)>(dlsym(RTLD_NEXT, "pthread_cond_signal"));
    ++signals;
    return real(condition);
}

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    const int number = std::atoi(argv[2]);
    std::printf("signals %d\n",
                std::string(argv[1]) == "busy" ? signalsOfABusyWorker(number) : signalsOfAnIdleWorker(number));
    return 0;
}
