#include "base/CVexaHttpSendRecv.h"

#include <atomic>
#include <utility>

#include "platform/HttpEngine.h"

struct CVexaHttpSendRecv::Impl : vexalive::ResponseQueue {};

namespace {

// The last segment of the URL's path, for example "remove_relay_stream_url".
std::string lastPathSegment(const std::string& url) {
    const std::string path = url.substr(0, url.find('?'));
    return path.substr(path.rfind('/') + 1);
}

}  // namespace

CVexaHttpSendRecv::CVexaHttpSendRecv() : mImpl(std::make_shared<Impl>()) {}

CVexaHttpSendRecv::~CVexaHttpSendRecv() {
    mImpl->close();
}

void CVexaHttpSendRecv::sendHttpsRequest(KstCopyOnWriteBuffer& body, const std::string& url, Callback callback) {
    static std::atomic<uint64_t> lastId{0};

    auto request = std::make_unique<vexalive::OutgoingRequest>();
    request->url = url;
    request->body = body;
    request->responses = mImpl;
    request->started = std::chrono::steady_clock::now();
    request->completion.callback = std::move(callback);
    request->completion.interfaceName = lastPathSegment(url);

    vexalive::HttpExchange& exchange = request->completion.exchange;
    exchange.id = ++lastId;
    exchange.interfaceName = request->completion.interfaceName;
    exchange.bytesSent = body.size();
    exchange.body = std::string_view(reinterpret_cast<const char*>(body.cdata()), body.size());
    vexalive::observe(exchange);
    exchange.body = {};

    if (vexalive::HttpEngine* engine = vexalive::HttpEngine::instance()) {
        engine->send(std::move(request));
    }
}
