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
    std::string address;  ///< of the origin, of the relay's source, or of the mix's output
    ProcessStatus process;
};

struct RelaySnapshot {
    AcceptedRequest request;  ///< the latest
    uint64_t since = 0;       ///< UTC, milliseconds since 1970, as all times here
    int requests = 0;
    std::optional<MediaSnapshot> media;  ///< none without media
};

struct MixUpdate {
    uint64_t time = 0;
    std::string operation;  ///< "start", "update" or "cancel"
    std::optional<MixCanvas> canvas;
    size_t inputs = 0;
};

struct MixSnapshot {
    AcceptedRequest request;  ///< the latest start or update
    bool isRunning = false;
    uint64_t since = 0;                  ///< of the running or last run
    int updates = 0;                     ///< all operations ever
    std::vector<MixUpdate> history;      ///< the latest ones, oldest first
    std::optional<MediaSnapshot> media;  ///< none without media
};

/// One request to one of the three interfaces, with its response.
struct RequestRecord {
    uint64_t time = 0;
    std::string interfaceName;
    std::string query;  ///< masked
    std::string body;   ///< its beginning
    size_t bodyBytes = 0;
    int httpStatus = 0;
    std::string response;
    std::string refusedField;
    std::string fault;
};

/// Relays, mixes, the latest requests and the state of the media at one moment.
struct ServiceSnapshot {
    std::optional<MediaSnapshot> origin;  ///< none without media
    std::vector<RelaySnapshot> relays;    ///< by stream id
    std::vector<MixSnapshot> mixes;       ///< by output stream id
    std::vector<RequestRecord> requests;  ///< oldest first
};

/// The snapshot as `GET /state` shows it.
nlohmann::ordered_json toJson(const ServiceSnapshot& snapshot);

/// The snapshot as Prometheus metrics, in the text format 0.0.4.
std::string metricsText(const ServiceSnapshot& snapshot);
constexpr const char* kMetricsType = "text/plain; version=0.0.4; charset=utf-8";

}  // namespace vexalive

#endif
