#include "tools/SdkEvents.h"

#include <utility>

namespace vexalive {
namespace {

class Listener : public ILiveTrancodingDelegate {
public:
    explicit Listener(std::shared_ptr<Mailbox<SdkEvent>> mailbox) : mMailbox(std::move(mailbox)) {}

    void onStartPublishStreamUrl(int errCode, std::string errMsg) override {
        put(ListenerEvent::kStartRelay, errCode, std::move(errMsg));
    }
    void onStopPublishStreamUrl(int errCode, std::string errMsg) override {
        put(ListenerEvent::kStopRelay, errCode, std::move(errMsg));
    }
    void onSetLiveMixTranscoding(int errCode, std::string errMsg) override {
        put(ListenerEvent::kStartMix, errCode, std::move(errMsg));
    }
    void onStopLiveMixTranscoding(int errCode, std::string errMsg) override {
        put(ListenerEvent::kStopMix, errCode, std::move(errMsg));
    }

private:
    void put(ListenerEvent::Operation operation, int errCode, std::string errMsg) {
        mMailbox->put(ListenerEvent{operation, {errCode, std::move(errMsg)}});
    }

    std::shared_ptr<Mailbox<SdkEvent>> mMailbox;
};

}  // namespace

SdkEvents::SdkEvents(int lowestLogLevel)
    : mMailbox(std::make_shared<Mailbox<SdkEvent>>()), mListener(std::make_shared<Listener>(mMailbox)) {
    setHttpObserver([mailbox = mMailbox](const HttpExchange& exchange) {
        mailbox->put(ExchangeEvent{exchange.phase, exchange.id, std::string(exchange.interfaceName), exchange.bytesSent,
                                   exchange.httpStatus, exchange.retCode, std::string(exchange.answer),
                                   exchange.elapsed});
    });
    setEventSink([mailbox = mMailbox](const EventReport& report) { mailbox->put(report); });
    setLogSink([mailbox = mMailbox, lowestLogLevel](int level, const char* file, int line, const char* function,
                                                    const std::string& message) {
        if (level >= lowestLogLevel) {
            mailbox->put(LogEvent{level, file, line, function, message});
        }
    });
}

SdkEvents::~SdkEvents() {
    setHttpObserver(nullptr);
    setEventSink(nullptr);
    setLogSink(nullptr);
}

}  // namespace vexalive
