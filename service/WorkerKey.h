#ifndef VEXALIVE_SERVICE_WORKER_KEY_H
#define VEXALIVE_SERVICE_WORKER_KEY_H

#include <string>
#include <tuple>

namespace vexalive {

/// Identifies a supervised process: the origin, or the worker of a relay or a mix.
struct WorkerKey {
    enum class Kind { kOrigin, kRelay, kMix };
    Kind kind = Kind::kOrigin;
    std::string streamId;  ///< the relayed stream, or the output of the mix; empty for the origin
};

inline bool operator==(const WorkerKey& a, const WorkerKey& b) {
    return a.kind == b.kind && a.streamId == b.streamId;
}

inline bool operator<(const WorkerKey& a, const WorkerKey& b) {
    return std::tie(a.kind, a.streamId) < std::tie(b.kind, b.streamId);
}

/// "origin", "relay" or "mix".
inline const char* nameOf(WorkerKey::Kind kind) {
    return kind == WorkerKey::Kind::kOrigin ? "origin" : kind == WorkerKey::Kind::kRelay ? "relay" : "mix";
}

}  // namespace vexalive

#endif
