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
#include <charconv>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <system_error>
#include <utility>

namespace vexalive {

namespace {

constexpr const char* kModule = "/usr/lib/nginx/modules/ngx_rtmp_module.so";
constexpr const char* kDefaultPort = "1935";
constexpr int kMaxFolders = 100;
constexpr std::chrono::milliseconds kLookPause(1000);
constexpr std::chrono::milliseconds kImpatientPause(200);
constexpr std::chrono::milliseconds kLookTime(2000);
constexpr size_t kGreetingBytes = 1537;  // of RTMP: a version, then a packet
constexpr char kRtmpVersion = 3;

// Binds to a free port of 127.0.0.1, which nobody who asks for a free one gets meanwhile. One who sets SO_REUSEADDR, as
// nginx does, may listen on it.
uint16_t takePort(Descriptor& socket) {
    socket = Descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int yes = 1;
    ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 0;
    }
    return ntohs(address.sin_port);
}

std::string systemMessage(int reason) {
    return std::generic_category().message(reason);
}

}  // namespace

std::optional<OriginAddress> readOriginAddress(const std::string& url) {
    const std::string scheme = "rtmp://";
    if (url.compare(0, scheme.size(), scheme) != 0) {
        return std::nullopt;
    }
    const std::string place = url.substr(scheme.size());
    const size_t bracket = place.find(']');
    const bool isIpv6 = !place.empty() && place[0] == '[' && bracket != std::string::npos;
    const size_t hostEnd = isIpv6 ? bracket + 1 : std::min(place.find(':'), place.size());
    OriginAddress address;
    address.host = isIpv6 ? place.substr(1, bracket - 1) : place.substr(0, hostEnd);
    address.port = hostEnd == place.size() ? kDefaultPort : place.substr(hostEnd + 1);
    uint16_t port = 0;
    const char* const portEnd = address.port.data() + address.port.size();
    const auto [stop, failure] = std::from_chars(address.port.data(), portEnd, port);
    const bool isPort = failure == std::errc() && stop == portEnd && port > 0;
    const bool isHost = !address.host.empty() && address.host.find_first_of("/?#@[] \t\r\n") == std::string::npos;
    if (!isPort || !isHost || (hostEnd < place.size() && place[hostEnd] != ':')) {
        return std::nullopt;
    }
    address.port = std::to_string(port);
    address.url = scheme + place.substr(0, hostEnd) + ":" + address.port;
    return address;
}

// ---- nginx ----------------------------------------------------------------------------------------------------------

bool Origin::prepare(const std::string& stateFolder, std::string& error) {
    mNginx = findProgram("nginx", "/usr/sbin");
    const bool hasModule = ::access(kModule, R_OK) == 0;
    if (mNginx.empty() || !hasModule) {
        error = std::string("media needs nginx with its RTMP module, and ") +
                (mNginx.empty() ? "nginx is not installed" : std::string(kModule) + " is not there") +
                ": install Debian's packages nginx and libnginx-mod-rtmp, or name an origin that runs already";
        return false;
    }
    const uint16_t port = takePort(mPort);
    if (port == 0) {
        error = "cannot find a free port on 127.0.0.1 for the origin: " + systemMessage(errno);
        return false;
    }
    mAddress = {"rtmp://127.0.0.1:" + std::to_string(port), "127.0.0.1", std::to_string(port)};
    return takeFolder(stateFolder, error);
}

// The first of a row that no service at work holds; the lock ends with its process, whatever ends that.
bool Origin::takeFolder(const std::string& stateFolder, std::string& error) {
    for (int number = 1; number <= kMaxFolders; ++number) {
        mFolder = stateFolder + "/origin-" + std::to_string(number);
        std::error_code failure;
        std::filesystem::create_directories(mFolder, failure);
        mLock = Descriptor(::open((mFolder + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        if (failure || !mLock.isOpen()) {
            error = "cannot make " + mFolder + ": " + (failure ? failure.message() : systemMessage(errno));
            return false;
        }
        if (::flock(mLock.get(), LOCK_EX | LOCK_NB) == 0) {
            return true;
        }
    }
    error = "more than " + std::to_string(kMaxFolders) + " services keep an origin in " + stateFolder;
    return false;
}

bool Origin::configure(uint16_t consolePort, std::string& error) {
    const std::string path = mFolder + "/nginx.conf";
    errno = 0;
    std::ofstream file(path, std::ios::trunc);
    file << originConfiguration(mAddress.port, consolePort, ::geteuid() == 0);
    file.close();
    if (!file) {
        error = "cannot write " + path + ": " + systemMessage(errno);
        return false;
    }
    return true;
}

std::vector<std::string> Origin::arguments() const {
    return {mNginx, "-p", mFolder + "/", "-c", "nginx.conf", "-e", "stderr"};
}

// Without a master process there is one process, and nothing is left when it is killed.
std::string originConfiguration(const std::string& rtmpPort, uint16_t consolePort, bool isRoot) {
    const std::string application =
        "            live on;\n"
        "            record off;\n"
        "            meta copy;\n"
        "            wait_key on;\n"
        "            idle_streams on;\n"
        "            publish_notify on;\n";
    const std::string dropsIdle = "            drop_idle_publisher 10s;\n";  // but for a relay whose source is away
    std::ostringstream text;
    text << "# Written anew by the service each time it starts.\n"
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

// ---- Watching -------------------------------------------------------------------------------------------------------

std::vector<SocketAddress> findAddresses(const OriginAddress& address, std::string& error) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int failure = ::getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &found);
    if (failure != 0) {
        error = "cannot find the origin " + address.url + ": " + ::gai_strerror(failure);
        return {};
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

void OriginWatch::start(const std::string& name, std::vector<SocketAddress> addresses, Told told) {
    mName = name;
    mAddresses = std::move(addresses);
    mTold = std::move(told);
    mStop = Descriptor(::eventfd(0, EFD_CLOEXEC));
    mThread = std::thread([this] { run(); });
}

void OriginWatch::stop() {
    if (mThread.joinable()) {
        const uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(mStop.get(), &one, sizeof one);
        mThread.join();
    }
}

void OriginWatch::run() {
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, nullptr);  // signals are for the host's threads
    for (;;) {
        const OriginLook seen = look();
        if (awaitStop(std::chrono::milliseconds(0))) {
            return;
        }
        mTold(seen);
        if (awaitStop(seen.error.empty() ? kLookPause : kImpatientPause)) {
            return;
        }
    }
}

bool OriginWatch::awaitStop(std::chrono::milliseconds patience) const {
    pollfd stop{mStop.get(), POLLIN, 0};
    return ::poll(&stop, 1, static_cast<int>(patience.count())) > 0;
}

// False if it took too long, or if it is time to stop.
bool OriginWatch::await(int fd, short events, std::chrono::milliseconds patience) const {
    std::array<pollfd, 2> watched = {{{mStop.get(), POLLIN, 0}, {fd, events, 0}}};
    return ::poll(watched.data(), watched.size(), static_cast<int>(patience.count())) > 0 && watched[0].revents == 0;
}

// What the first of the addresses says that answers as it should; else the last one.
OriginLook OriginWatch::look() const {
    OriginLook seen;
    for (const SocketAddress& address : mAddresses) {
        seen = lookAt(address);
        if (seen.error.empty()) {
            break;
        }
    }
    return seen;
}

// Greets as a client does: only a server that works greets back.
OriginLook OriginWatch::lookAt(const SocketAddress& address) const {
    const Descriptor socket(::socket(address.bytes.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.isOpen()) {
        const int reason = errno;
        return {"this service cannot look at " + mName + ": " + systemMessage(reason), reason != EAFNOSUPPORT};
    }
    const std::string unreachable = mName + " cannot be reached: ";
    const int connected = ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address.bytes), address.length);
    if (connected != 0 && errno != EINPROGRESS) {
        return {unreachable + systemMessage(errno)};
    }
    if (!await(socket.get(), POLLOUT, kLookTime)) {
        return {unreachable + "no answer"};
    }
    int failure = 0;
    socklen_t length = sizeof failure;
    ::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &failure, &length);
    if (failure != 0) {
        return {unreachable + systemMessage(failure)};
    }
    std::array<char, kGreetingBytes> greeting{kRtmpVersion};
    char answer = 0;
    if (::send(socket.get(), greeting.data(), greeting.size(), MSG_NOSIGNAL) != kGreetingBytes ||
        !await(socket.get(), POLLIN, kLookTime) || ::recv(socket.get(), &answer, 1, 0) != 1 || answer != kRtmpVersion) {
        return {mName + " does not answer as an RTMP server does"};
    }
    return {};
}

}  // namespace vexalive
