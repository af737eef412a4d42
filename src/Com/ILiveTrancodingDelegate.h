/// @file
/// The listener interface, through which the application receives the outcomes of relay and mix requests.

#ifndef VEXALIVE_COM_I_LIVE_TRANCODING_DELEGATE_H
#define VEXALIVE_COM_I_LIVE_TRANCODING_DELEGATE_H

#include <string>

/// Implemented by the application and passed to LiveTranscodingAdapter::setLiveTranscodingDelegate, which stores a weak
/// reference. The spelling of the name is part of the interface.
///
/// Each call receives a code and a message. Where a row has two codes, the first is for relays, the second for mixes.
///
/// | code | meaning |
/// |---|---|
/// | 0 | success; the message is "sucess", or empty if the service responded with "ErrorCode" 0 |
/// | -3321, -3322 | transport error; the message shows the return code of CVexaHttpSendRecv |
/// | -3323, -3324 | empty or unreadable response, or a refused operation |
/// | -200000-c, -300000-c | the service sent error code c or -c, and this message; clamped to INT32_MIN |
///
/// Threads: the outcome of a request is delivered on a thread of the HTTPS client, a refusal on the adapter's worker
/// thread. Neither is delivered inside the call of the operation. Calls may run on several threads at once. A listener
/// may block (this delays only its own adapter), call the adapter, or release the last reference to the adapter. If the
/// application releases the listener during a call, the calling thread destroys the listener.
///
/// Most operations cause one call. Exceptions:
/// - An empty response causes two calls: "recv message nil", then "recv message can't parse".
/// - A readable response without a code causes no call.
/// - A start before room entry causes no call until the adapter sends its request.
/// - A superseded operation causes no call, with two exceptions. A start with an invalid parameter or configuration is
///   refused even if it is superseded. If a retry of a relay stop, a mix start or a mix cancel was already sent, its
///   response is evaluated and may cause a call.
class ILiveTrancodingDelegate {
public:
    virtual ~ILiveTrancodingDelegate() = default;

    /// A relay start has finished or was refused. A refused mix start or update calls this function, too (intended,
    /// prescribed by the interface).
    virtual void onStartPublishStreamUrl(int errCode, std::string errMsg) = 0;

    /// A relay stop has finished.
    virtual void onStopPublishStreamUrl(int errCode, std::string errMsg) = 0;

    /// A mix start or update has finished.
    virtual void onSetLiveMixTranscoding(int errCode, std::string errMsg) = 0;

    /// A mix cancel has finished, or was refused because nothing was ever started. A refused relay stop calls this
    /// function, too (intended, prescribed by the interface).
    virtual void onStopLiveMixTranscoding(int errCode, std::string errMsg) = 0;
};

#endif
