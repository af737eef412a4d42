/// @file
/// The options and hooks of the default platform. All are optional.
///
/// A hook is a function of the host: the log sink, the event sink or the HTTP observer. Any thread may set a hook at
/// any time. An empty function restores the default. When a setter returns, a call of the previous function may still
/// run.
///
/// A hook is called on the thread that logs, reports or delivers a response. Several threads may call a hook at the
/// same time. A hook must not throw. While it blocks, the calling thread waits.

#ifndef VEXALIVE_PLATFORM_PLATFORM_H
#define VEXALIVE_PLATFORM_PLATFORM_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace vexalive {

/// Options of all HTTPS clients of the process.
struct HttpOptions {
    /// The maximum time for name resolution, TCP and TLS together: 1 ms to 1 hour.
    std::chrono::milliseconds connectTimeout{5000};

    /// The maximum time for the whole exchange: 1 ms to 1 hour. A request may first wait until another request has
    /// opened a connection that both share. This wait is not included. It takes at most connectTimeout, or twice that
    /// if more than 100 requests wait.
    std::chrono::milliseconds totalTimeout{10000};

    /// The maximum size of a response body: 1 byte to 1 GiB. A request with a larger response fails.
    size_t maxResponseBytes = size_t{1} << 20;

    /// A PEM file with the certificate authorities to trust. Empty: the file that the environment variable
    /// VEXALIVE_CA_FILE names, or the system's authorities.
    std::string caFile;
};

/// Sets the options. Call before the first request, on any thread.
/// @return false, with no effect, after the first request or if a value is out of its range.
bool setHttpOptions(const HttpOptions& options);

/// Receives a formatted log line. The other parameters are as in base/Log.h; the strings are valid during the call.
using LogSink =
    std::function<void(int level, const char* file, int line, const char* function, const std::string& message)>;

/// Sets the destination of log lines. By default, they go to the spdlog logger named "vexalive", if the host registered
/// one before the first line; otherwise to standard error.
void setLogSink(LogSink sink);

/// A room event report: the arguments of kstReportAvRoomEvt() in base/EventReport.h. Owns its strings.
struct EventReport {
    int sdkAppId;             ///< Low 32 bits of the SDK application id.
    std::string roomUser;     ///< Room and user, joined by "_".
    int eventType;            ///< 10004.
    int event;                ///< 30 for relays, 31 for mixes.
    std::string information;  ///< SDK version and the operation's input.
    std::string detail;       ///< The trace of the request, which contains its responses; or why nothing was sent.
};

/// Receives a room event report; `report` is valid during the call.
using EventSink = std::function<void(const EventReport& report)>;

/// Sets the destination of reports. By default, each report is written as one log line.
void setEventSink(EventSink sink);

/// One phase of an HTTPS exchange, for a progress display or metrics. Never contains the URL, which carries secrets.
struct HttpExchange {
    /// The phases of an exchange, in this order. An exchange that is dropped at process exit has kStarted only.
    enum Phase {
        kStarted,    ///< The client has accepted the request. Observed on the sending thread.
        kCompleted,  ///< The result is known; the callback has not begun. Observed on the delivery thread.
        kDelivered,  ///< The callback has returned, or the client no longer exists. Observed on the delivery thread.
    };
    Phase phase;                        ///< The phase that has begun.
    uint64_t id;                        ///< Unique in the process; the first exchange has 1.
    std::string_view interfaceName;     ///< Last segment of the URL's path; valid during the call.
    size_t bytesSent;                   ///< Length of the request body.
    std::string_view body;              ///< Request body at kStarted, otherwise empty; valid during the call.
    int httpStatus;                     ///< Status of the response; 0 at kStarted or without a response.
    int retCode;                        ///< As in base/CVexaHttpSendRecv.h; 0 at kStarted.
    std::string_view response;          ///< Response body; empty at kStarted; valid during the call.
    std::chrono::milliseconds elapsed;  ///< From kStarted to the end of the exchange; 0 at kStarted.
};

/// Receives each phase of each exchange.
using HttpObserver = std::function<void(const HttpExchange& exchange)>;

/// Sets the observer of all exchanges of the process.
void setHttpObserver(HttpObserver observer);

}  // namespace vexalive

#endif
