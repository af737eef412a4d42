#ifndef VEXALIVE_SERVICE_FAULT_H
#define VEXALIVE_SERVICE_FAULT_H

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "common/Result.h"

namespace vexalive {

/// What the service does instead of sending the normal response. A request that receives a fault does not change the
/// service's state, unless the fault is kDelay.
///
/// A table in Fault.cpp defines the kinds and fields: names, ranges and descriptions. The members' initial values are
/// the defaults. In JSON, a fault is an object with "kind" and fields, for example
/// {"kind":"status","status":503,"count":2}. As the value of a command-line option, it is
/// KIND[=VALUE][,FIELD=VALUE...], for example "status=503,count=2". The VALUE after KIND sets the first of the fields
/// that are specific to the kind.
struct Fault {
    /// The effect of a fault.
    enum class Kind {
        kDelay,    ///< the normal response, after delayMs
        kStatus,   ///< an HTTP status with an empty body; 301, 302, 303, 307 and 308 redirect to /redirected
        kEmpty,    ///< HTTP 200 without a body
        kCut,      ///< half of the body that Content-Length announces; then the connection is closed
        kGarbage,  ///< HTTP 200 with a body that is not JSON
        kHuge,     ///< HTTP 200 with a JSON body of `size` bytes
        kCode,     ///< HTTP 200 with `code` and `message`
        kClose,    ///< the connection is closed without a response
    };
    Kind kind = Kind::kDelay;            ///< determines which of the fields below are used
    std::string interfaceName;           ///< the fault applies to this interface; empty: to all three
    int count = 1;                       ///< number of requests it applies to, up to 1,000,000; 0: until cleared
    int delayMs = 0;                     ///< wait before the effect of `kind`; 0 to 600,000, for kDelay at least 1
    int status = 503;                    ///< for kStatus: 200 to 599
    size_t size = size_t{2} << 20;       ///< for kHuge: 64 bytes to 1 GiB
    int code = 505;                      ///< for kCode
    std::string message = "on request";  ///< for kCode
    bool errorCodeKeys = false;          ///< for kCode: use "ErrorCode" and "ErrorInfo", not "code" and "message"
};

/// "delay", "status", "empty", "cut", "garbage", "huge", "code" or "close".
const char* nameOf(Fault::Kind kind);

/// Checks the values that the kind uses. The error names the field, the value and the allowed values.
Result<void> checkFault(const Fault& fault);

/// Parse and check a fault: a JSON object, or the value of a command-line option.
Result<Fault> parseFaultJson(const std::string& text);
Result<Fault> parseFaultOption(const std::string& text);

nlohmann::ordered_json toJson(const Fault& fault);

/// The kinds of faults: an array of {"kind", "description", "fields"}. Each field is an object with "name", "type" and
/// optionally "minimum", "maximum" and "default". Fields that every kind has are omitted: interface, count and
/// delay_ms. Only the kind "delay" lists delay_ms, since its minimum differs.
nlohmann::ordered_json faultKindsJson();

}  // namespace vexalive

#endif
