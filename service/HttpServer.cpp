#include "service/HttpServer.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "service/Wire.h"

namespace vexalive {

namespace {

constexpr std::chrono::seconds kIdleTimeout(60);  // longer than the pauses between a client's attempts
constexpr std::chrono::milliseconds kPollInterval(100);
constexpr int kBacklog = 1024;
constexpr const char* kJson = "application/json";

std::string messageBody(const std::string& message) {
    return nlohmann::json{{"message", message}}.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string textOf(int status) {
    switch (status) {
        case 400:
            return "this is not a readable HTTP request";
        case 413:
            return "the body is longer than " + std::to_string(HttpServer::kMaxBodyBytes) + " bytes";
        case 414:
            return "the address is too long";
        default:
            return "this request cannot be answered";
    }
}

bool isLoopback(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        return ntohl(reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr) >> 24 == 127;
    }
    const in6_addr& six = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
    return IN6_IS_ADDR_LOOPBACK(&six) || (IN6_IS_ADDR_V4MAPPED(&six) && six.s6_addr[12] == 127);
}

// Null if the text is not a certificate and its key.
std::shared_ptr<SSL_CTX> makeTls(const std::string& pem) {
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
        return nullptr;
    }
    SSL_CTX_set_options(tls.get(), SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_mode(tls.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    return tls;
}

}  // namespace

// ---- One connection -------------------------------------------------------------------------------------------------

// An httplib server that never listens: it has one connection's requests read, routed and answered.
class HttpServer::Connection : public httplib::Server {
public:
    Connection(HttpServer& owner, Wire& wire, bool isFromLoopback)
        : mOwner(owner), mWire(wire), mIsFromLoopback(isFromLoopback) {
        svr_sock_ = wire.socket();  // without a socket httplib takes itself for stopped, and cuts streamed answers
        set_payload_max_length(kMaxBodyBytes);
        set_keep_alive_timeout(kIdleTimeout.count());
        set_keep_alive_max_count(kMaxRequests);
        set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
            return admit(request, response) ? HandlerResponse::Unhandled : HandlerResponse::Handled;
        });
        set_error_handler([this](const httplib::Request&, httplib::Response& response) { explain(response); });
        set_exception_handler(
            [](const httplib::Request&, httplib::Response& response, std::exception_ptr) { response.status = 500; });
        const auto handler = [this](const httplib::Request& request, httplib::Response& response) {
            answer(request, response);
        };
        // Only known paths come this far.
        Get("/.*", handler);
        Post("/.*", handler);
        Delete("/.*", handler);
    }

    void run() {
        if (!mWire.handshake()) {
            return;
        }
        for (size_t left = kMaxRequests; left > 0 && !mIsOver && mWire.awaitRequest(kIdleTimeout); --left) {
            bool isClosed = false;
            mIsAnswered = false;
            const bool isServed = process_request(mWire, left == 1, isClosed, nullptr);
            mIsOver = !isServed || isClosed || mIsOver || mWire.isExhausted();
        }
        mWire.finish();
    }

    // httplib makes its tables while it reads its first request. One read here, before there are threads, makes them
    // in plain order for all: a race detector does not see the locks inside a library that was built without it.
    static void prepare() {
        class Reader : public httplib::Server {
        public:
            void read(httplib::Stream& stream) {
                bool isClosed = false;
                process_request(stream, true, isClosed, nullptr);
            }
        };
        httplib::detail::BufferStream request;
        const std::string text = "POST / HTTP/1.1\r\nContent-Length: 2\r\n\r\n{}";
        request.write(text.data(), text.size());
        Reader().read(request);
    }

private:
    static constexpr size_t kMaxRequests = 100'000;  // of one connection

    // Before the body is read: whatever is refused here leaves it unread.
    bool admit(const httplib::Request& request, httplib::Response& response) {
        const auto route = mOwner.mRoutes.find(request.target.substr(0, request.target.find('?')));
        if (route == mOwner.mRoutes.end()) {
            response.status = 404;
            response.set_content(messageBody("there is nothing at this path"), kJson);
            return false;
        }
        const std::vector<std::string>& methods = route->second;
        if (std::find(methods.begin(), methods.end(), request.method) == methods.end()) {
            std::string allowed;
            for (const std::string& method : methods) {
                allowed += (allowed.empty() ? "" : ", ") + method;
            }
            response.status = 405;
            response.set_header("Allow", allowed);
            response.set_content(messageBody("this path takes " + allowed), kJson);
            return false;
        }
        if (request.has_header("Content-Encoding")) {  // a small body could unpack to a huge one
            response.status = 415;
            response.set_content(messageBody("an encoded body is not read"), kJson);
            return false;
        }
        return true;
    }

    void answer(const httplib::Request& request, httplib::Response& response) {
        const size_t mark = request.target.find('?');
        HttpRequest received;
        received.method = request.method;
        received.path = request.target.substr(0, mark);
        received.query = mark == std::string::npos ? "" : request.target.substr(mark + 1);
        received.host = request.get_header_value("Host");
        received.origin = request.get_header_value("Origin");
        received.fetchSite = request.get_header_value("Sec-Fetch-Site");
        received.body = request.body;
        received.isFromLoopback = mIsFromLoopback;
        const auto made = std::make_shared<HttpResponse>(mOwner.mHandler(received));
        mIsAnswered = true;
        response.status = made->status;
        for (const auto& [name, value] : made->headers) {
            response.set_header(name, value);
        }
        if (made->delivery == HttpResponse::Delivery::kClose) {
            mWire.drop();
        } else if (made->delivery == HttpResponse::Delivery::kCut) {
            response.set_content_provider(made->body.size(), made->contentType,
                                          [this, made](size_t, size_t length, httplib::DataSink& sink) {
                                              sink.write(made->body.data(), length / 2);
                                              mWire.drop();
                                              return false;
                                          });
        } else if (made->padding > 0) {
            const size_t size = made->body.size() + made->padding + made->tail.size();
            response.set_content_provider(size, made->contentType,
                                          [made](size_t offset, size_t, httplib::DataSink& sink) {
                                              const std::string piece = pieceOf(*made, offset);
                                              return sink.write(piece.data(), piece.size());
                                          });
        } else if (!made->body.empty()) {
            response.set_content(made->body, made->contentType);
        }
    }

    // What a padded answer holds from `offset` on: the rest of one of its three parts, or some of the padding.
    static std::string pieceOf(const HttpResponse& answer, size_t offset) {
        constexpr size_t kPaddingPiece = size_t{64} << 10;
        const size_t bodyEnd = answer.body.size();
        const size_t paddingEnd = bodyEnd + answer.padding;
        if (offset < bodyEnd) {
            return answer.body.substr(offset);
        }
        if (offset < paddingEnd) {
            return std::string(std::min(paddingEnd - offset, kPaddingPiece), 'x');
        }
        return answer.tail.substr(offset - paddingEnd);
    }

    // What the handler did not answer: how far the request was read is unknown, so the connection ends after it.
    void explain(httplib::Response& response) {
        if (mIsAnswered) {
            return;
        }
        mIsOver = true;
        response.set_header("Connection", "close");
        if (response.body.empty()) {
            response.set_content(messageBody(textOf(response.status)), kJson);
        }
    }

    HttpServer& mOwner;
    Wire& mWire;
    const bool mIsFromLoopback;
    bool mIsAnswered = false;
    bool mIsOver = false;
};

// ---- Listening ------------------------------------------------------------------------------------------------------

HttpServer::HttpServer(Routes routes, Handler handler) : mRoutes(std::move(routes)), mHandler(std::move(handler)) {}

HttpServer::~HttpServer() {
    stop();
}

bool HttpServer::start(const Options& options, std::string& error) {
    mTls.reset();
    if (!options.pem.empty() && !(mTls = makeTls(options.pem))) {
        error = "the server certificate cannot be used";
        return false;
    }
    if (!openSocket(options, error)) {
        return false;
    }
    {
        KstMutexLock lock(mMutex);
        mIsStopping = false;
    }
    Connection::prepare();
    mAcceptor = std::thread([this] { acceptAll(); });
    return true;
}

bool HttpServer::openSocket(const Options& options, std::string& error) {
    const std::string service = std::to_string(options.port);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int failure = ::getaddrinfo(options.address.c_str(), service.c_str(), &hints, &found);
    if (failure != 0) {
        error = "cannot listen on " + options.address + ": " + ::gai_strerror(failure);
        return false;
    }
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> holder(found, &::freeaddrinfo);
    sockaddr_storage address{};
    std::copy_n(reinterpret_cast<const char*>(found->ai_addr), found->ai_addrlen, reinterpret_cast<char*>(&address));
    if (!mTls && !isLoopback(address)) {
        error = "plain HTTP is for loopback only, and " + options.address + " is not loopback";
        return false;
    }
    const int listener = ::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int yes = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    socklen_t length = sizeof address;
    if (listener < 0 || ::bind(listener, found->ai_addr, found->ai_addrlen) != 0 || ::listen(listener, kBacklog) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        const int reason = errno;
        error = "cannot listen on port " + service + " of " + options.address + ": " +
                (reason == EADDRINUSE ? "another program has taken it" : std::generic_category().message(reason));
        if (listener >= 0) {
            ::close(listener);
        }
        return false;
    }
    mPort = ntohs(address.ss_family == AF_INET ? reinterpret_cast<sockaddr_in&>(address).sin_port
                                               : reinterpret_cast<sockaddr_in6&>(address).sin6_port);
    mListener = listener;
    return true;
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
    ::shutdown(mListener, SHUT_RDWR);
    mAcceptor.join();
    ::close(mListener);
    mListener = -1;
    std::list<Peer> peers;
    {
        KstMutexLock lock(mMutex);
        for (const Peer& peer : mPeers) {
            if (!peer.hasEnded) {
                ::shutdown(peer.socket, SHUT_RDWR);
            }
        }
        peers.swap(mPeers);
    }
    for (Peer& peer : peers) {
        peer.thread.join();
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
    while (awaitRoom()) {
        pollfd entry{mListener, POLLIN, 0};
        ::poll(&entry, 1, -1);
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        const int socket =
            ::accept4(mListener, reinterpret_cast<sockaddr*>(&address), &length, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (socket >= 0) {
            accept(socket, isLoopback(address));
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            // Nothing but an ending connection helps, and that may be another program's.
            const auto retryTime = std::chrono::steady_clock::now() + kPollInterval;
            KstMutexLock lock(mMutex);
            if (!mIsStopping) {
                mChanged.waitUntil(mMutex, retryTime);
            }
        }
    }
}

// Clears away the connections that have ended, and waits while there are too many; false if the server stops.
bool HttpServer::awaitRoom() {
    std::list<Peer> ended;
    {
        KstMutexLock lock(mMutex);
        for (;;) {
            for (auto peer = mPeers.begin(); peer != mPeers.end();) {
                const auto each = peer++;
                if (each->hasEnded) {
                    ended.splice(ended.end(), mPeers, each);
                }
            }
            if (mIsStopping || mPeers.size() < kMaxConnections) {
                break;
            }
            mChanged.wait(mMutex);
        }
    }
    for (Peer& peer : ended) {
        peer.thread.join();
    }
    KstMutexLock lock(mMutex);
    return !mIsStopping;
}

void HttpServer::accept(int socket, bool isOnLoopback) {
    const int yes = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    KstMutexLock lock(mMutex);
    Peer& peer = mPeers.emplace_back();
    peer.socket = socket;
    peer.isOnLoopback = isOnLoopback;
    try {
        peer.thread = std::thread([this, &peer] { serve(peer); });
    } catch (const std::system_error&) {  // no more threads: this client has to come again
        ::close(socket);
        mPeers.pop_back();
    }
}

// The thread of one connection. Its socket is closed under the lock, so that stop() never shuts down another's.
void HttpServer::serve(Peer& peer) {
    {
        Wire wire(peer.socket, mTls.get());
        Connection(*this, wire, peer.isOnLoopback).run();
    }
    KstMutexLock lock(mMutex);
    ::close(peer.socket);
    peer.hasEnded = true;
    mChanged.notifyAll();
}

}  // namespace vexalive
