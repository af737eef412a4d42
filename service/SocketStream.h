#ifndef VEXALIVE_SERVICE_SOCKET_STREAM_H
#define VEXALIVE_SERVICE_SOCKET_STREAM_H

#include <openssl/ssl.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace vexalive {

/// Reads and writes one accepted connection, with or without TLS. Both directions are buffered.
///
/// Not thread-safe, but another thread may shut the socket down. Every wait of the stream then ends at once.
class SocketStream {
public:
    using Clock = std::chrono::steady_clock;

    /// `socket` is non-blocking. The caller owns it and closes it after the stream is destroyed. `tls` may be null: a
    /// plain connection.
    SocketStream(int socket, SSL_CTX* tls);

    /// Performs the server's side of the TLS handshake in at most 10 s. Without TLS, returns true at once.
    bool handshake();

    /// The bytes that have arrived and were not consumed yet.
    std::string_view received() const { return mReceived; }
    void consume(size_t count) { mReceived.erase(0, count); }

    /// Sends the queued bytes, then waits for more bytes and appends them to received(), at most 16 KiB. Returns
    /// false if the deadline has passed, the peer has closed its side, or the connection is broken.
    bool receive(Clock::time_point deadline);

    /// send() queues bytes. They are sent by flush(), by receive(), or by send() when at least 64 KiB are queued. Both
    /// functions return false if the connection is broken, or if the peer has read nothing for 10 s.
    bool send(std::string_view bytes);
    bool flush();

    /// Sends the queued bytes and closes the connection without a TLS shutdown.
    void abort();

    /// Sends the queued bytes, shuts the connection down, and waits up to 1 s until the peer has read them.
    void finish();

private:
    bool await(int events, Clock::time_point deadline) const;
    template <class Operation>
    size_t transfer(Operation operation, int events, Clock::time_point deadline);

    const int mSocket;
    std::unique_ptr<SSL, decltype(&SSL_free)> mTls;
    bool mIsBroken = false;
    std::string mReceived;
    std::string mQueued;  // not sent yet
};

}  // namespace vexalive

#endif
