#include "service/LiveService.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <utility>
#include <variant>

#include "service/Certificates.h"
#include "service/HttpServer.h"
#include "service/Misbehaviours.h"
#include "service/RequestCheck.h"
#include "service/ServiceState.h"

namespace vexalive {

using nlohmann::ordered_json;

namespace {

constexpr const char* kFolder = "/v3/liveinterface/";
constexpr const char* kState = "/state";
constexpr const char* kMisbehave = "/misbehave";

HttpServer::Routes routes() {
    HttpServer::Routes result = {{kState, {"GET"}}, {kMisbehave, {"GET", "POST", "DELETE"}}};
    for (const char* name : {kAddRelayInterface, kRemoveRelayInterface, kSetMixInterface}) {
        result[std::string(kFolder) + name] = {"POST"};
    }
    return result;
}

std::string asJson(const ordered_json& value) {
    return value.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
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

std::string codeBody(int code, const std::string& message) {
    return asJson({{"code", code}, {"message", message}});
}

bool isRedirect(int status) {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

HttpAnswer misbehavedAnswer(const Misbehaviour& misbehaviour) {
    HttpAnswer answer;
    switch (misbehaviour.kind) {
        case Misbehaviour::Kind::kDelay:
        case Misbehaviour::Kind::kEmpty:
            break;
        case Misbehaviour::Kind::kStatus:
            answer.status = misbehaviour.status;
            answer.location = isRedirect(misbehaviour.status) ? "/redirected" : "";
            break;
        case Misbehaviour::Kind::kCut:
            answer.body = codeBody(0, "half of this is never sent");
            answer.ending = HttpAnswer::Ending::kCut;
            break;
        case Misbehaviour::Kind::kGarbage:
            answer.body = std::string("<html>\xff\xfe{\"code\":\0 0", 19);
            break;
        case Misbehaviour::Kind::kHuge:
            answer.body = "{\"code\":0,\"message\":\"";
            answer.tail = "\"}";
            answer.padding = misbehaviour.size - answer.body.size() - answer.tail.size();
            break;
        case Misbehaviour::Kind::kServerCode:
            answer.body = misbehaviour.errorCodeKeys
                              ? asJson({{"ErrorCode", misbehaviour.code}, {"ErrorInfo", misbehaviour.message}})
                              : codeBody(misbehaviour.code, misbehaviour.message);
            break;
        case Misbehaviour::Kind::kClose:
            answer.ending = HttpAnswer::Ending::kNone;
            break;
    }
    return answer;
}

LiveServiceOptions completed(LiveServiceOptions options) {
    if (options.pushDomainSuffix.empty()) {
        const char* suffix = std::getenv("VEXALIVE_PUSH_DOMAIN");
        options.pushDomainSuffix = suffix && *suffix ? suffix : VEXALIVE_PUSH_DOMAIN;
    }
    if (options.stateFolder.empty()) {
        options.stateFolder = defaultStateFolder();
    }
    return options;
}

}  // namespace

struct LiveService::Impl {
    explicit Impl(LiveServiceOptions given)
        : options(completed(std::move(given))),
          server(routes(), [this](const HttpRequest& request) { return answer(request); }) {}

    bool start();
    HttpAnswer answer(const HttpRequest& request);
    HttpAnswer answerMisbehave(const HttpRequest& request);
    HttpAnswer answerInterface(const std::string& interfaceName, const HttpRequest& request);
    HttpAnswer answerTruly(const HttpRequest& request, LiveServiceEvent& event);

    const LiveServiceOptions options;
    std::string error;
    Certificates certificates;
    ServiceState state;
    Misbehaviours misbehaviours;
    HttpServer server;  // the last: its threads use all of the above
};

bool LiveService::Impl::start() {
    error.clear();
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
    return server.start(listening, error);
}

HttpAnswer LiveService::Impl::answer(const HttpRequest& request) {
    if (request.path.rfind(kFolder, 0) == 0) {
        return answerInterface(request.path.substr(std::string(kFolder).size()), request);
    }
    if (!request.isFromLoopback) {
        return plainAnswer(403, "this path is for clients on the service's own machine");
    }
    return request.path == kState ? okAnswer(state.toJson()) : answerMisbehave(request);
}

HttpAnswer LiveService::Impl::answerMisbehave(const HttpRequest& request) {
    if (request.method == "GET") {
        return okAnswer(misbehaviours.toJson());
    }
    if (request.method == "DELETE") {
        misbehaviours.clear();
        return plainAnswer(200, "ok");
    }
    const std::string refused = misbehaviours.addJson(request.body);
    return refused.empty() ? plainAnswer(200, "ok") : plainAnswer(400, refused);
}

HttpAnswer LiveService::Impl::answerInterface(const std::string& interfaceName, const HttpRequest& request) {
    LiveServiceEvent event;
    event.interfaceName = interfaceName;
    const std::optional<Misbehaviour> misbehaviour = misbehaviours.take(interfaceName);
    HttpAnswer answer;
    if (misbehaviour && !server.pause(std::chrono::milliseconds(misbehaviour->delayMs))) {
        answer.ending = HttpAnswer::Ending::kNone;
    } else if (misbehaviour && misbehaviour->kind != Misbehaviour::Kind::kDelay) {
        answer = misbehavedAnswer(*misbehaviour);
    } else {
        answer = answerTruly(request, event);
    }
    event.httpStatus = answer.ending == HttpAnswer::Ending::kNone ? 0 : answer.status;
    if (misbehaviour) {
        event.misbehaviour = nameOf(misbehaviour->kind);
        if (misbehaviour->kind == Misbehaviour::Kind::kServerCode) {
            event.code = misbehaviour->code;
            event.message = misbehaviour->message;
        }
    }
    state.remember({interfaceName, maskQuery(request.query), request.body, event.httpStatus, answer.body, event.field,
                    event.misbehaviour});
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
    const auto applied = state.apply(accepted);
    if (const Refusal* refusal = std::get_if<Refusal>(&applied)) {
        return refuseWith(*refusal);
    }
    event.operation = std::get<std::string>(applied);
    event.message = "ok";
    event.appId = accepted.appId;
    event.streamId = accepted.streamId;
    return okAnswer(codeBody(0, event.message));
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
    mImpl->server.stop();
}

uint16_t LiveService::port() const {
    return mImpl->server.port();
}

std::string LiveService::address() const {
    const std::string& host = mImpl->options.address;
    const bool isIpv6 = host.find(':') != std::string::npos;
    return (isIpv6 ? "[" + host + "]" : host) + ":" + std::to_string(port());
}

const std::string& LiveService::caFile() const {
    return mImpl->certificates.caFile;
}

std::string LiveService::stateJson() const {
    return mImpl->state.toJson();
}

std::string LiveService::misbehave(const Misbehaviour& misbehaviour) {
    return mImpl->misbehaviours.add(misbehaviour);
}

std::string LiveService::misbehavioursJson() const {
    return mImpl->misbehaviours.toJson();
}

void LiveService::clearMisbehaviours() {
    mImpl->misbehaviours.clear();
}

}  // namespace vexalive
