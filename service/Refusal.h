#ifndef VEXALIVE_SERVICE_REFUSAL_H
#define VEXALIVE_SERVICE_REFUSAL_H

#include <string>

#include "common/Result.h"

namespace vexalive {

/// Why a request to one of the three interfaces is not accepted.
struct Refusal {
    int code;             ///< one of the constants below
    std::string field;    ///< the path of the refused field, for example "output_param.output_sei",
                          ///< "input_stream_list[2].layout_params.image_layer", "query: sdkappid" or "body"
    std::string message;  ///< the field, its value (truncated, ASCII) and the allowed values

    // The codes differ from 1, 3, 505 and 10017, since clients retry after these.
    static constexpr int kQuery = 4001;        ///< the query is incomplete or malformed
    static constexpr int kUnreadable = 4002;   ///< the body is no JSON object, nested too deep, or has a key twice
    static constexpr int kMissing = 4003;      ///< a field is missing
    static constexpr int kUnknown = 4004;      ///< a field is unknown
    static constexpr int kType = 4005;         ///< a field has the wrong JSON type
    static constexpr int kValue = 4006;        ///< a field's value is not allowed
    static constexpr int kNotRunning = 4007;   ///< the relay to remove or the mix to cancel is not running
    static constexpr int kFull = 4008;         ///< the maximum number of relays or mixes is reached
    static constexpr int kUnsupported = 4009;  ///< with media: the service cannot relay to the destination
    static constexpr int kUnavailable = 4010;  ///< with media: no worker could be started
};

/// For `return refused(...)` in a function that returns a Result with a Refusal. The message is "FIELD: REASON".
inline tl::unexpected<Refusal> refused(int code, const std::string& field, const std::string& reason) {
    return tl::unexpected<Refusal>(Refusal{code, field, (field.empty() ? "" : field + ": ") + reason});
}

}  // namespace vexalive

#endif
