// Makes one stream of several: their pictures on one canvas, their sound together.
//
//     MixInput, one each ──▶ its MixFeed ──▶ MixConductor ──▶ encoders ──▶ MixOutput
//     connects, decodes      what has come   each frame       replaced     connects
//                                                             at will
//
// Nothing in this row waits for what is before it, so an input that comes and goes changes the picture and nothing
// else. An update makes a new MixScene, which the conductor takes up between two frames.

#ifndef VEXALIVE_MEDIA_MIX_WORKER_H
#define VEXALIVE_MEDIA_MIX_WORKER_H

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "media/MixConductor.h"
#include "media/MixConfiguration.h"
#include "media/MixInput.h"
#include "media/MixOutput.h"
#include "media/MixSnapshots.h"
#include "media/Pipeline.h"
#include "media/Worker.h"

namespace vexalive {

class MixWorker final : public Worker {
public:
    MixWorker();
    ~MixWorker() override;

    void configure(const nlohmann::json& wish) override;
    WorkerStatus status() const override;
    void takePicture(int width, std::function<void(const std::string& jpeg)> done) override;
    void stop(std::function<void()> done) override;

private:
    // The encoder of one kind. Those before it live on until they have given out their last frame.
    struct Encoder {
        unsigned number = 0;
        std::shared_ptr<GstElement> appsrc;
    };

    std::unique_ptr<MixInput> takeInput(const MixInputWish& wish);
    template <class Format>
    void replaceEncoder(Encoder& encoder, const Format& format);
    void encoderEnded(unsigned number, const std::string& error);
    void showScene();
    void check();

    MixConductor mConductor;
    MixOutput mOutput;
    MixSnapshots mSnapshots;
    MixConfiguration mConfiguration;
    std::vector<std::unique_ptr<MixInput>> mInputs;           // in the order of the configuration
    std::map<unsigned, std::unique_ptr<Pipeline>> mEncoders;  // all that live, by number
    unsigned mLastEncoder = 0;
    Encoder mVideoEncoder;
    Encoder mAudioEncoder;
    std::string mEncoderError;
    unsigned mTimer = 0;
};

}  // namespace vexalive

#endif
