// The state as Prometheus metrics, in its text format 0.0.4.
//
// Used by LiveService.

#ifndef VEXALIVE_SERVICE_METRICS_H
#define VEXALIVE_SERVICE_METRICS_H

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace vexalive {

constexpr const char* kMetricsType = "text/plain; version=0.0.4; charset=utf-8";

// `state` as LiveService::stateJson() shows it.
std::string metricsOf(const nlohmann::ordered_json& state);

}  // namespace vexalive

#endif
