#include "service/Wire.h"

#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace vexalive {

namespace {

constexpr size_t kInBytes = size_t{16} << 10;
constexpr size_t kOutBytes = size_t{64} << 10;
constexpr size_t kMaxRequestBytes = (size_t{2} << 20) + kInBytes;  // head, body and what chunks add
constexpr std::chrono::seconds kHandshakeTimeout(10);
constexpr std::chrono::seconds kRequestTimeout(30);
constexpr std::chrono::seconds kWriteTimeout(10);  // without any progress
constexpr std::chrono::seconds kDrainTimeout(1);

}  // namespace

Wire::Wire(int socket, SSL_CTX* tls) : mSocket(socket), mTls(tls ? SSL_new(tls) : nullptr, &SSL_free) {
    mIsBroken = tls && (!mTls || SSL_set_fd(mTls.get(), socket) != 1);
}

bool Wire::await(int events, Clock::time_point deadline) const {
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

// Runs the operation until it moves bytes; 0 if it cannot any more. `events` is what a plain socket waits for.
template <class Operation>
ssize_t Wire::transfer(Operation operation, int events, Clock::time_point deadline) {
    while (!mIsBroken) {
        ERR_clear_error();
        const ssize_t count = operation();
        if (count > 0) {
            return count;
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

bool Wire::handshake() {
    return !mTls || transfer([this] { return SSL_accept(mTls.get()); }, 0, Clock::now() + kHandshakeTimeout) > 0;
}

bool Wire::fill(Clock::time_point deadline) {
    mIn.resize(kInBytes);
    mInStart = 0;
    const ssize_t count = transfer(
        [this]() -> ssize_t {
            return mTls ? SSL_read(mTls.get(), &mIn[0], static_cast<int>(kInBytes))
                        : ::recv(mSocket, &mIn[0], kInBytes, 0);
        },
        POLLIN, deadline);
    mIn.resize(static_cast<size_t>(count));
    return count > 0;
}

bool Wire::awaitRequest(std::chrono::milliseconds timeout) {
    if (mInStart == mIn.size() && !(flush() && fill(Clock::now() + timeout))) {
        return false;
    }
    mBytesLeft = kMaxRequestBytes;
    mDeadline = Clock::now() + kRequestTimeout;
    return true;
}

ssize_t Wire::read(char* data, size_t size) {
    if (mInStart == mIn.size() && !(flush() && fill(mDeadline))) {
        return 0;
    }
    const size_t count = std::min({size, mIn.size() - mInStart, mBytesLeft});
    std::copy_n(mIn.data() + mInStart, count, data);
    mInStart += count;
    mBytesLeft -= count;
    return static_cast<ssize_t>(count);
}

ssize_t Wire::write(const char* data, size_t size) {
    if (mIsBroken) {
        return -1;
    }
    mOut.append(data, size);
    if (mOut.size() >= kOutBytes && !flush()) {
        return -1;
    }
    return static_cast<ssize_t>(size);
}

bool Wire::flush() {
    for (size_t sent = 0; sent < mOut.size();) {
        const char* data = mOut.data() + sent;
        const size_t size = mOut.size() - sent;
        const ssize_t count = transfer(
            [&]() -> ssize_t {
                return mTls ? SSL_write(mTls.get(), data, static_cast<int>(size))
                            : ::send(mSocket, data, size, MSG_NOSIGNAL);
            },
            POLLOUT, Clock::now() + kWriteTimeout);
        if (count <= 0) {
            mIsBroken = true;
            break;
        }
        sent += static_cast<size_t>(count);
    }
    mOut.clear();
    return !mIsBroken;
}

void Wire::drop() {
    flush();
    mIsBroken = true;
}

// A socket closed with unread bytes in it is reset, and the peer may lose an answer that is still on its way. So what
// still comes is read and thrown away, for a while.
void Wire::finish() {
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
    char waste[kInBytes];
    ssize_t count = 1;
    while (count != 0 && await(POLLIN, deadline)) {
        count = ::recv(mSocket, waste, sizeof waste, 0);
        if (count < 0 && errno != EAGAIN && errno != EINTR) {
            return;
        }
    }
}

// Nothing here asks for addresses through the stream.
void Wire::get_remote_ip_and_port(std::string&, int&) const {}
void Wire::get_local_ip_and_port(std::string&, int&) const {}

}  // namespace vexalive
