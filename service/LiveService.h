#ifndef VEXALIVE_SERVICE_LIVE_SERVICE_H
#define VEXALIVE_SERVICE_LIVE_SERVICE_H

#include <cstdint>
#include <memory>
#include <string>

#include "common/Result.h"
#include "service/Fault.h"
#include "service/ServiceOptions.h"

namespace vexalive {

/// The local live-interface service, for development and tests.
///
/// It serves the three interfaces of the live-interface service over HTTPS, on loopback by default, with a certificate
/// authority that it creates at first start. It checks every request strictly, reports which field is wrong, stores the
/// state of relays and mixes, and injects faults. With media, it runs an origin to which members publish over RTMP, and
/// a worker process for each relay and each mix. Used by `vexalive serve` and, in-process, by tests:
///
///     vexalive::LiveService service({});
///     const vexalive::Result<void> started = service.start();
///     if (!started) { ... started.error().message ... }
///     // VEXALIVE_SERVICE_HOST=service.address(), VEXALIVE_CA_FILE=service.caFile()
///
/// docs/openapi.yaml describes the paths. All but the three interfaces are for clients on this machine only; the
/// console port serves them over plain HTTP, too.
///
/// Any thread may call any member. Call start() and stop() from one thread at a time.
class LiveService {
public:
    /// Starts nothing. start() reports invalid options.
    explicit LiveService(LiveServiceOptions options);
    ~LiveService();  ///< stops
    LiveService(const LiveService&) = delete;
    LiveService& operator=(const LiveService&) = delete;

    /// Creates or reads the certificates, listens and serves until stop(). Ignores SIGPIPE for the whole process.
    Result<void> start();

    /// Closes all connections, also idle and delayed ones, and waits for their threads: less than a second. With media,
    /// it also waits for the processes to exit: up to three seconds more. The state stays; start() may follow.
    void stop();

    /// The port of the three interfaces. Valid after start(), as are the addresses below.
    uint16_t port() const;
    std::string address() const;         ///< "127.0.0.1:49152", "[::1]:49152"
    std::string consoleAddress() const;  ///< "127.0.0.1:49153"; empty if the console has no port of its own
    std::string originAddress() const;   ///< "rtmp://127.0.0.1:49154"; empty without media

    /// The authority's certificate (PEM), which clients have to trust; empty without TLS.
    const std::string& caFile() const;

    /// Relays, mixes, the last 200 requests and the state of the media, as JSON text.
    std::string stateJson() const;

    /// Adds a fault to the queue: each request consumes one use of the first fault that applies to it. Fails if the
    /// fault is invalid or the queue is full.
    Result<void> inject(const Fault& fault);
    /// Removes all active faults.
    void clearFaults();

    /// {"active": [...], "kinds": [...]}: the active faults, and the kinds that inject() accepts, as JSON text.
    std::string faultsJson() const;

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

}  // namespace vexalive

#endif
