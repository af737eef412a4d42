// Checks one request to the three interfaces. RequestCheck.cpp has the rules in the order of the checks: the query, the
// fields that all bodies share, then each body.

#ifndef VEXALIVE_SERVICE_REQUEST_CHECK_H
#define VEXALIVE_SERVICE_REQUEST_CHECK_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "common/Result.h"
#include "service/Refusal.h"

namespace vexalive {

constexpr const char* kAddRelayInterface = "add_relay_stream_url";
constexpr const char* kRemoveRelayInterface = "remove_relay_stream_url";
constexpr const char* kSetMixInterface = "set_live_mix_transcoding";

constexpr const char* kInterfaces[] = {kAddRelayInterface, kRemoveRelayInterface, kSetMixInterface};

bool isInterface(const std::string& name);

// "<biz id>_<32 lower-case hex digits>", the biz id a 32-bit integer other than 0.
bool isStreamId(const std::string& text);

struct MixCanvas {
    int32_t width = 0;
    int32_t height = 0;
    std::string color;  // "0x" and six hex digits
};

struct MixInput {
    std::string streamId;
    bool isAudio = false;
    int32_t layer = 0;
    int32_t width = 0;
    int32_t height = 0;
    int32_t x = 0;
    int32_t y = 0;
};

struct AcceptedRequest {
    enum class Kind { kAddRelay, kRemoveRelay, kStartMix, kCancelMix };
    Kind kind = Kind::kAddRelay;
    int32_t appId = 0;
    int32_t bizId = 0;
    std::string streamId;                   // of the relay, or the mix's output
    std::string destination;                // kAddRelay
    bool cropsCenter = false;               // kAddRelay, kStartMix
    std::optional<MixCanvas> canvas;        // kStartMix; none in an audio-only mix
    std::vector<MixInput> inputs;           // kStartMix; without the canvas
    std::map<std::string, int32_t> output;  // kStartMix; the optional numbers of "output_param", by key
    std::string sei;                        // kStartMix
};

/// A pure function. `interfaceName`, one of the three, is the last part of the path; `query` is as sent, without its
/// "?".
Result<AcceptedRequest, Refusal> checkRequest(const std::string& interfaceName, const std::string& query,
                                              const std::string& body, const std::string& pushDomainSuffix);

/// The query for display: "usersig", "parivMapKey" and unknown or malformed parameters are masked.
std::string maskQuery(const std::string& query);

}  // namespace vexalive

#endif
