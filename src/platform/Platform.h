// What a host may set about the default platform: all of its hooks stand here.
//
// The platform works without any of them. Sinks and the observer may be set at any time and from any thread, and are
// called from whatever thread logs, reports or exchanges; they must not throw, and one that blocks delays that thread.
// Setting an empty function goes back to the default. A call of the old function that is under way may still end after
// the new one is set.

#ifndef VEXALIVE_PLATFORM_PLATFORM_H
#define VEXALIVE_PLATFORM_PLATFORM_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace vexalive {

struct HttpOptions {
    std::chrono::milliseconds connectTimeout{5000};  // name, TCP and TLS together; 1 ms to 1 hour
    std::chrono::milliseconds totalTimeout{10000};   // the whole exchange, but for waiting on a connection that another
                                                     // request is opening (connectTimeout more at most; twice that if
                                                     // over a hundred requests wait for it); 1 ms to 1 hour
    size_t maxAnswerBytes = size_t{1} << 20;         // a longer answer is cut off and fails; 1 byte to 1 GiB
    std::string caFile;  // certificate authorities (PEM) trusted in place of the system's; empty: the file that the
                         // environment variable VEXALIVE_CA_FILE names, else the system's
};

// Sets the options of all HTTPS clients of the process. False, with no effect, after the first request or if a value is
// out of its range.
bool setHttpOptions(const HttpOptions& options);

// One log line, ready formatted. Level, file, line and function as in base/Log.h.
using LogSink =
    std::function<void(int level, const char* file, int line, const char* function, const std::string& message)>;

// Where log lines go; by default to the spdlog logger named "vexalive": the one that the host registered before the
// first line, else one that writes to standard error.
void setLogSink(LogSink sink);

// A room event report, fields as in base/EventReport.h.
struct EventReport {
    int sdkAppId;
    std::string roomUser;
    int eventType;
    int event;
    std::string information;
    std::string detail;
};
using EventSink = std::function<void(const EventReport& report)>;

// Where reports go; by default each becomes one log line.
void setEventSink(EventSink sink);

// One HTTPS exchange as seen from outside, for a progress display or metrics. Never shows the address, which carries
// secrets.
struct HttpExchange {
    enum Phase {
        kStarted,    // handed to the client; on the sending thread
        kAnswered,   // about to be told to the callback; on the delivery thread
        kDelivered,  // the callback has returned (or the client was gone); on the delivery thread
    };
    Phase phase;
    uint64_t id;                        // of the exchange, counted from 1
    std::string_view interfaceName;     // the last part of the address's path; valid during the call
    size_t bytesSent;                   // of the body
    std::string_view body;              // what is sent; empty once kStarted is over; valid during the call
    int httpStatus;                     // of the answer; 0 if none came, and while kStarted
    int retCode;                        // as in base/CVexaHttpSendRecv.h; 0 while kStarted
    std::string_view answer;            // what came back; empty while kStarted; valid during the call
    std::chrono::milliseconds elapsed;  // from hand-over to answer; 0 while kStarted
};
using HttpObserver = std::function<void(const HttpExchange& exchange)>;
void setHttpObserver(HttpObserver observer);

}  // namespace vexalive

#endif
