// Codes into words: what came back of an exchange, and what the listener was told.

#ifndef VEXALIVE_TOOLS_SERVICE_RESPONSE_H
#define VEXALIVE_TOOLS_SERVICE_RESPONSE_H

#include <optional>
#include <string>
#include <vector>

#include "tools/ExitStatus.h"

namespace vexalive {

// One HTTPS exchange's end, as in base/CVexaHttpSendRecv.h, and what the answer's body says.
struct ServiceAnswer {
    int retCode = 0;
    std::optional<int> httpStatus;  // where it is not a success
    bool isEmpty = false;           // the body
    bool isReadable = false;        // the body is JSON, and not null
    std::optional<int> code;        // the service's "code" or "ErrorCode"
    std::string message;            // its "message" or "ErrorInfo"
    std::string transportError;     // the client's text where nothing came back at all

    // A whole answer that says neither yes nor no: the task ends with a report, but the listener hears nothing.
    bool isVerdictMissing() const { return retCode == 0 && isReadable && !code; }
    bool isRefusal() const { return retCode == 0 && code && *code != 0; }
};

// `httpStatus`: 0 if no answer came.
ServiceAnswer readAnswer(int retCode, const std::string& body, int httpStatus = 0);

// "accepted (code 0: \"ok\")", "the service was not reached, …".
std::string describe(const ServiceAnswer& answer);

// What the return code alone means.
std::string describeReturnCode(int retCode);

// The listener codes of relay tasks, or of mix tasks.
struct ListenerCodes {
    int transportError;
    int unreadableError;
    int serverErrorBase;  // less the service's code, without its sign
};
constexpr ListenerCodes kRelayListenerCodes = {-3321, -3323, -200000};
constexpr ListenerCodes kMixListenerCodes = {-3322, -3324, -300000};

struct ListenerTold {
    int code;
    std::string message;
};

std::string describe(const ListenerCodes& codes, const ListenerTold& told);

// The service's own code, without its sign, where it refused.
std::optional<int> serviceCode(const ListenerCodes& codes, int listenerCode);

// What all that the listener was told about a task comes to. Told nothing means that no usable answer came.
ExitStatus conclude(const ListenerCodes& codes, const std::vector<ListenerTold>& told);

}  // namespace vexalive

#endif
