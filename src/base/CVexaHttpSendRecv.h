// The HTTPS client: posts a body to an address and tells what came back.
//
// The adapter owns one per kind of request. The default implementation stands in platform/CVexaHttpSendRecv.cpp on
// libcurl; a host with an HTTPS stack of its own defines these members itself.

#ifndef VEXALIVE_BASE_CVEXA_HTTP_SEND_RECV_H
#define VEXALIVE_BASE_CVEXA_HTTP_SEND_RECV_H

#include <functional>
#include <memory>
#include <string>

#include "base/KstCopyOnWriteBuffer.h"

class CVexaHttpSendRecv {
public:
    // What came back, as the callback's return code:
    //   kAnswered      a 2xx answer arrived whole;
    //   kTryAgain      worth another try: name not resolved, refused, unreachable, timed out, connection lost before
    //                  the whole answer, or HTTP 408, 425, 429, 500, 502, 503, 504;
    //   100 to 999     any other HTTP status, as it stands;
    //   kLibraryBase + a CURLcode
    //                  what another try will not mend: certificate refused, malformed address, answer over the limit.
    //                  The response is then a JSON object with the one key "transportError", a text for people.
    static constexpr int kAnswered = 0;
    static constexpr int kTryAgain = 1;
    static constexpr int kLibraryBase = 1000;

    // Called on a delivery thread that belongs to the client's implementation, never inside sendHttpsRequest. It may
    // block, send again, or destroy the client. `response` is the answer's body, as much of it as arrived, also where
    // the code is not 0.
    using Callback = std::function<void(int retCode, KstCopyOnWriteBuffer& response)>;

    // Costs nothing until the first request: no thread, no socket.
    CVexaHttpSendRecv();

    // Requests still in flight run to their end unheard; no callback begins after the destructor has returned. If a
    // callback of this client runs on another thread, the destructor waits for it; inside a callback it does not.
    ~CVexaHttpSendRecv();

    CVexaHttpSendRecv(const CVexaHttpSendRecv&) = delete;
    CVexaHttpSendRecv& operator=(const CVexaHttpSendRecv&) = delete;

    // Posts `body` as application/json to `url`, which must be https. Never blocks. While the client lives, `callback`
    // is called exactly once for each request; callbacks of one client come one at a time, in the order in which the
    // exchanges ended. Any thread may call. `body` is shared, not copied.
    void sendHttpsRequest(KstCopyOnWriteBuffer& body, const std::string& url, Callback callback);

private:
    struct Impl;
    std::shared_ptr<Impl> mImpl;
};

#endif
