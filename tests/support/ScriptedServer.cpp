#include "support/ScriptedServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <utility>

namespace {

constexpr int kPollMilliseconds = 20;

bool readable(int socket) {
    pollfd wait{socket, POLLIN, 0};
    return poll(&wait, 1, kPollMilliseconds) > 0;
}

// The address in the format of /proc/net/tcp.
std::string inHex(const sockaddr_in& address) {
    char text[16] = {};
    std::snprintf(text, sizeof text, "%08X:%04X", static_cast<unsigned>(address.sin_addr.s_addr),
                  static_cast<unsigned>(ntohs(address.sin_port)));
    return text;
}

// True if bytes from `from` to `to` are in flight or not yet read. Both ends are on this machine.
bool isDataPending(const sockaddr_in& from, const sockaddr_in& to) {
    // Columns: number, local address, remote address, state, and the sizes of both queues as "SEND:RECEIVE".
    const std::string sender = inHex(from) + " " + inHex(to) + " ";
    const std::string receiver = inHex(to) + " " + inHex(from) + " ";
    constexpr size_t kStateSize = 3;
    constexpr size_t kQueueSize = 8;
    const std::string none(kQueueSize, '0');
    std::ifstream table("/proc/thread-self/net/tcp");
    for (std::string line; std::getline(table, line);) {
        const size_t queues = line.find(':') + 2 + sender.size() + kStateSize;
        if ((line.find(sender) != line.npos && line.compare(queues, kQueueSize, none) != 0) ||
            (line.find(receiver) != line.npos && line.compare(queues + kQueueSize + 1, kQueueSize, none) != 0)) {
            return true;
        }
    }
    return false;
}

int chooseHttp2(SSL*, const unsigned char** chosen, unsigned char* size, const unsigned char* offered,
                unsigned int offeredSize, void*) {
    static const unsigned char kHttp2[] = {2, 'h', '2'};
    unsigned char* selected = nullptr;
    const int result = SSL_select_next_proto(&selected, size, kHttp2, sizeof kHttp2, offered, offeredSize);
    *chosen = selected;
    return result == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_ALERT_FATAL;
}

}  // namespace

ScriptedServer::Connection::Connection(int socket, SSL_CTX* context, std::atomic<bool>& stopping)
    : mSocket(socket), mSsl(SSL_new(context)), mStopping(stopping) {
    const int on = 1;
    setsockopt(mSocket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    SSL_set_fd(mSsl, mSocket);
}

ScriptedServer::Connection::~Connection() {
    SSL_free(mSsl);
    if (mSocket >= 0) {
        close(mSocket);
    }
}

// False if the server stops.
bool ScriptedServer::Connection::awaitBytes() const {
    while (!readable(mSocket)) {
        if (mStopping) {
            return false;
        }
    }
    return true;
}

bool ScriptedServer::Connection::handshake() {
    return awaitBytes() && SSL_accept(mSsl) == 1;
}

std::string ScriptedServer::Connection::readRequest() {
    std::string request;
    size_t wanted = std::string::npos;
    while (request.size() < wanted) {
        const std::string bytes = read();
        if (bytes.empty()) {
            return {};
        }
        request += bytes;
        const size_t head = request.find("\r\n\r\n");
        if (head != std::string::npos) {
            const std::string name = "Content-Length: ";
            const size_t length = request.find(name);
            wanted = head + 4 + (length < head ? std::strtoul(request.c_str() + length + name.size(), nullptr, 10) : 0);
        }
    }
    return request;
}

std::string ScriptedServer::Connection::read() {
    char bytes[4096];
    const int size = SSL_pending(mSsl) > 0 || awaitBytes() ? SSL_read(mSsl, bytes, sizeof bytes) : 0;
    return size > 0 ? std::string(bytes, static_cast<size_t>(size)) : std::string();
}

void ScriptedServer::Connection::write(const std::string& bytes) {
    constexpr size_t kPiece = 65536;  // bytes; before each piece, the function checks whether the server stops
    for (size_t at = 0; at < bytes.size() && !mStopping; at += kPiece) {
        if (SSL_write(mSsl, bytes.data() + at, static_cast<int>(std::min(kPiece, bytes.size() - at))) <= 0) {
            return;
        }
    }
}

std::string ScriptedServer::Connection::readPlain() {
    char bytes[4096];
    const ssize_t size = awaitBytes() ? recv(mSocket, bytes, sizeof bytes, 0) : 0;
    return size > 0 ? std::string(bytes, static_cast<size_t>(size)) : std::string();
}

void ScriptedServer::Connection::writePlain(const std::string& bytes) {
    send(mSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void ScriptedServer::Connection::reset() {
    const linger now{1, 0};
    setsockopt(mSocket, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    close(mSocket);
    mSocket = -1;
}

void ScriptedServer::Connection::waitUntilRead() {
    sockaddr_in own{};
    sockaddr_in client{};
    socklen_t size = sizeof own;
    getsockname(mSocket, reinterpret_cast<sockaddr*>(&own), &size);
    getpeername(mSocket, reinterpret_cast<sockaddr*>(&client), &size);
    while (!mStopping && isDataPending(own, client)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

bool ScriptedServer::Connection::clientClosesWithin(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (!mStopping && std::chrono::steady_clock::now() < end) {
        char byte = 0;
        if (readable(mSocket) && recv(mSocket, &byte, 1, 0) <= 0) {
            return true;
        }
    }
    return mStopping;
}

ScriptedServer::ScriptedServer(const Options& options, Script script)
    : mScript(std::move(script)),
      mContext(SSL_CTX_new(TLS_server_method())),
      mCertificate(makeServerCertificate(options.fault)),
      mListener(socket(AF_INET, SOCK_STREAM, 0)) {
    SSL_CTX_use_certificate(mContext, mCertificate.certificate.get());
    SSL_CTX_use_PrivateKey(mContext, mCertificate.key.get());
    if (options.highestProtocol != 0) {
        SSL_CTX_set_security_level(mContext, 0);  // higher levels disable old protocols
        SSL_CTX_set_min_proto_version(mContext, TLS1_VERSION);
        SSL_CTX_set_max_proto_version(mContext, options.highestProtocol);
    }
    if (options.http2) {
        SSL_CTX_set_alpn_select_cb(mContext, chooseHttp2, nullptr);
    }
    const int on = 1;
    setsockopt(mListener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(options.port));
    socklen_t size = sizeof address;
    if (bind(mListener, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(mListener, 128) != 0) {
        std::perror("scripted server");
        std::abort();
    }
    getsockname(mListener, reinterpret_cast<sockaddr*>(&address), &size);
    mPort = ntohs(address.sin_port);
    mAcceptor = std::thread([this] { acceptAll(); });
}

ScriptedServer::~ScriptedServer() {
    mStopping = true;
    mAcceptor.join();
    mConnections.clear();
    close(mListener);
    SSL_CTX_free(mContext);
}

std::string ScriptedServer::url(const std::string& path) const {
    return "https://127.0.0.1:" + std::to_string(mPort) + path;
}

void ScriptedServer::acceptAll() {
    // A write to a closed connection must not end the process. Only the server's threads block the signal.
    sigset_t brokenPipe;
    sigemptyset(&brokenPipe);
    sigaddset(&brokenPipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);  // the connections' threads inherit it
    while (!mStopping) {
        if (!readable(mListener)) {
            continue;
        }
        const int accepted = accept(mListener, nullptr, nullptr);
        if (accepted < 0) {
            continue;
        }
        ++mAccepted;
        mConnections.remove_if([](const std::future<void>& connection) {
            return connection.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        });
        mConnections.push_back(std::async(std::launch::async, [this, accepted] {
            Connection connection(accepted, mContext, mStopping);
            mScript(connection);
        }));
    }
}

std::string httpResponse(int status, const std::string& body, const std::string& headers) {
    return "HTTP/1.1 " + std::to_string(status) + " Test\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
           headers + "\r\n" + body;
}

ScriptedServer::Script alwaysRespond(std::string bytes) {
    return [bytes = std::move(bytes)](ScriptedServer::Connection& connection) {
        if (!connection.handshake()) {
            return;
        }
        while (!connection.readRequest().empty()) {
            connection.write(bytes);
        }
    };
}
