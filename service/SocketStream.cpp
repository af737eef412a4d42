#include "service/SocketStream.h"

#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace vexalive {

namespace {

constexpr size_t kReceiveBytes = size_t{16} << 10;
constexpr size_t kQueueBytes = size_t{64} << 10;
constexpr std::chrono::seconds kHandshakeTimeout(10);
constexpr std::chrono::seconds kSendTimeout(10);  // maximum time in which the peer accepts no byte
constexpr std::chrono::seconds kDrainTimeout(1);  // maximum time for the peer to close its side in finish()

}  // namespace

SocketStream::SocketStream(int socket, SSL_CTX* tls) : mSocket(socket), mTls(tls ? SSL_new(tls) : nullptr, &SSL_free) {
    mIsBroken = tls && (!mTls || SSL_set_fd(mTls.get(), socket) != 1);
}

bool SocketStream::await(int events, Clock::time_point deadline) const {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            return false;
        }
        pollfd entry{mSocket, static_cast<short>(events), 0};
        const int ready = ::poll(&entry, 1, static_cast<int>(std::min<decltype(left)>(left, 60'000)));
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
}

// Repeats the operation until it transfers bytes, and returns their number; 0 on failure. Between attempts it waits for
// `events` on a plain socket, and for the events that OpenSSL needs on a TLS socket.
template <class Operation>
size_t SocketStream::transfer(Operation operation, int events, Clock::time_point deadline) {
    while (!mIsBroken) {
        ERR_clear_error();
        const ssize_t count = operation();
        if (count > 0) {
            return static_cast<size_t>(count);
        }
        const int error = errno;
        int awaited = 0;
        if (mTls) {
            const int reason = SSL_get_error(mTls.get(), static_cast<int>(count));
            awaited = reason == SSL_ERROR_WANT_READ ? POLLIN : reason == SSL_ERROR_WANT_WRITE ? POLLOUT : 0;
            if (reason == SSL_ERROR_ZERO_RETURN) {
                return 0;
            }
        } else if (count == 0) {
            return 0;
        } else {
            awaited = error == EAGAIN || error == EWOULDBLOCK || error == EINTR ? events : 0;
        }
        mIsBroken = awaited == 0 || !await(awaited, deadline);
    }
    return 0;
}

bool SocketStream::handshake() {
    return !mTls || transfer([this] { return SSL_accept(mTls.get()); }, 0, Clock::now() + kHandshakeTimeout) > 0;
}

bool SocketStream::receive(Clock::time_point deadline) {
    if (!flush()) {
        return false;
    }
    std::array<char, kReceiveBytes> bytes;
    const size_t count = transfer(
        [&]() -> ssize_t {
            return mTls ? SSL_read(mTls.get(), bytes.data(), static_cast<int>(bytes.size()))
                        : ::recv(mSocket, bytes.data(), bytes.size(), 0);
        },
        POLLIN, deadline);
    mReceived.append(bytes.data(), count);
    return count > 0;
}

bool SocketStream::send(std::string_view bytes) {
    if (!mIsBroken) {
        mQueued.append(bytes);
    }
    return mQueued.size() < kQueueBytes ? !mIsBroken : flush();
}

bool SocketStream::flush() {
    for (std::string_view unsent = mQueued; !unsent.empty() && !mIsBroken;) {
        const size_t count = transfer(
            [&]() -> ssize_t {
                return mTls ? SSL_write(mTls.get(), unsent.data(), static_cast<int>(unsent.size()))
                            : ::send(mSocket, unsent.data(), unsent.size(), MSG_NOSIGNAL);
            },
            POLLOUT, Clock::now() + kSendTimeout);
        mIsBroken = count == 0;
        unsent.remove_prefix(count);
    }
    mQueued.clear();
    return !mIsBroken;
}

void SocketStream::abort() {
    flush();
    mIsBroken = true;
}

// If a socket is closed while it has unread input, the kernel resets the connection, and the peer may lose the end of
// the response. So finish() reads and discards the remaining input.
void SocketStream::finish() {
    if (!flush()) {
        return;
    }
    if (mTls) {
        ERR_clear_error();
        SSL_shutdown(mTls.get());
        ERR_clear_error();
    }
    ::shutdown(mSocket, SHUT_WR);
    const Clock::time_point deadline = Clock::now() + kDrainTimeout;
    std::array<char, kReceiveBytes> discarded;
    ssize_t count = 1;
    while (count != 0 && await(POLLIN, deadline)) {
        count = ::recv(mSocket, discarded.data(), discarded.size(), 0);
        if (count < 0 && errno != EAGAIN && errno != EINTR) {
            return;
        }
    }
}

}  // namespace vexalive
