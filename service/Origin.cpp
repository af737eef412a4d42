#include "service/Origin.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <system_error>
#include <utility>

#include "common/Url.h"
#include "service/Child.h"
#include "service/JsonFields.h"

namespace vexalive {

namespace {

constexpr const char* kModule = "/usr/lib/nginx/modules/ngx_rtmp_module.so";
constexpr const char* kDefaultPort = "1935";
constexpr int kMaxFolders = 100;
constexpr std::chrono::milliseconds kCheckInterval(1000);
constexpr std::chrono::milliseconds kRetryInterval(200);
constexpr std::chrono::milliseconds kCheckTimeout(2000);
constexpr size_t kHandshakeBytes = 1537;  // first part of the RTMP handshake: 1 byte version, then 1536 bytes
constexpr char kRtmpVersion = 3;

struct ReservedPort {
    Descriptor socket;
    std::string number;
};

// Binds to a free port of 127.0.0.1, so that the kernel assigns the port to no other program. nginx can still listen on
// the port, since both sockets have SO_REUSEADDR.
Result<ReservedPort> reservePort() {
    Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int yes = 1;
    ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return failure("cannot find a free port on 127.0.0.1 for the origin: " + systemMessage(errno));
    }
    return ReservedPort{std::move(socket), std::to_string(ntohs(address.sin_port))};
}

}  // namespace

Result<OriginAddress> parseOriginAddress(const std::string& text) {
    const std::optional<Url> url = parseUrl(text);
    const size_t start = text.find("://") + 3;
    const bool isHostAndPort =
        url && url->scheme == "rtmp" && text.find_first_of("/?#@", start) == std::string::npos && text.back() != ':';
    if (!isHostAndPort || url->port == "0") {
        return failure("the origin is " + excerpt(text) + ", must be rtmp://HOST or rtmp://HOST:PORT");
    }
    OriginAddress address;
    address.host = url->host;
    address.port = url->port.empty() ? kDefaultPort : url->port;
    const bool isIpv6 = address.host.find(':') != std::string::npos;
    address.url = "rtmp://" + (isIpv6 ? "[" + address.host + "]" : address.host) + ":" + address.port;
    return address;
}

// ---- nginx ----------------------------------------------------------------------------------------------------------

Result<void> Origin::prepare(const std::string& stateFolder) {
    const Result<std::string> nginx = findProgram("nginx", "/usr/sbin");
    const bool hasModule = ::access(kModule, R_OK) == 0;
    if (!nginx || !hasModule) {
        return failure(std::string("media needs nginx with its RTMP module, and ") +
                       (!nginx ? nginx.error().message : std::string(kModule) + " is not there") +
                       ": install Debian's packages nginx and libnginx-mod-rtmp, or name an origin that runs already");
    }
    mNginx = *nginx;
    Result<ReservedPort> port = reservePort();
    if (!port) {
        return tl::unexpected(port.error());
    }
    mPort = std::move(port->socket);
    mAddress = {"rtmp://127.0.0.1:" + port->number, "127.0.0.1", port->number};
    return lockFolder(stateFolder);
}

// Locks the first of the numbered folders that no running service has locked. When a service exits, the kernel releases
// its lock.
Result<void> Origin::lockFolder(const std::string& stateFolder) {
    for (int number = 1; number <= kMaxFolders; ++number) {
        mFolder = stateFolder + "/origin-" + std::to_string(number);
        std::error_code problem;
        std::filesystem::create_directories(mFolder, problem);
        mLock = Descriptor(::open((mFolder + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        if (problem || !mLock.isOpen()) {
            return failure("cannot create " + mFolder + ": " + (problem ? problem.message() : systemMessage(errno)));
        }
        if (::flock(mLock.get(), LOCK_EX | LOCK_NB) == 0) {
            return {};
        }
    }
    return failure("more than " + std::to_string(kMaxFolders) + " services have an origin in " + stateFolder);
}

Result<void> Origin::configure(uint16_t consolePort) {
    const std::string path = mFolder + "/nginx.conf";
    errno = 0;
    std::ofstream file(path, std::ios::trunc);
    file << originConfiguration(mAddress.port, consolePort, ::geteuid() == 0);
    file.close();
    if (!file) {
        return failure("cannot write " + path + ": " + systemMessage(errno));
    }
    return {};
}

std::vector<std::string> Origin::arguments() const {
    return {mNginx, "-p", mFolder + "/", "-c", "nginx.conf", "-e", "stderr"};
}

// The configuration disables nginx's master process. So nginx is one process, and a kill leaves no process behind.
std::string originConfiguration(const std::string& rtmpPort, uint16_t consolePort, bool isRoot) {
    const std::string application =
        "            live on;\n"
        "            record off;\n"
        "            meta copy;\n"
        "            wait_key on;\n"
        "            idle_streams on;\n"
        "            publish_notify on;\n";
    const std::string dropsIdle =
        "            drop_idle_publisher 10s;\n";  // not for "cdn": the source of a relay may pause
    std::ostringstream text;
    text << "# The service overwrites this file each time it starts.\n"
         << "load_module " << kModule << ";\n"
         << (isRoot ? "user root;\n" : "") << "daemon off;\n"
         << "master_process off;\n"
         << "pid nginx.pid;\n"
         << "error_log stderr warn;\n"
         << "events {\n    worker_connections 1024;\n}\n"
         << "rtmp {\n"
         << "    access_log off;\n"
         << "    server {\n"
         << "        listen 127.0.0.1:" << rtmpPort << ";\n"
         << "        ping 10s;\n"
         << "        ping_timeout 5s;\n"
         << "        chunk_size 4096;\n"
         << "        max_message 16M;\n"
         << "        application live {\n"
         << application << dropsIdle << "            on_publish http://127.0.0.1:" << consolePort
         << "/origin/publish;\n"
         << "        }\n"
         << "        application mix {\n"
         << application << dropsIdle << "        }\n"
         << "        application cdn {\n"
         << application << "        }\n"
         << "    }\n"
         << "}\n";
    return text.str();
}

// ---- Monitoring -----------------------------------------------------------------------------------------------------

Result<std::vector<SocketAddress>> resolve(const OriginAddress& address) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int problem = ::getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &found);
    if (problem != 0) {
        return failure("cannot resolve the origin " + address.url + ": " + ::gai_strerror(problem));
    }
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> holder(found, &::freeaddrinfo);
    std::vector<SocketAddress> addresses;
    for (const addrinfo* each = found; each; each = each->ai_next) {
        SocketAddress& one = addresses.emplace_back();
        one.length = each->ai_addrlen;
        std::copy_n(reinterpret_cast<const char*>(each->ai_addr), one.length, reinterpret_cast<char*>(&one.bytes));
    }
    return addresses;
}

void OriginMonitor::start(const std::string& name, std::vector<SocketAddress> addresses, Callback callback) {
    mName = name;
    mAddresses = std::move(addresses);
    mCallback = std::move(callback);
    mStop = Descriptor(::eventfd(0, EFD_CLOEXEC));
    mThread = std::thread([this] { run(); });
}

void OriginMonitor::stop() {
    if (mThread.joinable()) {
        const uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(mStop.get(), &one, sizeof one);
        mThread.join();
    }
}

void OriginMonitor::run() {
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, nullptr);  // the host's threads handle the signals
    for (;;) {
        const OriginCheck result = check();
        if (waitForStop(std::chrono::milliseconds(0))) {
            return;
        }
        mCallback(result);
        if (waitForStop(result ? kCheckInterval : kRetryInterval)) {
            return;
        }
    }
}

bool OriginMonitor::waitForStop(std::chrono::milliseconds timeout) const {
    pollfd stop{mStop.get(), POLLIN, 0};
    return ::poll(&stop, 1, static_cast<int>(timeout.count())) > 0;
}

// Waits for `events` on `fd`. Returns false after the timeout, or if the monitor stops.
bool OriginMonitor::wait(int fd, short events, std::chrono::milliseconds timeout) const {
    std::array<pollfd, 2> watched = {{{mStop.get(), POLLIN, 0}, {fd, events, 0}}};
    return ::poll(watched.data(), watched.size(), static_cast<int>(timeout.count())) > 0 && watched[0].revents == 0;
}

// Checks the addresses in order. Returns the first success, otherwise the result of the last address.
OriginCheck OriginMonitor::check() const {
    OriginCheck result;
    for (const SocketAddress& address : mAddresses) {
        result = check(address);
        if (result) {
            break;
        }
    }
    return result;
}

// Sends the first part of an RTMP handshake as a client does, and waits for the server's part.
OriginCheck OriginMonitor::check(const SocketAddress& address) const {
    const auto failed = [](std::string message, bool isLocalFault = false) {
        return tl::unexpected(OriginError{{std::move(message)}, isLocalFault});
    };
    const Descriptor socket(::socket(address.bytes.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.isOpen()) {
        const int reason = errno;
        return failed("this service cannot check " + mName + ": " + systemMessage(reason), reason != EAFNOSUPPORT);
    }
    const std::string unreachable = mName + " cannot be reached: ";
    const int connected = ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address.bytes), address.length);
    if (connected != 0 && errno != EINPROGRESS) {
        return failed(unreachable + systemMessage(errno));
    }
    if (!wait(socket.get(), POLLOUT, kCheckTimeout)) {
        return failed(unreachable + "no response");
    }
    int reason = 0;
    socklen_t length = sizeof reason;
    ::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &reason, &length);
    if (reason != 0) {
        return failed(unreachable + systemMessage(reason));
    }
    std::array<char, kHandshakeBytes> handshake{kRtmpVersion};
    char version = 0;
    if (::send(socket.get(), handshake.data(), handshake.size(), MSG_NOSIGNAL) != kHandshakeBytes ||
        !wait(socket.get(), POLLIN, kCheckTimeout) || ::recv(socket.get(), &version, 1, 0) != 1 ||
        version != kRtmpVersion) {
        return failed(mName + " does not respond as an RTMP server does");
    }
    return {};
}

}  // namespace vexalive
