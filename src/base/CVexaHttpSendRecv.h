/// @file
/// The HTTPS client: posts a body to a URL and reports the response.
///
/// The adapter owns one per kind of request. The default implementation is platform/CVexaHttpSendRecv.cpp on libcurl. A
/// host with its own HTTPS stack defines these members itself.

#ifndef VEXALIVE_BASE_CVEXA_HTTP_SEND_RECV_H
#define VEXALIVE_BASE_CVEXA_HTTP_SEND_RECV_H

#include <functional>
#include <memory>
#include <string>

#include "base/KstCopyOnWriteBuffer.h"

/// Sends HTTPS POST requests. Any thread may call any member; the destructor excludes all other calls.
class CVexaHttpSendRecv {
public:
    /// Return code: a whole response with a 2xx status has arrived.
    static constexpr int kSuccess = 0;

    /// Return code: the request is worth another attempt. The name was not resolved; the server refused the connection,
    /// was unreachable or timed out; the connection was lost before the whole response; or the HTTP status is 408, 425,
    /// 429, 500, 502, 503 or 504.
    static constexpr int kRetryable = 1;

    /// Return codes from here on are this plus a CURLcode: another attempt will fail as well. The certificate was
    /// refused, the URL is malformed, or the response exceeds the limit. The response is then a JSON object whose only
    /// key is "transportError", with a description.
    static constexpr int kTransportErrorBase = 1000;

    /// Receives the result of one request: `retCode` is one of the codes above, or an HTTP status from 100 to 999 as it
    /// is. `response` is the response body, as far as it arrived, for every code. Runs on a delivery thread of the
    /// client's implementation, never inside sendHttpsRequest(). It may block, send again, or destroy the client. It
    /// must not throw.
    using Callback = std::function<void(int retCode, KstCopyOnWriteBuffer& response)>;

    /// Starts no thread and opens no socket before the first request.
    CVexaHttpSendRecv();

    /// Requests in flight end without a callback: none begins after the destructor has returned. Waits for a
    /// callback of this client that runs on another thread; does not wait if called inside a callback.
    ~CVexaHttpSendRecv();

    CVexaHttpSendRecv(const CVexaHttpSendRecv&) = delete;
    CVexaHttpSendRecv& operator=(const CVexaHttpSendRecv&) = delete;

    /// Posts `body` as application/json to `url`. Never blocks.
    ///
    /// While the client lives, `callback` is called exactly once. Callbacks of one client run one at a time, in the
    /// order in which the exchanges ended. Errors are reported through `callback`, a `url` that is not https included.
    /// @param body  shared, not copied.
    /// @param callback  may be empty; owned by the client, and destroyed after its call.
    void sendHttpsRequest(KstCopyOnWriteBuffer& body, const std::string& url, Callback callback);

private:
    struct Impl;
    std::shared_ptr<Impl> mImpl;
};

#endif
