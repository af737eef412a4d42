// Describes a response of the service and the notifications of the listener, and maps them to an exit status.

#ifndef VEXALIVE_TOOLS_SERVICE_RESPONSE_H
#define VEXALIVE_TOOLS_SERVICE_RESPONSE_H

#include <optional>
#include <string>
#include <vector>

#include "Com/LiveRequests.h"
#include "tools/ExitStatus.h"

namespace vexalive {

// The result of one HTTPS exchange.
struct ServiceResponse {
    int retCode = 0;                // return code of the HTTPS client (base/CVexaHttpSendRecv.h)
    std::optional<int> httpStatus;  // set if the HTTP status is an error
    bool isEmpty = false;           // the body is empty
    bool isReadable = false;        // the body is JSON, and not null
    std::optional<int> code;        // "code" or "ErrorCode" in the body
    std::string message;            // "message" or "ErrorInfo" in the body
    std::string transportError;     // the HTTPS client's message if there was no response

    // The adapter reports a response without a code, but does not notify the listener (intended, prescribed by the
    // interface).
    bool isCodeMissing() const { return retCode == 0 && isReadable && !code; }
    bool isRefusal() const { return retCode == 0 && code && *code != 0; }
};

// `httpStatus` is 0 if there was no response.
ServiceResponse parseResponse(int retCode, const std::string& body, int httpStatus = 0);

// Describes a response: "accepted (code 0: \"ok\")", "HTTP status 404: …".
std::string describe(const ServiceResponse& response);

// Describes a listener code.
std::string describe(const requests::ListenerCodes& codes, const requests::Notification& notification);

// Returns the absolute value of the service's code, or std::nullopt if the listener code does not say that the service
// refused the request.
std::optional<int> serviceCode(const requests::ListenerCodes& codes, int listenerCode);

// The last notification determines the exit status. No notification means that there was no usable response.
ExitStatus exitStatusOf(const requests::ListenerCodes& codes, const std::vector<requests::Notification>& notifications);

}  // namespace vexalive

#endif
