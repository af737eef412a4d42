#include "FaultMatrixEnvironment.h"

#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

CaseEnvironment::CaseEnvironment(int port, const std::string& interfaceName,
                                 std::function<bool(const std::string&)> isExpected)
    : mPort(port), mIsExpected(std::move(isExpected)) {
    mExchanges->interfaceName = interfaceName;
    vexalive::setHttpObserver(
        [exchanges = mExchanges](const vexalive::HttpExchange& exchange) { exchanges->observe(exchange); });
}

CaseEnvironment::~CaseEnvironment() {
    vexalive::setHttpObserver(nullptr);
}

void CaseEnvironment::serve(ScriptedServer::Options options, ScriptedServer::Script script) {
    mServer.reset();
    options.port = mPort;
    mServer = std::make_unique<ScriptedServer>(options, std::move(script));
}

void CaseEnvironment::stopServing() {
    mServer.reset();
}

void CaseEnvironment::runMeanwhile() {
    if (mMeanwhile) {
        mMeanwhile();
    }
}

std::string CaseEnvironment::readRequest(Connection& connection) {
    std::string request = connection.readRequest();
    if (!request.empty()) {
        count(request);
    }
    return request;
}

void CaseEnvironment::count(const std::string& request) {
    ++(mIsExpected(request) ? mRequests : mOtherRequests);
}

void CaseEnvironment::Exchanges::observe(const vexalive::HttpExchange& exchange) {
    if (exchange.interfaceName != interfaceName) {
        return;
    }
    if (exchange.phase == vexalive::HttpExchange::kStarted) {
        sends.add(std::string(exchange.body));
    } else if (exchange.phase == vexalive::HttpExchange::kCompleted && toHold > 0) {
        --toHold;
        held.add(true);
        passed.waitFor(held.all().size());
    }
}

// ---- A network of its own -------------------------------------------------------------------------------------------

namespace {

void configureLoopback(unsigned long what, ifreq request) {
    std::strcpy(request.ifr_name, "lo");
    const int control = socket(AF_INET, SOCK_DGRAM, 0);
    if (ioctl(control, what, &request) != 0) {
        std::perror("loopback of the network namespace");
        std::abort();
    }
    close(control);
}

}  // namespace

std::string enterOwnNetwork() {
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        return std::string("cannot create a network namespace: ") + std::strerror(errno);
    }
    ifreq request{};
    request.ifr_flags = IFF_UP;
    configureLoopback(SIOCSIFFLAGS, request);
    return {};
}

void takeLoopbackDown() {
    configureLoopback(SIOCSIFFLAGS, {});
}

void removeLoopbackAddress() {
    ifreq request{};
    request.ifr_addr.sa_family = AF_INET;  // 0.0.0.0
    configureLoopback(SIOCSIFADDR, request);
}
