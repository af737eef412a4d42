#include "service/LiveService.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <utility>
#include <variant>

#include "base/Mutex.h"
#include "service/Certificates.h"
#include "service/Console.h"
#include "service/Faults.h"
#include "service/HttpServer.h"
#include "service/Media.h"
#include "service/Metrics.h"
#include "service/RequestCheck.h"
#include "service/ServiceState.h"

namespace vexalive {

using nlohmann::ordered_json;

namespace {

constexpr const char* kFolder = "/v3/liveinterface/";
constexpr const char* kState = "/state";
constexpr const char* kMetrics = "/metrics";
constexpr const char* kSnapshot = "/snapshot";
constexpr const char* kFaultsPath = "/faults";
constexpr const char* kPublish = "/origin/publish";

// What is for this machine only.
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
        result[std::string(kFolder) + name] = {"POST"};
    }
    return result;
}

std::string asJson(const ordered_json& value) {
    return value.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

// For people, too.
std::string asText(const ordered_json& value) {
    return value.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

// A message of the service's own; those of the three interfaces carry a code, too.
HttpAnswer plainAnswer(int status, const std::string& message) {
    HttpAnswer answer;
    answer.status = status;
    answer.body = asJson({{"message", message}});
    return answer;
}

HttpAnswer okAnswer(const std::string& body) {
    HttpAnswer answer;
    answer.body = body;
    return answer;
}

HttpAnswer answerPage(const std::string& path) {
    const std::optional<ConsoleFile> file = consoleFile(path);
    if (!file) {
        return plainAnswer(404, "there is nothing at this path");
    }
    HttpAnswer answer = okAnswer(std::string(file->content));
    answer.contentType = file->contentType;
    answer.headers["Content-Security-Policy"] = "default-src 'self'; frame-ancestors 'none'";
    return answer;
}

std::string codeBody(int code, const std::string& message) {
    return asJson({{"code", code}, {"message", message}});
}

bool isRedirect(int status) {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

HttpAnswer faultAnswer(const Fault& fault) {
    HttpAnswer answer;
    switch (fault.kind) {
        case Fault::Kind::kDelay:
        case Fault::Kind::kEmpty:
            break;
        case Fault::Kind::kStatus:
            answer.status = fault.status;
            if (isRedirect(fault.status)) {
                answer.headers["Location"] = "/redirected";
            }
            break;
        case Fault::Kind::kCut:
            answer.body = codeBody(0, "half of this is never sent");
            answer.ending = HttpAnswer::Ending::kCut;
            break;
        case Fault::Kind::kGarbage:
            answer.body = std::string("<html>\xff\xfe{\"code\":\0 0", 19);
            break;
        case Fault::Kind::kHuge:
            answer.body = "{\"code\":0,\"message\":\"";
            answer.tail = "\"}";
            answer.padding = fault.size - answer.body.size() - answer.tail.size();
            break;
        case Fault::Kind::kServerCode:
            answer.body = fault.errorCodeKeys ? asJson({{"ErrorCode", fault.code}, {"ErrorInfo", fault.message}})
                                              : codeBody(fault.code, fault.message);
            break;
        case Fault::Kind::kClose:
            answer.ending = HttpAnswer::Ending::kNone;
            break;
    }
    return answer;
}

// Whether a browser can only have come here by the address that a person gave it: a web site elsewhere can have its own
// name lead here, unless TLS finds out, have a browser send something on, or show what it gets from here as its own.
bool isOfOwnPage(const HttpRequest& request, bool isTls) {
    const size_t mark = request.host.find_last_of("]:");
    const bool hasPort = mark != std::string::npos && request.host[mark] == ':';
    const std::string host = hasPort ? request.host.substr(0, mark) : request.host;
    const bool isHere = host == "localhost" || host == "127.0.0.1" || host == "[::1]";
    const bool isOwn = request.origin.empty() || request.origin == "http://" + request.host ||
                       request.origin == "https://" + request.host;
    const bool isEmbeddable = request.path == kState || request.path == kSnapshot;
    const bool isEmbedded = request.fetchSite == "cross-site" || request.fetchSite == "same-site";
    return isOwn && (isHere || isTls) && !(isEmbeddable && isEmbedded);
}

LiveServiceOptions completed(LiveServiceOptions options) {
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
        : options(completed(std::move(given))),
          console(localRoutes(), [this](const HttpRequest& request) { return answerLocal(request, false); }),
          server(routes(), [this](const HttpRequest& request) { return answer(request); }) {
        if (options.media) {
            media.emplace(options);
        }
    }
    ~Impl() { stop(); }

    bool start();
    bool startBehind();
    void stop();
    ordered_json stateFields() const;
    HttpAnswer answer(const HttpRequest& request);
    HttpAnswer answerLocal(const HttpRequest& request, bool isTls);
    HttpAnswer answerSnapshot(const HttpRequest& request);
    HttpAnswer answerFaults(const HttpRequest& request);
    HttpAnswer answerInterface(const std::string& interfaceName, const HttpRequest& request);
    HttpAnswer answerTruly(const HttpRequest& request, LiveServiceEvent& event);
    std::variant<std::string, Refusal> apply(const AcceptedRequest& request);

    const LiveServiceOptions options;
    std::string error;
    Certificates certificates;
    ServiceState state;
    Faults faults;
    std::optional<Media> media;
    KstMutex applying;   // with media, the state and the media agree
    HttpServer console;  // these are the last: their threads use all of the above
    HttpServer server;
};

bool LiveService::Impl::start() {
    error.clear();
    if (server.isRunning()) {
        error = "the service is already running";
        return false;
    }
    HttpServer::Options listening;
    listening.address = options.address;
    listening.port = options.port;
    if (options.tls) {
        if (options.stateFolder.empty()) {
            error = "no folder for the certificates: neither XDG_STATE_HOME nor HOME is set";
            return false;
        }
        if (!prepareCertificates(options.stateFolder, options.address, std::time(nullptr), certificates, error)) {
            return false;
        }
        listening.pem = certificates.serverPem;
    }
    if (!startBehind() || !server.start(listening, error)) {
        stop();
        return false;
    }
    return true;
}

// All that has to be there before requests come.
bool LiveService::Impl::startBehind() {
    HttpServer::Options listening;
    listening.address = "127.0.0.1";
    listening.port = options.consolePort.value_or(0);
    return (!media || media->prepare(error)) && (!options.consolePort || console.start(listening, error)) &&
           (!media || media->start(console.port(), state.running(), error));
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

ordered_json LiveService::Impl::stateFields() const {
    ordered_json fields = {{"service", {{"media", false}, {"origin", nullptr}}}};
    fields.update(state.toFields());
    for (const char* list : {"relays", "mixes"}) {
        for (ordered_json& each : fields[list]) {
            each["media"] = nullptr;
        }
    }
    if (media) {
        media->addTo(fields);
    }
    return fields;
}

HttpAnswer LiveService::Impl::answer(const HttpRequest& request) {
    if (request.path.rfind(kFolder, 0) == 0) {
        return answerInterface(request.path.substr(std::string(kFolder).size()), request);
    }
    return answerLocal(request, options.tls);
}

HttpAnswer LiveService::Impl::answerLocal(const HttpRequest& request, bool isTls) {
    if (!request.isFromLoopback) {
        return plainAnswer(403, "this path is for clients on the service's own machine");
    }
    if (!isOfOwnPage(request, isTls)) {
        return plainAnswer(403, "this path is not for pages of other web sites; its host is localhost or 127.0.0.1");
    }
    if (request.path == kState) {
        return okAnswer(asText(stateFields()));
    }
    if (request.path == kMetrics) {
        HttpAnswer answer = okAnswer(metricsOf(stateFields()));
        answer.contentType = kMetricsType;
        return answer;
    }
    if (request.path == kSnapshot) {
        return answerSnapshot(request);
    }
    if (request.path == kFaultsPath) {
        return answerFaults(request);
    }
    if (request.path == kPublish) {
        const bool isAdmitted = media && media->admit(request.body);
        return isAdmitted ? plainAnswer(200, "ok") : plainAnswer(403, "this may not be published");
    }
    return answerPage(request.path);
}

HttpAnswer LiveService::Impl::answerSnapshot(const HttpRequest& request) {
    const std::string key = "mix=";
    const bool isAsked = request.query.compare(0, key.size(), key) == 0;
    const std::string picture = media && isAsked ? media->picture(request.query.substr(key.size())) : "";
    HttpAnswer answer = plainAnswer(404, "there is no picture: ?mix= takes the output stream id of a mix that runs");
    if (!picture.empty()) {
        answer = okAnswer(picture);
        answer.contentType = "image/jpeg";
    }
    answer.headers["Cache-Control"] = "no-store";
    return answer;
}

HttpAnswer LiveService::Impl::answerFaults(const HttpRequest& request) {
    if (request.method == "GET") {
        return okAnswer(faults.toJson());
    }
    if (request.method == "DELETE") {
        faults.clear();
        return plainAnswer(200, "ok");
    }
    const std::string refused = faults.addJson(request.body);
    return refused.empty() ? plainAnswer(200, "ok") : plainAnswer(400, refused);
}

HttpAnswer LiveService::Impl::answerInterface(const std::string& interfaceName, const HttpRequest& request) {
    LiveServiceEvent event;
    event.interfaceName = interfaceName;
    const std::optional<Fault> fault = faults.take(interfaceName);
    HttpAnswer answer;
    if (fault && !server.pause(std::chrono::milliseconds(fault->delayMs))) {
        answer.ending = HttpAnswer::Ending::kNone;
    } else if (fault && fault->kind != Fault::Kind::kDelay) {
        answer = faultAnswer(*fault);
    } else {
        answer = answerTruly(request, event);
    }
    event.httpStatus = answer.ending == HttpAnswer::Ending::kNone ? 0 : answer.status;
    if (fault) {
        event.fault = nameOf(fault->kind);
        if (fault->kind == Fault::Kind::kServerCode) {
            event.code = fault->code;
            event.message = fault->message;
        }
    }
    state.remember({interfaceName, maskQuery(request.query), request.body, event.httpStatus, answer.body, event.field,
                    event.fault});
    if (options.observer) {
        options.observer(event);
    }
    return answer;
}

HttpAnswer LiveService::Impl::answerTruly(const HttpRequest& request, LiveServiceEvent& event) {
    const auto refuseWith = [&event](const Refusal& refusal) {
        event.code = refusal.code;
        event.field = refusal.field;
        event.message = refusal.message;
        return okAnswer(codeBody(refusal.code, refusal.message));
    };
    const auto checked = checkRequest(event.interfaceName, request.query, request.body, options.pushDomainSuffix);
    if (const Refusal* refusal = std::get_if<Refusal>(&checked)) {
        return refuseWith(*refusal);
    }
    const AcceptedRequest& accepted = std::get<AcceptedRequest>(checked);
    const auto applied = apply(accepted);
    if (const Refusal* refusal = std::get_if<Refusal>(&applied)) {
        return refuseWith(*refusal);
    }
    event.operation = std::get<std::string>(applied);
    event.message = "ok";
    event.appId = accepted.appId;
    event.streamId = accepted.streamId;
    return okAnswer(codeBody(0, event.message));
}

std::variant<std::string, Refusal> LiveService::Impl::apply(const AcceptedRequest& request) {
    if (!media) {
        return state.apply(request);
    }
    const bool isEnd =
        request.kind == AcceptedRequest::Kind::kRemoveRelay || request.kind == AcceptedRequest::Kind::kCancelMix;
    KstMutexLock lock(applying);
    if (!isEnd) {
        if (const std::optional<Refusal> refusal = media->begin(request)) {
            return *refusal;
        }
    }
    auto applied = state.apply(request);
    if (isEnd && std::holds_alternative<std::string>(applied)) {
        media->end(request);
    }
    return applied;
}

// ---- The public face ------------------------------------------------------------------------------------------------

LiveService::LiveService(LiveServiceOptions options) : mImpl(std::make_unique<Impl>(std::move(options))) {}

LiveService::~LiveService() = default;

bool LiveService::start() {
    return mImpl->start();
}

const std::string& LiveService::error() const {
    return mImpl->error;
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
    return asText(mImpl->stateFields());
}

std::string LiveService::inject(const Fault& fault) {
    return mImpl->faults.add(fault);
}

std::string LiveService::faultsJson() const {
    return mImpl->faults.toJson();
}

void LiveService::clearFaults() {
    mImpl->faults.clear();
}

}  // namespace vexalive
