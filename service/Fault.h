#ifndef VEXALIVE_SERVICE_FAULT_H
#define VEXALIVE_SERVICE_FAULT_H

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "common/Result.h"

namespace vexalive {

/// What the service does instead of sending the normal response. Only a request with kDelay changes the service's
/// state.
///
/// One table in Fault.cpp has the kinds and fields with their names, ranges and descriptions. The members' initial
/// values are the defaults. As JSON, a fault is an object with "kind" and fields, for example
/// {"kind":"status","status":503,"count":2}. As an option, it is KIND[=VALUE][,FIELD=VALUE...], where the first VALUE
/// sets the kind's own first field: "status=503,count=2".
struct Fault {
    /// The effect of a fault.
    enum class Kind {
        kDelay,    ///< the normal response, after delayMs
        kStatus,   ///< an HTTP status with an empty body; 301, 302, 303, 307 and 308 redirect to /redirected
        kEmpty,    ///< HTTP 200 without a body
        kCut,      ///< half of the announced body, then the connection is closed
        kGarbage,  ///< HTTP 200 with a body that is not JSON
        kHuge,     ///< HTTP 200 with a JSON body of `size` bytes
        kCode,     ///< HTTP 200 with `code` and `message`
        kClose,    ///< the connection is closed without a response
    };
    Kind kind = Kind::kDelay;            ///< determines which of the fields below are used
    std::string interfaceName;           ///< applies to this interface; empty: any of the three
    int count = 1;                       ///< of requests, up to 1,000,000; 0: until cleared
    int delayMs = 0;                     ///< before the effect of `kind`; 0 to 600,000, for kDelay at least 1
    int status = 503;                    ///< of kStatus; 200 to 599
    size_t size = size_t{2} << 20;       ///< of kHuge; 64 bytes to 1 GiB
    int code = 505;                      ///< of kCode
    std::string message = "on request";  ///< of kCode
    bool errorCodeKeys = false;          ///< of kCode: "ErrorCode" and "ErrorInfo", not "code" and "message"
};

/// "delay", "status", "empty", "cut", "garbage", "huge", "code" or "close".
const char* nameOf(Fault::Kind kind);

/// Checks the values that the kind uses. The error names the field, the value and the allowed values.
Result<void> checkFault(const Fault& fault);

/// Parses and checks a fault: a JSON object, or the value of an option.
Result<Fault> parseFaultJson(const std::string& text);
Result<Fault> parseFaultOption(const std::string& text);

nlohmann::ordered_json toJson(const Fault& fault);

/// The table: an array of {"kind", "description", "fields"}. A field has "name", "type" and optionally "minimum",
/// "maximum" and "default". The fields that every kind has are omitted: interface, count and, except for the kind
/// "delay", delay_ms.
nlohmann::ordered_json faultKindsJson();

}  // namespace vexalive

#endif
