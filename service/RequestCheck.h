// Checks one request to one of the three interfaces. RequestCheck.cpp has the rules in the order of the checks: the
// query, the fields that all bodies share, then the fields of each interface.

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

// Whether `text` is "BIZID_DIGEST", where BIZID is a 32-bit integer other than 0 and DIGEST is 32 lower-case hex
// digits.
bool isStreamId(const std::string& text);

struct MixCanvas {
    int32_t width = 0;
    int32_t height = 0;
    std::string color;  // "0x" and 6 hex digits
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
    std::string streamId;      // the stream that is relayed, or the output of the mix
    std::string destination;   // kAddRelay only
    bool cropsCenter = false;  // kAddRelay and kStartMix only

    // The members below are for kStartMix only.
    std::optional<MixCanvas> canvas;        // std::nullopt in an audio-only mix
    std::vector<MixInput> inputs;           // without the canvas
    std::map<std::string, int32_t> output;  // the optional numbers of "output_param", by key
    std::string sei;
};

/// A pure function. `interfaceName` is one of kInterfaces. `query` is not decoded and does not contain the "?".
Result<AcceptedRequest, Refusal> checkRequest(const std::string& interfaceName, const std::string& query,
                                              const std::string& body, const std::string& pushDomainSuffix);

/// Returns the query for display: masks "usersig", "parivMapKey" and all unknown or malformed parameters.
std::string maskQuery(const std::string& query);

}  // namespace vexalive

#endif
