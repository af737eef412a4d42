#include "tools/SdkEventCollector.h"

#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "Com/LiveRequests.h"

namespace vexalive {
namespace {

// The requests that start and cancel a mix have the same interface. Only the body of a start has the key
// "output_stream_type".
std::optional<requests::Kind> kindOf(std::string_view interfaceName, std::string_view body) {
    if (interfaceName == requests::rulesOf(requests::kAddRelay).interfaceName) {
        return requests::kAddRelay;
    }
    if (interfaceName == requests::rulesOf(requests::kRemoveRelay).interfaceName) {
        return requests::kRemoveRelay;
    }
    if (interfaceName != requests::rulesOf(requests::kStartMix).interfaceName) {
        return std::nullopt;
    }
    const auto request = nlohmann::json::parse(body, nullptr, false);
    const bool isCancel = request.is_object() && request.contains("output_param") &&
                          !request["output_param"].contains("output_stream_type");
    return isCancel ? requests::kCancelMix : requests::kStartMix;
}

class Listener : public ILiveTrancodingDelegate {
public:
    explicit Listener(std::shared_ptr<EventQueue<SdkEvent>> queue) : mQueue(std::move(queue)) {}

    void onStartPublishStreamUrl(int errCode, std::string errMsg) override {
        put(requests::kAddRelay, errCode, std::move(errMsg));
    }
    void onStopPublishStreamUrl(int errCode, std::string errMsg) override {
        put(requests::kRemoveRelay, errCode, std::move(errMsg));
    }
    void onSetLiveMixTranscoding(int errCode, std::string errMsg) override {
        put(requests::kStartMix, errCode, std::move(errMsg));
    }
    void onStopLiveMixTranscoding(int errCode, std::string errMsg) override {
        put(requests::kCancelMix, errCode, std::move(errMsg));
    }

private:
    void put(requests::Kind kind, int errCode, std::string errMsg) {
        mQueue->push(ListenerEvent{kind, {errCode, std::move(errMsg)}});
    }

    std::shared_ptr<EventQueue<SdkEvent>> mQueue;
};

}  // namespace

SdkEventCollector::SdkEventCollector(std::shared_ptr<EventQueue<SdkEvent>> queue, int lowestLogLevel)
    : mQueue(std::move(queue)), mListener(std::make_shared<Listener>(mQueue)) {
    setHttpObserver([queue = mQueue](const HttpExchange& exchange) {
        const bool isStarted = exchange.phase == HttpExchange::kStarted;
        queue->push(ExchangeEvent{exchange.phase, exchange.id,
                                  isStarted ? kindOf(exchange.interfaceName, exchange.body) : std::nullopt,
                                  std::string(exchange.interfaceName), exchange.bytesSent, exchange.httpStatus,
                                  exchange.retCode, std::string(exchange.response), exchange.elapsed});
    });
    setEventSink([queue = mQueue](const EventReport& report) { queue->push(report); });
    setLogSink([queue = mQueue, lowestLogLevel](int level, const char* file, int line, const char* function,
                                                const std::string& message) {
        if (level >= lowestLogLevel) {
            queue->push(LogEvent{level, file, line, function, message});
        }
    });
}

SdkEventCollector::~SdkEventCollector() {
    setHttpObserver(nullptr);
    setEventSink(nullptr);
    setLogSink(nullptr);
}

}  // namespace vexalive
