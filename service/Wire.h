// One connection's bytes: a socket, with TLS or without, behind the interface by which cpp-httplib reads and writes.
//
// Used by HttpServer. One thread uses a Wire; another may shut its socket down, which ends every wait at once.

#ifndef VEXALIVE_SERVICE_WIRE_H
#define VEXALIVE_SERVICE_WIRE_H

#include <httplib.h>
#include <openssl/ssl.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

namespace vexalive {

class Wire final : public httplib::Stream {
public:
    // `socket`, not blocking, stays the caller's, who closes it after the Wire is gone. `tls` may be null.
    Wire(int socket, SSL_CTX* tls);

    bool handshake();  // true at once without TLS

    // Waits for the next request; false if none came in time or the peer has gone. Each request is bounded in time and
    // bytes from here on.
    bool awaitRequest(std::chrono::milliseconds timeout);
    bool isExhausted() const { return mBytesLeft == 0; }

    // What was written is kept until this, until a read has to wait, or until there is much of it.
    bool flush();

    void drop();    // nothing more goes out, and the peer sees no proper end
    void finish();  // the proper end: all is sent, and the peer has had the time to read it

    bool is_readable() const override { return true; }
    bool is_writable() const override { return !mIsBroken; }
    ssize_t read(char* data, size_t size) override;
    ssize_t write(const char* data, size_t size) override;
    void get_remote_ip_and_port(std::string& ip, int& port) const override;
    void get_local_ip_and_port(std::string& ip, int& port) const override;
    socket_t socket() const override { return mSocket; }

private:
    using Clock = std::chrono::steady_clock;

    bool fill(Clock::time_point deadline);
    bool await(int events, Clock::time_point deadline) const;
    template <class Operation>
    ssize_t transfer(Operation operation, int events, Clock::time_point deadline);

    const int mSocket;
    std::unique_ptr<SSL, decltype(&SSL_free)> mTls;
    bool mIsBroken = false;
    size_t mBytesLeft = 0;
    Clock::time_point mDeadline;  // of the request
    std::string mIn;
    size_t mInStart = 0;  // what stands before has been read
    std::string mOut;
};

}  // namespace vexalive

#endif
