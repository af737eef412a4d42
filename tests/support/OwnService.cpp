#include "support/OwnService.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "base/ServiceAddress.h"

namespace {

int findFreePort() {
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    bind(probe, reinterpret_cast<sockaddr*>(&address), size);
    getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
    close(probe);
    return ntohs(address.sin_port);
}

}  // namespace

int ownServicePort() {
    static const int port = findFreePort();
    return port;
}

const char* kstf_get_live_service_host() {
    static const std::string host = "127.0.0.1:" + std::to_string(ownServicePort());
    return host.c_str();
}

const char* kstf_get_push_domain_suffix() {
    return "livepush.vexa.example";
}
