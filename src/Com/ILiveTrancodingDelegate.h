// The listener: how the outcomes of relay and mix requests reach the application.

#ifndef VEXALIVE_COM_I_LIVE_TRANCODING_DELEGATE_H
#define VEXALIVE_COM_I_LIVE_TRANCODING_DELEGATE_H

#include <string>

// Implemented by the application and handed to LiveTranscodingAdapter::setLiveTranscodingDelegate, which keeps a weak
// reference. The spelling of the name is part of the interface.
//
// Every call takes a code and a message. Codes:
//   0                       success; the message is "sucess", or empty if the service answered with "ErrorCode" 0
//   -3321, -3322            transport error (relay, mix); the message shows the return code of CVexaHttpSendRecv
//   -3323, -3324            empty or unreadable answer, or a refused call (relay, mix)
//   -200000-c, -300000-c    the service answered with the error code c or -c (relay, mix), never below the lowest
//                           32-bit integer; the message is the service's
//
// Finished requests are told on the HTTPS client's delivery threads, refused calls on the adapter's worker thread;
// never inside the call that asked. Calls may come at the same time on several threads. A listener may block (it delays
// only its own adapter), call the adapter, or drop it; it may be destroyed on the thread that calls it.
//
// Most requests are told once. Told twice: an empty answer ("recv message nil", then "recv message can't parse"). Told
// never: a start that waits for room entry, a request that newer work has superseded, and a readable answer without a
// code. Told although superseded: an answer to a retry of a relay stop, of a mix or of a mix cancel that was sent
// before.
class ILiveTrancodingDelegate {
public:
    virtual ~ILiveTrancodingDelegate() = default;

    // A relay start has finished. Also: a relay start, a mix configuration or its list of users was refused.
    virtual void onStartPublishStreamUrl(int errCode, std::string errMsg) = 0;

    // A relay stop has finished.
    virtual void onStopPublishStreamUrl(int errCode, std::string errMsg) = 0;

    // A mix start or update has finished.
    virtual void onSetLiveMixTranscoding(int errCode, std::string errMsg) = 0;

    // A mix cancel has finished. Also: a relay stop or a mix cancel was refused, since nothing was ever started.
    virtual void onStopLiveMixTranscoding(int errCode, std::string errMsg) = 0;
};

#endif
