// All that an adapter and the platform tell while they work, in one queue for the main thread.
//
// The listener, the observer of exchanges, the report sink and the log sink are called on threads of the SDK's; here
// they only put down what they heard. Used by the commands that drive an adapter.

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

enum class Operation { kStartRelay, kStopRelay, kStartMix, kStopMix };  // kStartMix: an update, too

struct ExchangeEvent {  // as HttpExchange, but owning its texts
    HttpExchange::Phase phase;
    uint64_t id;
    std::optional<Operation> operation;  // known while kStarted
    std::string interfaceName;
    size_t bytesSent;
    int httpStatus;
    int retCode;
    std::string answer;
    std::chrono::milliseconds elapsed;
};

struct ListenerEvent {
    Operation operation;
    ListenerTold told;
};

struct LogEvent {
    int level;
    std::string file;
    int line;
    std::string function;
    std::string message;
};

using SdkEvent = std::variant<ExchangeEvent, ListenerEvent, EventReport, LogEvent>;

// Sets the platform's hooks for its lifetime, of which there is one at a time.
class SdkEventCollector {
public:
    // Log lines below `lowestLogLevel` (base/Log.h) are dropped.
    explicit SdkEventCollector(int lowestLogLevel);
    ~SdkEventCollector();
    SdkEventCollector(const SdkEventCollector&) = delete;
    SdkEventCollector& operator=(const SdkEventCollector&) = delete;

    // To be given to the adapter, which keeps it weakly.
    const std::shared_ptr<ILiveTrancodingDelegate>& listener() const { return mListener; }

    EventQueue<SdkEvent>& queue() { return *mQueue; }

private:
    std::shared_ptr<EventQueue<SdkEvent>> mQueue;  // shared with the hooks, of which a call may outlive this
    std::shared_ptr<ILiveTrancodingDelegate> mListener;
};

}  // namespace vexalive

#endif
