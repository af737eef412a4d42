// Relays one stream from the origin to another address, without decoding it.
//
//     RtmpSource ──▶ tags with continuous timestamps ──▶ RtmpSink
//
// The source and the destination reconnect independently: each stays connected while the other reconnects.

#ifndef VEXALIVE_MEDIA_RELAY_WORKER_H
#define VEXALIVE_MEDIA_RELAY_WORKER_H

#include <memory>
#include <string>

#include "media/MainLoop.h"
#include "media/RtmpSink.h"
#include "media/RtmpSource.h"
#include "media/Worker.h"

namespace vexalive {

class RelayWorker final : public Worker {
public:
    RelayWorker();
    ~RelayWorker() override;

    Result<void> configure(const nlohmann::json& configuration) override;
    WorkerStatus status() const override;
    void stop(std::function<void()> done) override;

private:
    class Forwarder;

    void check();
    StreamStatus sourceStatus() const;
    StreamStatus destinationStatus(const StreamStatus& source) const;

    std::string mStreamId;
    RtmpSink mDestination;
    const std::shared_ptr<Forwarder> mForwarder;  // shared with the streaming threads
    RtmpSource mSource;
    Timer mTimer;
};

}  // namespace vexalive

#endif
