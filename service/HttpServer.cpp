#include "service/HttpServer.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#include "service/HttpConnection.h"
#include "service/SocketStream.h"

namespace vexalive {

namespace {

constexpr std::chrono::milliseconds kPollInterval(100);
constexpr int kBacklog = 1024;

bool isLoopback(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        return ntohl(reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr) >> 24 == 127;
    }
    const in6_addr& six = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
    return IN6_IS_ADDR_LOOPBACK(&six) || (IN6_IS_ADDR_V4MAPPED(&six) && six.s6_addr[12] == 127);
}

// Fails if `pem` does not contain a certificate and its private key.
Result<std::shared_ptr<SSL_CTX>> makeTls(const std::string& pem) {
    const auto reader = [&pem] {
        return std::unique_ptr<BIO, decltype(&BIO_free)>(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())),
                                                         &BIO_free);
    };
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(
        PEM_read_bio_X509(reader().get(), nullptr, nullptr, nullptr), &X509_free);
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        PEM_read_bio_PrivateKey(reader().get(), nullptr, nullptr, nullptr), &EVP_PKEY_free);
    std::shared_ptr<SSL_CTX> tls(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free);
    const bool isGood = tls && certificate && key && SSL_CTX_use_certificate(tls.get(), certificate.get()) == 1 &&
                        SSL_CTX_use_PrivateKey(tls.get(), key.get()) == 1 &&
                        SSL_CTX_set_min_proto_version(tls.get(), TLS1_2_VERSION) == 1;
    ERR_clear_error();
    if (!isGood) {
        return failure("the server certificate cannot be used");
    }
    SSL_CTX_set_options(tls.get(), SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_mode(tls.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    return tls;
}

}  // namespace

// ---- Listening ------------------------------------------------------------------------------------------------------

HttpServer::HttpServer(Routes routes, Handler handler) : mRoutes(std::move(routes)), mHandler(std::move(handler)) {}

HttpServer::~HttpServer() {
    stop();
}

Result<void> HttpServer::start(const Options& options) {
    mTls.reset();
    if (!options.pem.empty()) {
        Result<std::shared_ptr<SSL_CTX>> tls = makeTls(options.pem);
        if (!tls) {
            return tl::unexpected(tls.error());
        }
        mTls = std::move(*tls);
    }
    if (Result<void> opened = openListener(options); !opened) {
        return opened;
    }
    {
        KstMutexLock lock(mMutex);
        mIsStopping = false;
    }
    std::signal(SIGPIPE, SIG_IGN);  // OpenSSL writes to sockets without MSG_NOSIGNAL
    mAcceptor = std::thread([this] { acceptAll(); });
    return {};
}

Result<void> HttpServer::openListener(const Options& options) {
    const std::string service = std::to_string(options.port);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int status = ::getaddrinfo(options.address.c_str(), service.c_str(), &hints, &found);
    if (status != 0) {
        return failure("cannot listen on " + options.address + ": " + ::gai_strerror(status));
    }
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> holder(found, &::freeaddrinfo);
    sockaddr_storage address{};
    std::copy_n(reinterpret_cast<const char*>(found->ai_addr), found->ai_addrlen, reinterpret_cast<char*>(&address));
    if (!mTls && !isLoopback(address)) {
        return failure("plain HTTP is for loopback only, and " + options.address + " is not loopback");
    }
    Descriptor listener(::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int yes = 1;
    ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    socklen_t length = sizeof address;
    if (!listener.isOpen() || ::bind(listener.get(), found->ai_addr, found->ai_addrlen) != 0 ||
        ::listen(listener.get(), kBacklog) != 0 ||
        ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        const int reason = errno;
        return failure("cannot listen on port " + service + " of " + options.address + ": " +
                       (reason == EADDRINUSE ? "it is already in use; choose another port, or 0 for a free one"
                                             : systemMessage(reason)));
    }
    mPort = ntohs(address.ss_family == AF_INET ? reinterpret_cast<sockaddr_in&>(address).sin_port
                                               : reinterpret_cast<sockaddr_in6&>(address).sin6_port);
    mListener = std::move(listener);
    return {};
}

void HttpServer::stop() {
    if (!mAcceptor.joinable()) {
        return;
    }
    {
        KstMutexLock lock(mMutex);
        mIsStopping = true;
    }
    mChanged.notifyAll();
    ::shutdown(mListener.get(), SHUT_RDWR);
    mAcceptor.join();
    mListener.reset();
    std::list<Connection> connections;
    {
        KstMutexLock lock(mMutex);
        for (const Connection& connection : mConnections) {
            ::shutdown(connection.socket.get(), SHUT_RDWR);
        }
        connections.swap(mConnections);
    }
    for (Connection& connection : connections) {
        connection.thread.join();
    }
}

bool HttpServer::pause(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    KstMutexLock lock(mMutex);
    while (!mIsStopping && std::chrono::steady_clock::now() < end) {
        mChanged.waitUntil(mMutex, end);
    }
    return !mIsStopping;
}

// ---- Accepting ------------------------------------------------------------------------------------------------------

void HttpServer::acceptAll() {
    while (awaitCapacity()) {
        pollfd entry{mListener.get(), POLLIN, 0};
        ::poll(&entry, 1, -1);
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        Descriptor socket(
            ::accept4(mListener.get(), reinterpret_cast<sockaddr*>(&address), &length, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket.isOpen()) {
            accept(std::move(socket), isLoopback(address));
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            // The process has no free descriptors or memory. Nothing reports when they become free, so poll.
            const auto retryTime = std::chrono::steady_clock::now() + kPollInterval;
            KstMutexLock lock(mMutex);
            if (!mIsStopping) {
                mChanged.waitUntil(mMutex, retryTime);
            }
        }
    }
}

// Joins the threads of closed connections, and waits while there are kMaxConnections. Returns false if the server
// stops.
bool HttpServer::awaitCapacity() {
    std::list<Connection> closed;
    {
        KstMutexLock lock(mMutex);
        for (;;) {
            for (auto connection = mConnections.begin(); connection != mConnections.end();) {
                const auto each = connection++;
                if (!each->socket.isOpen()) {
                    closed.splice(closed.end(), mConnections, each);
                }
            }
            if (mIsStopping || mConnections.size() < kMaxConnections) {
                break;
            }
            mChanged.wait(mMutex);
        }
    }
    for (Connection& connection : closed) {
        connection.thread.join();
    }
    KstMutexLock lock(mMutex);
    return !mIsStopping;
}

void HttpServer::accept(Descriptor socket, bool isFromLoopback) {
    const int yes = 1;
    ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    KstMutexLock lock(mMutex);
    Connection& connection = mConnections.emplace_back();
    connection.socket = std::move(socket);
    connection.isFromLoopback = isFromLoopback;
    try {
        connection.thread = std::thread([this, &connection] { serve(connection); });
    } catch (const std::system_error&) {  // no thread can be started: the connection is closed
        mConnections.pop_back();
    }
}

// Runs on the connection's thread. Closes the socket under the lock: stop() would otherwise shut down a descriptor
// whose number the process already uses for another file.
void HttpServer::serve(Connection& connection) {
    {
        SocketStream stream(connection.socket.get(), mTls.get());
        serveConnection(stream, mRoutes, mHandler, connection.isFromLoopback);
    }
    KstMutexLock lock(mMutex);
    connection.socket.reset();
    mChanged.notifyAll();
}

}  // namespace vexalive
