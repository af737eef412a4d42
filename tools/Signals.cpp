#include "tools/Signals.h"

#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

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

StopSignals::StopSignals() {
    const sigset_t signals = stopSignals();
    mFd = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
    if (mFd < 0) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
}

StopSignals::~StopSignals() {
    close(mFd);
}

std::optional<std::string> StopSignals::next() {
    signalfd_siginfo signal;
    if (read(mFd, &signal, sizeof signal) != sizeof signal) {
        return std::nullopt;
    }
    return signal.ssi_signo == SIGTERM ? "SIGTERM" : "SIGINT";
}

}  // namespace vexalive
