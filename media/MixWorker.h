// Mixes several streams into one: their video is painted on one canvas, and their audio is added up.
//
//     MixInputStream, one each ──▶ its MixFeed ──▶ MixRenderer ──▶ encoders ──▶ MixMuxer ──▶ RtmpSink
//
// No stage waits for the stage before it. An input that connects or disconnects therefore does not delay the output. A
// new configuration makes a new MixScene, which the renderer applies between two frames.

#ifndef VEXALIVE_MEDIA_MIX_WORKER_H
#define VEXALIVE_MEDIA_MIX_WORKER_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "media/MainLoop.h"
#include "media/MixConfiguration.h"
#include "media/MixInputStream.h"
#include "media/MixMuxer.h"
#include "media/MixRenderer.h"
#include "media/MixSnapshots.h"
#include "media/Pipeline.h"
#include "media/RtmpSink.h"
#include "media/Worker.h"

namespace vexalive {

class MixWorker final : public Worker {
public:
    MixWorker();
    ~MixWorker() override;

    Result<void> configure(const nlohmann::json& configuration) override;
    WorkerStatus status() const override;
    void takeSnapshot(int width, std::function<void(const std::string& jpeg)> done) override;
    void stop(std::function<void()> done) override;

private:
    // The current encoder for video or for audio. A replaced encoder lives until it has output its last frame.
    struct Encoder {
        unsigned number = 0;  // key in mEncoders; 0: none, or it has failed
        std::shared_ptr<GstElement> appsrc;
    };

    std::unique_ptr<MixInputStream> findOrMakeInput(const InputConfiguration& configuration);
    template <class Format>
    void replaceEncoder(Encoder& encoder, const Format& format);
    void encoderEnded(unsigned number, const Result<void>& result);
    void showScene();
    void check();

    MixRenderer mRenderer;
    RtmpSink mSink;
    const std::shared_ptr<MixMuxer> mMuxer;  // shared with the streaming threads
    MixSnapshots mSnapshots;
    MixConfiguration mConfiguration;
    std::vector<std::unique_ptr<MixInputStream>> mInputs;     // in the order of the configuration
    std::map<unsigned, std::unique_ptr<Pipeline>> mEncoders;  // includes replaced encoders until they end
    unsigned mLastEncoder = 0;                                // the highest key of mEncoders so far
    Encoder mVideoEncoder;
    Encoder mAudioEncoder;
    std::string mEncoderError;
    Timer mTimer;
};

}  // namespace vexalive

#endif
