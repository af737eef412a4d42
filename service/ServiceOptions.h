#ifndef VEXALIVE_SERVICE_SERVICE_OPTIONS_H
#define VEXALIVE_SERVICE_SERVICE_OPTIONS_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "service/ServiceEvents.h"

namespace vexalive {

/// The options of a LiveService. The defaults suit tests: loopback, free ports, no media.
struct LiveServiceOptions {
    std::string address = "127.0.0.1";  ///< a numeric address or a name of this machine
    uint16_t port = 0;                  ///< 0: a free one
    bool tls = true;                    ///< false: plain HTTP, on loopback only, for running behind a proxy

    /// The folder of the certificates. Empty: $XDG_STATE_HOME/vexalive, else ~/.local/state/vexalive.
    std::string stateFolder;

    /// What follows the biz id and a dot in "domain". Empty: the environment's VEXALIVE_PUSH_DOMAIN, else the value
    /// fixed at build time.
    std::string pushDomainSuffix;

    /// The port of 127.0.0.1 that serves the console; 0: a free one. std::nullopt: with media, a free one; otherwise no
    /// separate port, and the console is served on the port of the three interfaces only.
    std::optional<uint16_t> consolePort;

    /// Relay and mix real media, with a worker process for each relay and each mix.
    bool media = false;
    std::string origin;         ///< "rtmp://HOST:PORT" of a running origin; empty: the service starts nginx
    std::string workerProgram;  ///< empty: the environment's VEXALIVE_MEDIA_WORKER, else vexalive-media beside this
                                ///< program, in ../libexec/vexalive, or in PATH

    /// Called just before each response is sent, on the connection's thread, on several threads at a time. It must be
    /// thread-safe and must not throw. It delays that response while it blocks. It must not call start() or stop().
    std::function<void(const LiveServiceEvent&)> observer;

    /// Called when the state of media changes, on threads of the service. The rules of `observer` apply. It must not
    /// make requests to this service either: they would wait for it.
    std::function<void(const LiveMediaEvent&)> mediaObserver;
};

}  // namespace vexalive

#endif
