// Collects the events of an adapter and of the platform in one queue for the main thread.
//
// The SDK calls the listener, the HTTP observer, the event sink and the log sink on its own threads. Each of these
// callbacks only pushes an event.

#ifndef VEXALIVE_TOOLS_SDK_EVENT_COLLECTOR_H
#define VEXALIVE_TOOLS_SDK_EVENT_COLLECTOR_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "Com/ILiveTrancodingDelegate.h"
#include "platform/Platform.h"
#include "tools/EventQueue.h"
#include "tools/ServiceResponse.h"

namespace vexalive {

struct ExchangeEvent {  // an HttpExchange that owns its strings
    HttpExchange::Phase phase;
    uint64_t id;
    std::optional<requests::Kind> kind;  // set if `phase` is kStarted
    std::string interfaceName;
    size_t bytesSent;
    int httpStatus;
    int retCode;
    std::string response;
    std::chrono::milliseconds elapsed;
};

struct ListenerEvent {
    requests::Kind kind;
    requests::Notification notification;
};

struct LogEvent {
    int level;
    std::string file;
    int line;
    std::string function;
    std::string message;
};

using SdkEvent = std::variant<ExchangeEvent, ListenerEvent, EventReport, LogEvent>;

// The constructor installs the platform's hooks, and the destructor removes them. At most one object may exist at a
// time.
class SdkEventCollector {
public:
    // Log lines with a level below `lowestLogLevel` (see base/Log.h) are dropped.
    SdkEventCollector(std::shared_ptr<EventQueue<SdkEvent>> queue, int lowestLogLevel);
    ~SdkEventCollector();
    SdkEventCollector(const SdkEventCollector&) = delete;
    SdkEventCollector& operator=(const SdkEventCollector&) = delete;

    // The listener to set at the adapter, which stores a weak reference to it.
    const std::shared_ptr<ILiveTrancodingDelegate>& listener() const { return mListener; }

    EventQueue<SdkEvent>& queue() { return *mQueue; }

private:
    std::shared_ptr<EventQueue<SdkEvent>> mQueue;  // shared with the hooks: a running hook may outlive this object
    std::shared_ptr<ILiveTrancodingDelegate> mListener;
};

}  // namespace vexalive

#endif
