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
    uint16_t port = 0;                  ///< port of the three interfaces; 0: a free port
    bool tls = true;                    ///< false: plain HTTP, on loopback only, for use behind a proxy

    /// The folder of the certificates and of the origin's files. Empty: $XDG_STATE_HOME/vexalive if XDG_STATE_HOME is
    /// set, else ~/.local/state/vexalive.
    std::string stateFolder;

    /// SUFFIX in the "domain" of a request, "BIZID.SUFFIX". Empty: the value of the environment variable
    /// VEXALIVE_PUSH_DOMAIN, else the value that was configured at build time.
    std::string pushDomainSuffix;

    /// The port of 127.0.0.1 that serves the console; 0: a free port. std::nullopt: a free port with media; without
    /// media, the console has no port of its own, and only the port of the three interfaces serves it.
    std::optional<uint16_t> consolePort;

    /// Relay and mix real media, with a worker process for each relay and each mix.
    bool media = false;
    std::string origin;         ///< "rtmp://HOST:PORT" of a running origin; empty: the service starts nginx
    std::string workerProgram;  ///< path of the worker; empty: the value of the environment variable
                                ///< VEXALIVE_MEDIA_WORKER, else vexalive-media in the folder of the running program,
                                ///< in ../libexec/vexalive, or in PATH

    /// Called just before each response is sent, on the thread of the connection. Several threads may call it at once,
    /// so it must be thread-safe. It must not throw, and must not call start() or stop(). While it blocks, the response
    /// waits.
    std::function<void(const LiveServiceEvent&)> observer;

    /// Called on threads of the service for each LiveMediaEvent. The rules of `observer` apply. In addition, it must
    /// not send requests to this service: their responses could wait until it returns.
    std::function<void(const LiveMediaEvent&)> mediaObserver;
};

}  // namespace vexalive

#endif
