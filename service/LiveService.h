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
/// It serves the three interfaces of the live-interface service over HTTPS, by default on loopback only. At first
/// start, it creates its own certificate authority. It checks every request strictly, reports which field is wrong,
/// stores the state of relays and mixes, and injects faults. With media, it runs an origin (an RTMP server to which
/// members publish) and a worker process for each relay and each mix. `vexalive serve` runs the service; tests run it
/// in-process:
///
///     vexalive::LiveService service({});
///     const vexalive::Result<void> started = service.start();
///     if (!started) { ... started.error().message ... }
///     // VEXALIVE_SERVICE_HOST=service.address(), VEXALIVE_CA_FILE=service.caFile()
///
/// docs/openapi.yaml describes the paths. Only clients on this machine may use paths other than the three interfaces.
/// The console port serves these other paths over plain HTTP.
///
/// Any thread may call any member function. Call start() and stop() from one thread at a time.
class LiveService {
public:
    /// Starts nothing. start() reports invalid options.
    explicit LiveService(LiveServiceOptions options);
    ~LiveService();  ///< calls stop()
    LiveService(const LiveService&) = delete;
    LiveService& operator=(const LiveService&) = delete;

    /// Creates or reads the certificates, listens and serves until stop(). Makes the process ignore SIGPIPE.
    Result<void> start();

    /// Closes all connections, also idle and delayed ones, and waits for their threads (less than 1 s). With media,
    /// also waits for the child processes to exit (up to 3 s more). The stored state is retained for the next start().
    void stop();

    /// The port of the three interfaces. This function and the next three are valid after start().
    uint16_t port() const;
    std::string address() const;         ///< "127.0.0.1:49152", "[::1]:49152"
    std::string consoleAddress() const;  ///< "127.0.0.1:49153"; empty if the console has no port of its own
    std::string originAddress() const;   ///< "rtmp://127.0.0.1:49154"; empty without media

    /// The authority's certificate (PEM), which clients have to trust; empty without TLS.
    const std::string& caFile() const;

    /// Relays, mixes, the last 200 requests and the state of the media, as JSON text.
    std::string stateJson() const;

    /// Adds a fault to the queue. Each request uses the first fault in the queue that applies to it. Fails if the fault
    /// is invalid or the queue is full.
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
