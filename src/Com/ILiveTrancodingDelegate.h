/// @file
/// The listener: how the outcomes of relay and mix requests reach the application.

#ifndef VEXALIVE_COM_I_LIVE_TRANCODING_DELEGATE_H
#define VEXALIVE_COM_I_LIVE_TRANCODING_DELEGATE_H

#include <string>

/// Implemented by the application and passed to LiveTranscodingAdapter::setLiveTranscodingDelegate, which stores a weak
/// reference. The spelling of the name is part of the interface.
///
/// Each call receives a code and a message:
///
/// | code | meaning |
/// |---|---|
/// | 0 | success; the message is "sucess", or empty if the service responded with "ErrorCode" 0 |
/// | -3321, -3322 | transport error (relay, mix); the message shows the return code of CVexaHttpSendRecv |
/// | -3323, -3324 | empty or unreadable response, or a refused operation (relay, mix) |
/// | -200000-c, -300000-c | the service responded with error code c or -c (relay, mix); clamped to INT32_MIN |
///
/// In the last row, the message is the one that the service sent.
///
/// Threads: the outcome of a request is delivered on a thread of the HTTPS client, a refusal on the adapter's worker
/// thread, and never inside the call of the operation. Calls may run on several threads at once. A listener may block
/// (this delays only its own adapter), call the adapter, or drop it. It may be destroyed on the thread that calls it.
///
/// Most requests make one call. Exceptions:
/// - An empty response makes two: "recv message nil", then "recv message can't parse".
/// - A start that waits for room entry makes none, and so does a readable response without a code.
/// - A superseded operation makes none, with two exceptions. A start with an invalid parameter or configuration is
///   refused even if it is superseded. If a retry of a relay stop, a mix or a mix cancel was already sent, its response
///   is evaluated and may make a call.
class ILiveTrancodingDelegate {
public:
    virtual ~ILiveTrancodingDelegate() = default;

    /// A relay start has finished. Also: a relay start, a mix configuration or its list of users was refused.
    virtual void onStartPublishStreamUrl(int errCode, std::string errMsg) = 0;

    /// A relay stop has finished.
    virtual void onStopPublishStreamUrl(int errCode, std::string errMsg) = 0;

    /// A mix start or update has finished.
    virtual void onSetLiveMixTranscoding(int errCode, std::string errMsg) = 0;

    /// A mix cancel has finished. Also: a relay stop or a mix cancel was refused, since nothing was ever started.
    virtual void onStopLiveMixTranscoding(int errCode, std::string errMsg) = 0;
};

#endif
