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
    int retCode = 0;                // as in base/CVexaHttpSendRecv.h
    std::optional<int> httpStatus;  // unless it is a success
    bool isEmpty = false;           // the body
    bool isReadable = false;        // the body is JSON, and not null
    std::optional<int> code;        // the service's "code" or "ErrorCode"
    std::string message;            // its "message" or "ErrorInfo"
    std::string transportError;     // the HTTPS client's message if there was no response

    // A complete response without a code ends the task with a report, but does not notify the listener.
    bool isCodeMissing() const { return retCode == 0 && isReadable && !code; }
    bool isRefusal() const { return retCode == 0 && code && *code != 0; }
};

// `httpStatus`: 0 if there was no response.
ServiceResponse parseResponse(int retCode, const std::string& body, int httpStatus = 0);

// "accepted (code 0: \"ok\")", "HTTP status 404: …".
std::string describe(const ServiceResponse& response);

// Describes a listener code.
std::string describe(const requests::ListenerCodes& codes, const requests::Notification& notification);

// The absolute value of the service's code; std::nullopt if the listener code is not that of a refusal by the service.
std::optional<int> serviceCode(const requests::ListenerCodes& codes, int listenerCode);

// The last notification determines the exit status. No notification: there was no usable response.
ExitStatus exitStatusOf(const requests::ListenerCodes& codes, const std::vector<requests::Notification>& notifications);

}  // namespace vexalive

#endif
