#include "tools/ServiceResponse.h"

#include "base/CVexaHttpSendRecv.h"
#include "base/Json.h"

namespace vexalive {
namespace {

constexpr int kMinHttpStatus = 100;

// Errors of libcurl that the user can fix. The HTTPS client adds kTransportErrorBase to libcurl's result.
constexpr int kMalformedAddress = CVexaHttpSendRecv::kTransportErrorBase + 3;
constexpr int kUntrustedCertificate = CVexaHttpSendRecv::kTransportErrorBase + 60;
constexpr int kUnusableCaFile = CVexaHttpSendRecv::kTransportErrorBase + 77;

struct ReturnCode {
    int retCode;
    const char* meaning;
};

constexpr ReturnCode kReturnCodes[] = {
    {CVexaHttpSendRecv::kRetryable,
     "no response: the service was not reached, timed out, or closed the connection too early"},
    {301, "HTTP status 301: moved; redirects are not followed"},
    {302, "HTTP status 302: moved; redirects are not followed"},
    {307, "HTTP status 307: moved; redirects are not followed"},
    {308, "HTTP status 308: moved; redirects are not followed"},
    {400, "HTTP status 400: bad request"},
    {401, "HTTP status 401: not authorised"},
    {403, "HTTP status 403: forbidden"},
    {404, "HTTP status 404: not found; check that VEXALIVE_SERVICE_HOST names a live-interface service"},
    {kMalformedAddress,
     "the address is malformed, so nothing was sent; check the signature and the map key for spaces, and that "
     "VEXALIVE_SERVICE_HOST is host or host:port"},
    {kUntrustedCertificate,
     "the service's certificate is not trusted; name its certificate authority with VEXALIVE_CA_FILE or --ca-file"},
    {kUnusableCaFile, "the file of certificate authorities cannot be used; check VEXALIVE_CA_FILE or --ca-file"},
};

std::string describeReturnCode(int retCode) {
    for (const ReturnCode& known : kReturnCodes) {
        if (known.retCode == retCode) {
            return known.meaning;
        }
    }
    return retCode >= CVexaHttpSendRecv::kTransportErrorBase ? "no response, and a retry would not help"
                                                             : "HTTP status " + std::to_string(retCode);
}

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

std::string describeBody(const ServiceResponse& response) {
    if (response.code) {
        const std::string code = "code " + std::to_string(*response.code) +
                                 (response.message.empty() ? "" : ": " + quoted(response.message));
        return (*response.code == 0 ? "accepted (" : "refused (") + code + ")";
    }
    if (response.isReadable) {
        return "the response has no code";
    }
    return response.isEmpty ? "the response is empty" : "the response is not JSON";
}

}  // namespace

ServiceResponse parseResponse(int retCode, const std::string& body, int httpStatus) {
    ServiceResponse response;
    response.retCode = retCode;
    if (retCode >= kMinHttpStatus && retCode < CVexaHttpSendRecv::kTransportErrorBase) {
        response.httpStatus = retCode;
    } else if (retCode == CVexaHttpSendRecv::kRetryable && httpStatus != 0) {
        response.httpStatus = httpStatus;
    }
    response.isEmpty = body.empty();
    const json::Value value = response.isEmpty ? json::Value() : json::Deserialize(body);
    response.isReadable = !value.isNull();
    if (const auto result = requests::readServiceResult(value)) {
        response.code = result->code;
        response.message = result->message;
    }
    if (retCode >= CVexaHttpSendRecv::kTransportErrorBase) {
        response.transportError = value["transportError"].ToString();
    }
    return response;
}

std::string describe(const ServiceResponse& response) {
    if (response.retCode == CVexaHttpSendRecv::kSuccess) {
        return describeBody(response);
    }
    const bool isTemporary = response.retCode == CVexaHttpSendRecv::kRetryable && response.httpStatus;
    std::string text = isTemporary ? "HTTP status " + std::to_string(*response.httpStatus) + ": temporary failure"
                                   : describeReturnCode(response.retCode);
    text += " (return code " + std::to_string(response.retCode);
    if (!response.transportError.empty()) {
        text += ": " + response.transportError;
    }
    text += ")";
    return response.code ? text + "; " + describeBody(response) : text;
}

std::optional<int> serviceCode(const requests::ListenerCodes& codes, int listenerCode) {
    return listenerCode < codes.serverErrorBase ? std::optional(codes.serverErrorBase - listenerCode) : std::nullopt;
}

std::string describe(const requests::ListenerCodes& codes, const requests::Notification& notification) {
    std::string meaning;
    if (notification.code == 0) {
        meaning = "success";
    } else if (notification.code == codes.transportError) {
        meaning = "transport error: no usable response";
    } else if (notification.code == codes.unreadableError) {
        meaning = "the response was empty or unreadable, or the adapter refused the call";
    } else if (const std::optional<int> code = serviceCode(codes, notification.code)) {
        meaning = "the service refused with code " + std::to_string(*code);
    } else {
        meaning = "unknown";
    }
    return "listener code " + std::to_string(notification.code) + " (" + meaning + "), message " +
           quoted(notification.message);
}

ExitStatus exitStatusOf(const requests::ListenerCodes& codes,
                        const std::vector<requests::Notification>& notifications) {
    if (notifications.empty()) {
        return kNoResponse;
    }
    const int last = notifications.back().code;
    if (last == 0) {
        return kSucceeded;
    }
    return serviceCode(codes, last) ? kRefused : kNoResponse;
}

}  // namespace vexalive
