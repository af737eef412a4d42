#include "service/LiveService.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <utility>

#include "base/Mutex.h"
#include "service/Certificates.h"
#include "service/Console.h"
#include "service/FaultQueue.h"
#include "service/HttpServer.h"
#include "service/RequestCheck.h"
#include "service/ServiceState.h"
#include "service/WorkerPool.h"

namespace vexalive {

using nlohmann::ordered_json;

namespace {

constexpr const char* kInterfacePrefix = "/v3/liveinterface/";
constexpr const char* kState = "/state";
constexpr const char* kMetrics = "/metrics";
constexpr const char* kSnapshot = "/snapshot";
constexpr const char* kFaultsPath = "/faults";
constexpr const char* kPublish = "/origin/publish";

// The paths that only clients on this machine may use.
HttpServer::Routes localRoutes() {
    HttpServer::Routes result = {{kState, {"GET"}},
                                 {kMetrics, {"GET"}},
                                 {kSnapshot, {"GET"}},
                                 {kFaultsPath, {"GET", "POST", "DELETE"}},
                                 {kPublish, {"POST"}}};
    for (const std::string& path : consolePaths()) {
        result[path] = {"GET"};
    }
    return result;
}

HttpServer::Routes routes() {
    HttpServer::Routes result = localRoutes();
    for (const char* name : {kAddRelayInterface, kRemoveRelayInterface, kSetMixInterface}) {
        result[std::string(kInterfacePrefix) + name] = {"POST"};
    }
    return result;
}

std::string asJson(const ordered_json& value) {
    return value.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

// Serializes with line breaks and indentation, for human readers.
std::string asIndentedJson(const ordered_json& value) {
    return value.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

// The response of a local path: {"message": …}, without the "code" that responses of the three interfaces have.
HttpResponse messageResponse(int status, const std::string& message) {
    HttpResponse response;
    response.status = status;
    response.body = asJson({{"message", message}});
    return response;
}

HttpResponse okResponse(const std::string& body) {
    HttpResponse response;
    response.body = body;
    return response;
}

HttpResponse pageResponse(const std::string& path) {
    const std::optional<ConsoleFile> file = consoleFile(path);
    if (!file) {
        return messageResponse(404, "there is nothing at this path");
    }
    HttpResponse response = okResponse(std::string(file->content));
    response.contentType = file->contentType;
    response.headers["Content-Security-Policy"] = "default-src 'self'; frame-ancestors 'none'";
    return response;
}

std::string codeBody(int code, const std::string& message) {
    return asJson({{"code", code}, {"message", message}});
}

bool isRedirect(int status) {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

HttpResponse faultResponse(const Fault& fault) {
    HttpResponse response;
    switch (fault.kind) {
        case Fault::Kind::kDelay:
        case Fault::Kind::kEmpty:
            break;
        case Fault::Kind::kStatus:
            response.status = fault.status;
            if (isRedirect(fault.status)) {
                response.headers["Location"] = "/redirected";
            }
            break;
        case Fault::Kind::kCut:
            response.body = codeBody(0, "half of this is never sent");
            response.delivery = HttpResponse::Delivery::kCut;
            break;
        case Fault::Kind::kGarbage:
            response.body = std::string("<html>\xff\xfe{\"code\":\0 0", 19);
            break;
        case Fault::Kind::kHuge:
            response.body = "{\"code\":0,\"message\":\"";
            response.tail = "\"}";
            response.padding = fault.size - response.body.size() - response.tail.size();
            break;
        case Fault::Kind::kCode:
            response.body = fault.errorCodeKeys ? asJson({{"ErrorCode", fault.code}, {"ErrorInfo", fault.message}})
                                                : codeBody(fault.code, fault.message);
            break;
        case Fault::Kind::kClose:
            response.delivery = HttpResponse::Delivery::kClose;
            break;
    }
    return response;
}

// Guards a local path against web sites. The Host check guards against DNS rebinding: over plain HTTP, a web site can
// make its own name resolve to loopback. (Over TLS it cannot, since its name is not in the certificate.) The Origin
// check guards against cross-site requests. The Sec-Fetch-Site check prevents pages of other sites from embedding
// this service's data.
bool isTrustedOrigin(const HttpRequest& request, bool isTls) {
    const size_t mark = request.host.find_last_of("]:");
    const bool hasPort = mark != std::string::npos && request.host[mark] == ':';
    const std::string host = hasPort ? request.host.substr(0, mark) : request.host;
    const bool isLoopbackName = host == "localhost" || host == "127.0.0.1" || host == "[::1]";
    const bool isSameOrigin = request.origin.empty() || request.origin == "http://" + request.host ||
                              request.origin == "https://" + request.host;
    const bool isEmbeddable = request.path == kState || request.path == kSnapshot;
    const bool isEmbedded = request.fetchSite == "cross-site" || request.fetchSite == "same-site";
    return isSameOrigin && (isLoopbackName || isTls) && !(isEmbeddable && isEmbedded);
}

LiveServiceOptions withDefaults(LiveServiceOptions options) {
    if (options.pushDomainSuffix.empty()) {
        const char* suffix = std::getenv("VEXALIVE_PUSH_DOMAIN");
        options.pushDomainSuffix = suffix && *suffix ? suffix : VEXALIVE_PUSH_DOMAIN;
    }
    if (options.stateFolder.empty()) {
        options.stateFolder = defaultStateFolder();
    }
    if (options.workerProgram.empty()) {
        const char* program = std::getenv("VEXALIVE_MEDIA_WORKER");
        options.workerProgram = program ? program : "";
    }
    if (options.media && !options.consolePort) {
        options.consolePort = 0;
    }
    return options;
}

}  // namespace

struct LiveService::Impl {
    explicit Impl(LiveServiceOptions given)
        : options(withDefaults(std::move(given))),
          console(localRoutes(), [this](const HttpRequest& request) { return handleLocal(request, false); }),
          server(routes(), [this](const HttpRequest& request) { return handle(request); }) {
        if (options.media) {
            media.emplace(options);
        }
    }
    ~Impl() { stop(); }

    Result<void> start();
    Result<void> startBackend();
    void stop();
    ServiceSnapshot snapshot() const;
    HttpResponse handle(const HttpRequest& request);
    HttpResponse handleLocal(const HttpRequest& request, bool isTls);
    HttpResponse handleSnapshot(const HttpRequest& request);
    std::string faultsJson() const;
    HttpResponse handleFaults(const HttpRequest& request);
    HttpResponse handleInterface(const std::string& interfaceName, const HttpRequest& request);
    HttpResponse process(const HttpRequest& request, LiveServiceEvent& event);
    Result<std::string, Refusal> apply(const AcceptedRequest& request);

    const LiveServiceOptions options;
    Certificates certificates;
    ServiceState state;
    FaultQueue faults;
    std::optional<WorkerPool> media;
    KstMutex applyMutex;  // held while one request changes both `state` and `media`
    HttpServer console;   // the two servers are the last members, since their threads use all members above
    HttpServer server;
};

Result<void> LiveService::Impl::start() {
    if (server.isRunning()) {
        return failure("the service is already running");
    }
    HttpServer::Options listening;
    listening.address = options.address;
    listening.port = options.port;
    if (options.tls) {
        if (options.stateFolder.empty()) {
            return failure("no folder for the certificates: neither XDG_STATE_HOME nor HOME is set");
        }
        const Result<Certificates> prepared =
            prepareCertificates(options.stateFolder, options.address, std::time(nullptr));
        if (!prepared) {
            return tl::unexpected(prepared.error());
        }
        certificates = *prepared;
        listening.pem = certificates.serverPem;
    }
    Result<void> started = startBackend();
    if (started) {
        started = server.start(listening);
    }
    if (!started) {
        stop();
    }
    return started;
}

// Starts the media and the console before the first request arrives.
Result<void> LiveService::Impl::startBackend() {
    HttpServer::Options listening;
    listening.address = "127.0.0.1";
    listening.port = options.consolePort.value_or(0);
    Result<void> started;
    if (media) {
        started = media->prepare();
    }
    if (started && options.consolePort) {
        started = console.start(listening);
    }
    if (started && media) {
        started = media->start(console.port(), state.running());
    }
    return started;
}

void LiveService::Impl::stop() {
    if (media) {
        media->endWaits();
    }
    server.stop();
    console.stop();
    if (media) {
        media->stop();
    }
}

ServiceSnapshot LiveService::Impl::snapshot() const {
    ServiceSnapshot snapshot = state.snapshot();
    if (media) {
        media->addTo(snapshot);
    }
    return snapshot;
}

HttpResponse LiveService::Impl::handle(const HttpRequest& request) {
    if (request.path.rfind(kInterfacePrefix, 0) == 0) {
        return handleInterface(request.path.substr(std::string(kInterfacePrefix).size()), request);
    }
    return handleLocal(request, options.tls);
}

HttpResponse LiveService::Impl::handleLocal(const HttpRequest& request, bool isTls) {
    if (!request.isFromLoopback) {
        return messageResponse(403, "this path is for clients on the service's own machine");
    }
    if (!isTrustedOrigin(request, isTls)) {
        return messageResponse(403,
                               "this path is not for pages of other web sites; its host is localhost or 127.0.0.1");
    }
    if (request.path == kState) {
        return okResponse(asIndentedJson(toJson(snapshot())));
    }
    if (request.path == kMetrics) {
        HttpResponse response = okResponse(metricsText(snapshot()));
        response.contentType = kMetricsType;
        return response;
    }
    if (request.path == kSnapshot) {
        return handleSnapshot(request);
    }
    if (request.path == kFaultsPath) {
        return handleFaults(request);
    }
    if (request.path == kPublish) {
        const bool isAllowed = media && media->allowsPublish(request.body);
        return isAllowed ? messageResponse(200, "ok") : messageResponse(403, "this may not be published");
    }
    return pageResponse(request.path);
}

HttpResponse LiveService::Impl::handleSnapshot(const HttpRequest& request) {
    const std::string key = "mix=";
    const bool hasMix = request.query.compare(0, key.size(), key) == 0;
    const std::string jpeg = media && hasMix ? media->snapshotJpeg(request.query.substr(key.size())) : "";
    HttpResponse response = messageResponse(404, "no snapshot: ?mix= takes the output stream id of a running mix");
    if (!jpeg.empty()) {
        response = okResponse(jpeg);
        response.contentType = "image/jpeg";
    }
    response.headers["Cache-Control"] = "no-store";
    return response;
}

HttpResponse LiveService::Impl::handleFaults(const HttpRequest& request) {
    if (request.method == "GET") {
        return okResponse(faultsJson());
    }
    if (request.method == "DELETE") {
        faults.clear();
        return messageResponse(200, "ok");
    }
    const Result<void> added =
        parseFaultJson(request.body).and_then([this](const Fault& fault) { return faults.add(fault); });
    return added ? messageResponse(200, "ok") : messageResponse(400, added.error().message);
}

std::string LiveService::Impl::faultsJson() const {
    ordered_json active = ordered_json::array();
    for (const Fault& fault : faults.active()) {
        active.push_back(toJson(fault));
    }
    return asIndentedJson({{"active", std::move(active)}, {"kinds", faultKindsJson()}});
}

HttpResponse LiveService::Impl::handleInterface(const std::string& interfaceName, const HttpRequest& request) {
    LiveServiceEvent event;
    event.interfaceName = interfaceName;
    const std::optional<Fault> fault = faults.take(interfaceName);
    HttpResponse response;
    if (fault && !server.pause(std::chrono::milliseconds(fault->delayMs))) {
        response.delivery = HttpResponse::Delivery::kClose;
    } else if (fault && fault->kind != Fault::Kind::kDelay) {
        response = faultResponse(*fault);
    } else {
        response = process(request, event);
    }
    event.httpStatus = response.delivery == HttpResponse::Delivery::kClose ? 0 : response.status;
    if (fault) {
        event.fault = nameOf(fault->kind);
        if (fault->kind == Fault::Kind::kCode) {
            event.code = fault->code;
            event.message = fault->message;
        }
    }
    RequestRecord record;
    record.interfaceName = interfaceName;
    record.query = maskQuery(request.query);
    record.body = request.body;
    record.httpStatus = event.httpStatus;
    record.response = response.body;
    record.refusedField = event.field;
    record.fault = event.fault;
    state.record(std::move(record));
    if (options.observer) {
        options.observer(event);
    }
    return response;
}

HttpResponse LiveService::Impl::process(const HttpRequest& request, LiveServiceEvent& event) {
    const auto refuseWith = [&event](const Refusal& refusal) {
        event.code = refusal.code;
        event.field = refusal.field;
        event.message = refusal.message;
        return okResponse(codeBody(refusal.code, refusal.message));
    };
    const auto checked = checkRequest(event.interfaceName, request.query, request.body, options.pushDomainSuffix);
    if (!checked) {
        return refuseWith(checked.error());
    }
    const auto applied = apply(*checked);
    if (!applied) {
        return refuseWith(applied.error());
    }
    event.operation = *applied;
    event.message = "ok";
    event.appId = checked->appId;
    event.streamId = checked->streamId;
    return okResponse(codeBody(0, event.message));
}

Result<std::string, Refusal> LiveService::Impl::apply(const AcceptedRequest& request) {
    if (!media) {
        return state.apply(request);
    }
    const bool isEnd =
        request.kind == AcceptedRequest::Kind::kRemoveRelay || request.kind == AcceptedRequest::Kind::kCancelMix;
    KstMutexLock lock(applyMutex);
    if (!isEnd) {
        if (const Result<void, Refusal> begun = media->begin(request); !begun) {
            return tl::unexpected(begun.error());
        }
    }
    Result<std::string, Refusal> applied = state.apply(request);
    if (isEnd && applied) {
        media->end(request);
    }
    return applied;
}

// ---- Public interface -----------------------------------------------------------------------------------------------

LiveService::LiveService(LiveServiceOptions options) : mImpl(std::make_unique<Impl>(std::move(options))) {}

LiveService::~LiveService() = default;

Result<void> LiveService::start() {
    return mImpl->start();
}

void LiveService::stop() {
    mImpl->stop();
}

uint16_t LiveService::port() const {
    return mImpl->server.port();
}

std::string LiveService::address() const {
    const std::string& host = mImpl->options.address;
    const bool isIpv6 = host.find(':') != std::string::npos;
    return (isIpv6 ? "[" + host + "]" : host) + ":" + std::to_string(port());
}

std::string LiveService::consoleAddress() const {
    return mImpl->options.consolePort ? "127.0.0.1:" + std::to_string(mImpl->console.port()) : "";
}

std::string LiveService::originAddress() const {
    return mImpl->media ? mImpl->media->address().url : "";
}

const std::string& LiveService::caFile() const {
    return mImpl->certificates.caFile;
}

std::string LiveService::stateJson() const {
    return asIndentedJson(toJson(mImpl->snapshot()));
}

Result<void> LiveService::inject(const Fault& fault) {
    return mImpl->faults.add(fault);
}

std::string LiveService::faultsJson() const {
    return mImpl->faultsJson();
}

void LiveService::clearFaults() {
    mImpl->faults.clear();
}

}  // namespace vexalive
