#include "ScriptedServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <utility>

namespace {

constexpr int kPollMilliseconds = 20;

bool readable(int socket) {
    pollfd wait{socket, POLLIN, 0};
    return poll(&wait, 1, kPollMilliseconds) > 0;
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

bool ScriptedServer::Connection::handshake() {
    while (!readable(mSocket)) {
        if (mStopping) {
            return false;
        }
    }
    return SSL_accept(mSsl) == 1;
}

std::string ScriptedServer::Connection::readRequest() {
    std::string request;
    size_t wanted = std::string::npos;
    while (request.size() < wanted) {
        while (SSL_pending(mSsl) == 0 && !readable(mSocket)) {
            if (mStopping) {
                return {};
            }
        }
        char bytes[4096];
        const int got = SSL_read(mSsl, bytes, sizeof bytes);
        if (got <= 0) {
            return {};
        }
        request.append(bytes, static_cast<size_t>(got));
        const size_t head = request.find("\r\n\r\n");
        if (head != std::string::npos) {
            const std::string name = "Content-Length: ";
            const size_t length = request.find(name);
            wanted = head + 4 + (length < head ? std::strtoul(request.c_str() + length + name.size(), nullptr, 10) : 0);
        }
    }
    return request;
}

void ScriptedServer::Connection::write(const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size() && !mStopping) {
        const size_t left = bytes.size() - sent;
        const int wrote = SSL_write(mSsl, bytes.data() + sent, static_cast<int>(left < 65536 ? left : 65536));
        if (wrote <= 0) {
            return;
        }
        sent += static_cast<size_t>(wrote);
    }
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

void ScriptedServer::Connection::waitForClient() {
    while (!mStopping) {
        char byte = 0;
        if (readable(mSocket) && recv(mSocket, &byte, 1, 0) <= 0) {
            return;
        }
    }
}

ScriptedServer::ScriptedServer(const Options& options, Script script)
    : mScript(std::move(script)),
      mContext(SSL_CTX_new(TLS_server_method())),
      mCertificate(makeServerCertificate(options.fault)),
      mListener(socket(AF_INET, SOCK_STREAM, 0)) {
    SSL_CTX_use_certificate(mContext, mCertificate.certificate.get());
    SSL_CTX_use_PrivateKey(mContext, mCertificate.key.get());
    if (options.highestProtocol != 0) {
        SSL_CTX_set_security_level(mContext, 0);  // old protocols are shut off above it
        SSL_CTX_set_min_proto_version(mContext, TLS1_VERSION);
        SSL_CTX_set_max_proto_version(mContext, options.highestProtocol);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    bind(mListener, reinterpret_cast<sockaddr*>(&address), size);
    listen(mListener, 128);
    getsockname(mListener, reinterpret_cast<sockaddr*>(&address), &size);
    mPort = ntohs(address.sin_port);
    mAcceptor = std::thread([this] { acceptAll(); });
}

ScriptedServer::~ScriptedServer() {
    mStopping = true;
    mAcceptor.join();
    for (std::thread& connection : mConnections) {
        connection.join();
    }
    close(mListener);
    SSL_CTX_free(mContext);
}

std::string ScriptedServer::url(const std::string& path) const {
    return "https://127.0.0.1:" + std::to_string(mPort) + path;
}

void ScriptedServer::acceptAll() {
    // A client that has gone is no end of the world here; the client's own threads are left to show that they cope.
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
        mConnections.emplace_back([this, accepted] {
            Connection connection(accepted, mContext, mStopping);
            mScript(connection);
        });
    }
}

std::string httpAnswer(int status, const std::string& body, const std::string& headers) {
    return "HTTP/1.1 " + std::to_string(status) + " Test\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
           headers + "\r\n" + body;
}

ScriptedServer::Script answering(std::string bytes) {
    return [bytes = std::move(bytes)](ScriptedServer::Connection& connection) {
        if (!connection.handshake()) {
            return;
        }
        while (!connection.readRequest().empty()) {
            connection.write(bytes);
        }
    };
}
