// Carries one stream from the origin to another address, as it stands, whatever its codecs.
//
//     rtmp2src ! appsink   ── tags, their times made steady ──▶   appsrc ! rtmp2sink
//
// Either side is connected anew when it breaks, with growing pauses, and does not disturb the other: the destination
// keeps its one connection while the source comes and goes.

#ifndef VEXALIVE_MEDIA_RELAY_WORKER_H
#define VEXALIVE_MEDIA_RELAY_WORKER_H

#include <memory>
#include <string>

#include "media/Pipeline.h"
#include "media/Retry.h"
#include "media/Worker.h"

namespace vexalive {

class RelayWorker final : public Worker {
public:
    RelayWorker();
    ~RelayWorker() override;

    void configure(const nlohmann::json& wish) override;
    WorkerStatus status() const override;
    void stop(std::function<void()> done) override;

private:
    class Stream;

    struct Side {
        explicit Side(const char* sideName) : name(sideName) {}

        const char* const name;
        std::unique_ptr<Pipeline> pipeline;
        std::string address;
        std::string error;
        Retry retry;
        unsigned timer = 0;        // until it is tried again
        uint64_t connections = 0;  // that were tried
    };

    void connectSource();
    void connectDestination();
    void sourceEnded(const std::string& error);
    void destinationEnded(const std::string& error);
    void look();
    static void begin(Side& side);
    static void callOff(Side& side);
    static void reconnect(Side& side, bool hasRun, const std::string& error, std::function<void()> connect);
    static MediaNumbers complete(MediaNumbers numbers, const Side& side, bool hasRun, bool isRunning);

    const std::shared_ptr<Stream> mStream;  // shared with the streaming threads
    std::string mStreamId;
    Side mSource{"source"};
    Side mDestination{"destination"};
    unsigned mLook = 0;  // the timer of look()
    std::function<void()> mStopped;
};

}  // namespace vexalive

#endif
