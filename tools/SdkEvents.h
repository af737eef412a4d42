// All that an adapter and the platform tell while they work, in one queue for the main thread.
//
// The listener, the observer of exchanges, the report sink and the log sink are called on threads of the SDK's; here
// they only put down what they heard. Used by the commands that drive an adapter.

#ifndef VEXALIVE_TOOLS_SDK_EVENTS_H
#define VEXALIVE_TOOLS_SDK_EVENTS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "Com/ILiveTrancodingDelegate.h"
#include "platform/Platform.h"
#include "tools/Mailbox.h"
#include "tools/Outcome.h"

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
class SdkEvents {
public:
    // Log lines below `lowestLogLevel` (base/Log.h) are dropped.
    explicit SdkEvents(int lowestLogLevel);
    ~SdkEvents();
    SdkEvents(const SdkEvents&) = delete;
    SdkEvents& operator=(const SdkEvents&) = delete;

    // To be given to the adapter, which keeps it weakly.
    const std::shared_ptr<ILiveTrancodingDelegate>& listener() const { return mListener; }

    Mailbox<SdkEvent>& mailbox() { return *mMailbox; }

private:
    std::shared_ptr<Mailbox<SdkEvent>> mMailbox;  // shared with the hooks, of which a call may outlive this
    std::shared_ptr<ILiveTrancodingDelegate> mListener;
};

}  // namespace vexalive

#endif
