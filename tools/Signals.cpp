#include "tools/Signals.h"

#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace vexalive {
namespace {

sigset_t stopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

}  // namespace

void blockStopSignals() {
    const sigset_t signals = stopSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

Result<StopSignals> StopSignals::open() {
    const sigset_t set = stopSignals();
    Descriptor signals(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
    if (!signals.isOpen()) {
        return failure("cannot receive signals: " + systemMessage(errno));
    }
    return StopSignals(std::move(signals));
}

std::optional<std::string> StopSignals::next() {
    signalfd_siginfo signal;
    if (read(mSignals.get(), &signal, sizeof signal) != sizeof signal) {
        return std::nullopt;
    }
    return signal.ssi_signo == SIGTERM ? "SIGTERM" : "SIGINT";
}

}  // namespace vexalive
