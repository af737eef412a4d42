#ifndef VEXALIVE_SERVICE_SERVICE_EVENTS_H
#define VEXALIVE_SERVICE_SERVICE_EVENTS_H

#include <cstdint>
#include <string>

namespace vexalive {

/// One request to one of the three interfaces, with its response, for display.
struct LiveServiceEvent {
    std::string interfaceName;  ///< for example "add_relay_stream_url"
    /// "add", "remove", "start", "update" or "cancel"; empty if the request was not accepted.
    std::string operation;
    int httpStatus = 200;  ///< of the response; 0: the connection was closed without a response
    int code = 0;          ///< service code of the response; 0 if the request was accepted or the response has no code
    std::string message;   ///< message of the response; never contains a user signature or a map key
    std::string field;     ///< path of the refused field; empty if no field was refused
    int32_t appId = 0;     ///< application id in the request; 0 if the request was not accepted
    std::string streamId;  ///< the relayed stream or the output of the mix; empty if the request was not accepted
    std::string fault;     ///< kind of the injected fault; empty if there was none
};

/// A change of the origin or of a worker, for display.
struct LiveMediaEvent {
    /// What happened.
    enum class Kind {
        kState,           ///< the state or the error of the process changed
        kLine,            ///< the process wrote a log line
        kRefusedPublish,  ///< the origin was not allowed to accept a publisher
    };
    Kind kind = Kind::kState;  ///< what happened
    std::string subject;       ///< the process: "origin", "relay" or "mix"
    std::string streamId;      ///< the relayed stream, the output of the mix, or the stream of the refused publisher
    std::string state;         ///< for kState: "starting", "running", "reconnecting", "stopping", "stopped" or "failed"
    std::string text;          ///< the last error, the log line, or the reason for the refusal
    uint64_t restarts = 0;     ///< for kState: number of restarts of the process
};

}  // namespace vexalive

#endif
