#include "tools/ServiceResponse.h"

#include "base/CVexaHttpSendRecv.h"
#include "base/Json.h"

namespace vexalive {
namespace {

constexpr int kLowestStatus = 100;

// Results of libcurl that a user can do something about; base/CVexaHttpSendRecv.h has them from kTransportErrorBase on.
constexpr int kMalformedAddress = CVexaHttpSendRecv::kTransportErrorBase + 3;
constexpr int kCertificateRefused = CVexaHttpSendRecv::kTransportErrorBase + 60;
constexpr int kBadCaFile = CVexaHttpSendRecv::kTransportErrorBase + 77;

struct Meaning {
    int retCode;
    const char* text;
};

constexpr Meaning kMeanings[] = {
    {CVexaHttpSendRecv::kSuccess, "answered"},
    {CVexaHttpSendRecv::kRetryable,
     "no answer: the service was not reached, took too long, or the connection broke off"},
    {301, "HTTP status 301: moved elsewhere, which is not followed"},
    {302, "HTTP status 302: redirected, which is not followed"},
    {307, "HTTP status 307: redirected, which is not followed"},
    {308, "HTTP status 308: moved elsewhere, which is not followed"},
    {400, "HTTP status 400: bad request"},
    {401, "HTTP status 401: not authorised"},
    {403, "HTTP status 403: forbidden"},
    {404, "HTTP status 404: not found; is VEXALIVE_SERVICE_HOST a live-interface service?"},
    {kMalformedAddress,
     "no request was made, since its address is malformed: does the signature or the map key hold a blank, or "
     "VEXALIVE_SERVICE_HOST more than host:port?"},
    {kCertificateRefused,
     "the service's certificate is not trusted: does VEXALIVE_CA_FILE (or --ca-file) name its authority?"},
    {kBadCaFile, "the file of certificate authorities could not be used: see VEXALIVE_CA_FILE (or --ca-file)"},
};

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

std::string describeBody(const ServiceAnswer& answer) {
    if (answer.code) {
        const std::string code = "code " + std::to_string(*answer.code);
        const std::string text = answer.message.empty() ? code : code + ": " + quoted(answer.message);
        return *answer.code == 0 ? "accepted (" + text + ")" : "refused (" + text + ")";
    }
    if (answer.isReadable) {
        return "the answer holds no code";
    }
    return answer.isEmpty ? "the answer is empty" : "the answer cannot be read: it is not JSON";
}

}  // namespace

ServiceAnswer readAnswer(int retCode, const std::string& body, int httpStatus) {
    ServiceAnswer answer;
    answer.retCode = retCode;
    if (retCode >= kLowestStatus && retCode < CVexaHttpSendRecv::kTransportErrorBase) {
        answer.httpStatus = retCode;
    } else if (retCode == CVexaHttpSendRecv::kRetryable && httpStatus != 0) {
        answer.httpStatus = httpStatus;
    }
    answer.isEmpty = body.empty();
    const json::Value value = answer.isEmpty ? json::Value() : json::Deserialize(body);
    answer.isReadable = !value.isNull();
    if (value.HasKey("code")) {
        answer.code = value["code"].ToInt();
        answer.message = value["message"].ToString();
    } else if (value.HasKey("ErrorCode")) {
        answer.code = value["ErrorCode"].ToInt();
        answer.message = value["ErrorInfo"].ToString();
    }
    if (retCode >= CVexaHttpSendRecv::kTransportErrorBase) {
        answer.transportError = value["transportError"].ToString();
    }
    return answer;
}

std::string describeReturnCode(int retCode) {
    for (const Meaning& meaning : kMeanings) {
        if (meaning.retCode == retCode) {
            return meaning.text;
        }
    }
    if (retCode >= CVexaHttpSendRecv::kTransportErrorBase) {
        return "no answer, and another try would not help";
    }
    return retCode >= kLowestStatus ? "HTTP status " + std::to_string(retCode) : "unknown";
}

std::string describe(const ServiceAnswer& answer) {
    if (answer.retCode == CVexaHttpSendRecv::kSuccess) {
        return describeBody(answer);
    }
    const bool isBusy = answer.retCode == CVexaHttpSendRecv::kRetryable && answer.httpStatus;
    std::string text = isBusy ? "HTTP status " + std::to_string(*answer.httpStatus) + ": not now, try again"
                              : describeReturnCode(answer.retCode);
    text += " (return code " + std::to_string(answer.retCode);
    if (!answer.transportError.empty()) {
        text += ": " + answer.transportError;
    }
    text += ")";
    return answer.code ? text + "; " + describeBody(answer) : text;
}

std::optional<int> serviceCode(const ListenerCodes& codes, int listenerCode) {
    return listenerCode < codes.serverErrorBase ? std::optional(codes.serverErrorBase - listenerCode) : std::nullopt;
}

std::string describe(const ListenerCodes& codes, const ListenerTold& told) {
    std::string meaning;
    if (told.code == 0) {
        meaning = "success";
    } else if (told.code == codes.transportError) {
        meaning = "transport error, no usable answer came";
    } else if (told.code == codes.unreadableError) {
        meaning = "the answer was empty or unreadable, or the call was refused";
    } else if (const std::optional<int> code = serviceCode(codes, told.code)) {
        meaning = "the service refused with its code " + std::to_string(*code);
    } else {
        meaning = "unknown";
    }
    return "listener code " + std::to_string(told.code) + " (" + meaning + "), message " + quoted(told.message);
}

ExitStatus conclude(const ListenerCodes& codes, const std::vector<ListenerTold>& told) {
    if (told.empty()) {
        return kNoAnswer;
    }
    const int last = told.back().code;
    if (last == 0) {
        return kSucceeded;
    }
    return serviceCode(codes, last) ? kRefused : kNoAnswer;
}

}  // namespace vexalive
