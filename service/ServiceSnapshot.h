#ifndef VEXALIVE_SERVICE_SERVICE_SNAPSHOT_H
#define VEXALIVE_SERVICE_SERVICE_SNAPSHOT_H

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "common/WorkerStatus.h"
#include "service/RequestCheck.h"

namespace vexalive {

/// A process that the service supervises.
struct ProcessStatus {
    WorkerStatus worker;
    uint64_t restarts = 0;
};

/// The media of the origin, a relay or a mix.
struct MediaSnapshot {
    std::string address;  ///< URL of the origin, of the relay's source, or of the mix's output
    ProcessStatus process;
};

struct RelaySnapshot {
    AcceptedRequest request;  ///< the latest add
    uint64_t since = 0;       ///< when the relay was added; UTC in milliseconds since 1970, as all times of this header
    int requests = 0;         ///< number of adds since then
    std::optional<MediaSnapshot> media;  ///< std::nullopt without media
};

/// One operation on a mix.
struct MixUpdate {
    uint64_t time = 0;
    std::string operation;  ///< "start", "update" or "cancel"
    std::optional<MixCanvas> canvas;
    size_t inputs = 0;  ///< number of inputs
};

struct MixSnapshot {
    AcceptedRequest request;  ///< the latest start or update
    bool isRunning = false;
    uint64_t since = 0;                  ///< when the current or last run was started
    int updates = 0;                     ///< number of starts, updates and cancels so far
    std::vector<MixUpdate> history;      ///< the latest operations, oldest first
    std::optional<MediaSnapshot> media;  ///< std::nullopt without media
};

/// One request to one of the three interfaces, with its response.
struct RequestRecord {
    uint64_t time = 0;
    std::string interfaceName;
    std::string query;     ///< masked by maskQuery()
    std::string body;      ///< truncated to ServiceState::kMaxBodyBytes
    size_t bodyBytes = 0;  ///< size of the complete body
    int httpStatus = 0;
    std::string response;
    std::string refusedField;
    std::string fault;
};

/// Relays, mixes, the latest requests and the state of the media at one moment.
struct ServiceSnapshot {
    std::optional<MediaSnapshot> origin;  ///< std::nullopt without media
    std::vector<RelaySnapshot> relays;    ///< in the order of their stream ids
    std::vector<MixSnapshot> mixes;       ///< in the order of their output stream ids
    std::vector<RequestRecord> requests;  ///< the latest requests, oldest first
};

/// The snapshot as `GET /state` shows it.
nlohmann::ordered_json toJson(const ServiceSnapshot& snapshot);

/// The snapshot as metrics in the Prometheus text format, version 0.0.4.
std::string metricsText(const ServiceSnapshot& snapshot);
constexpr const char* kMetricsType = "text/plain; version=0.0.4; charset=utf-8";

}  // namespace vexalive

#endif
