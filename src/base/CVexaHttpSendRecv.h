/// @file
/// The HTTPS client: posts a body to a URL and reports the response.
///
/// The adapter owns one client per kind of request. The default implementation is platform/CVexaHttpSendRecv.cpp on
/// libcurl. A host with its own HTTPS stack defines the member functions of this class itself.

#ifndef VEXALIVE_BASE_CVEXA_HTTP_SEND_RECV_H
#define VEXALIVE_BASE_CVEXA_HTTP_SEND_RECV_H

#include <functional>
#include <memory>
#include <string>

#include "base/KstCopyOnWriteBuffer.h"

/// Sends HTTPS POST requests. Any thread may call any member function, but none while the destructor runs.
class CVexaHttpSendRecv {
public:
    /// Return code: a whole response with a 2xx status has arrived.
    static constexpr int kSuccess = 0;

    /// Return code: the request is worth another attempt. The name was not resolved; the server refused the connection,
    /// was unreachable or timed out; the connection was lost before the whole response; or the HTTP status is 408, 425,
    /// 429, 500, 502, 503 or 504.
    static constexpr int kRetryable = 1;

    /// A return code of at least this value is this value plus a CURLcode: another attempt would fail, too. For
    /// example, the certificate was refused, the URL is malformed, or the response exceeds the limit. The response is
    /// then a JSON object whose only key is "transportError", with a description.
    static constexpr int kTransportErrorBase = 1000;

    /// Receives the result of one request. `retCode` is one of the codes above. For every HTTP status that they do not
    /// cover, it is the status itself, 100 to 999. `response` is the part of the response body that arrived. The
    /// callback runs on a delivery thread of the client's implementation, never inside sendHttpsRequest(). It may
    /// block, send again, or destroy the client. It must not throw.
    using Callback = std::function<void(int retCode, KstCopyOnWriteBuffer& response)>;

    /// Starts no thread and opens no socket before the first request.
    CVexaHttpSendRecv();

    /// Requests in flight end without a callback: no callback begins after the destructor has returned. Waits for a
    /// callback of this client that runs on another thread. Does not wait if called inside a callback.
    ~CVexaHttpSendRecv();

    CVexaHttpSendRecv(const CVexaHttpSendRecv&) = delete;
    CVexaHttpSendRecv& operator=(const CVexaHttpSendRecv&) = delete;

    /// Posts `body` as application/json to `url`. Never blocks.
    ///
    /// While the client exists, `callback` is called exactly once. Callbacks of one client run one at a time, in the
    /// order in which the exchanges ended. `callback` receives all errors, also that `url` is not https.
    /// @param body  the client shares its bytes and does not copy them.
    /// @param callback  may be empty; owned by the client, and destroyed after its call.
    void sendHttpsRequest(KstCopyOnWriteBuffer& body, const std::string& url, Callback callback);

private:
    struct Impl;
    std::shared_ptr<Impl> mImpl;
};

#endif
