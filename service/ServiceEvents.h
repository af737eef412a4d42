#ifndef VEXALIVE_SERVICE_SERVICE_EVENTS_H
#define VEXALIVE_SERVICE_SERVICE_EVENTS_H

#include <cstdint>
#include <string>

namespace vexalive {

/// One request to one of the three interfaces, with its response, for display.
struct LiveServiceEvent {
    std::string interfaceName;  ///< for example "add_relay_stream_url"
    /// "add", "remove", "start", "update", "cancel"; empty if refused or if a fault was injected.
    std::string operation;
    int httpStatus = 200;  ///< 0: closed without a response
    int code = 0;          ///< of the response; 0: accepted, or a response that has none
    std::string message;   ///< of the response; never shows a user signature or a map key
    std::string field;     ///< the field that was refused, as a path; empty otherwise
    int32_t appId = 0;     ///< the client's; 0 if the request was not accepted
    std::string streamId;  ///< relayed or mixed; empty if the request was not accepted
    std::string fault;     ///< the kind of the injected fault; empty if there was none
};

/// A change of the origin or of a worker, for display.
struct LiveMediaEvent {
    /// What happened.
    enum class Kind {
        kState,           ///< its state or its error changed
        kLine,            ///< it wrote a log line
        kRefusedPublish,  ///< the origin was not allowed to accept a publisher
    };
    Kind kind = Kind::kState;  ///< what happened
    std::string subject;       ///< "origin", "relay" or "mix"
    std::string streamId;      ///< relayed, mixed, or refused
    std::string state;         ///< kState: "starting", "running", "reconnecting", "stopping", "stopped" or "failed"
    std::string text;          ///< the last error, the line, or the reason of the refusal
    uint64_t restarts = 0;     ///< kState: of the process
};

}  // namespace vexalive

#endif
