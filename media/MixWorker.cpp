#include "media/MixWorker.h"

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <numeric>
#include <utility>

#include "media/MixEncoder.h"

namespace vexalive {

namespace {

constexpr std::chrono::seconds kLook{1};

}  // namespace

MixWorker::MixWorker() : mOutput([this] { mConductor.requestKeyFrame(); }) {
    // Threads come and go with the inputs, and the C library would give each a heap of its own: those of decoders'
    // pictures add up.
    mallopt(M_ARENA_MAX, 2);
}

MixWorker::~MixWorker() = default;

void MixWorker::configure(const nlohmann::json& wish) {
    MixConfiguration next = readMixConfiguration(wish);
    std::vector<std::unique_ptr<MixInput>> inputs;
    for (const MixInputWish& input : next.inputs) {
        inputs.push_back(takeInput(input));
        inputs.back()->wantPicture(next.video && !input.rectangle.isEmpty());
    }
    mInputs = std::move(inputs);  // those that are left over end
    mOutput.frames()->expectVideo(next.video.has_value());
    if (!next.video) {
        mVideoEncoder = Encoder();
    } else if (!(next.video == mConfiguration.video)) {
        replaceEncoder(mVideoEncoder, *next.video);
    }
    if (!(next.audio == mConfiguration.audio)) {
        replaceEncoder(mAudioEncoder, next.audio);
    }
    mConfiguration = std::move(next);
    showScene();
    mOutput.setDestination(mConfiguration.destination);
    if (mTimer == 0) {
        check();
    }
}

// An input that stays keeps its connection; one that is named twice has two.
std::unique_ptr<MixInput> MixWorker::takeInput(const MixInputWish& wish) {
    for (std::unique_ptr<MixInput>& input : mInputs) {
        if (input && input->streamId() == wish.streamId && input->source() == wish.source) {
            return std::move(input);
        }
    }
    return std::make_unique<MixInput>(wish.streamId, wish.source);
}

template <class Format>
void MixWorker::replaceEncoder(Encoder& encoder, const Format& format) {
    const unsigned number = ++mLastEncoder;
    std::unique_ptr<Pipeline> pipeline = makeEncoder(
        format, mOutput.frames(), [this, number](const std::string& error) { encoderEnded(number, error); });
    encoder.number = number;
    encoder.appsrc.reset(GST_ELEMENT(gst_object_ref(pipeline->find("in"))), GstUnref());
    mEncoders[number] = std::move(pipeline);
}

// One that is used no more ends by and by; one that is used should not, and is made anew with the next look.
void MixWorker::encoderEnded(unsigned number, const std::string& error) {
    mEncoders.erase(number);
    if (number == mVideoEncoder.number || number == mAudioEncoder.number) {
        (number == mVideoEncoder.number ? mVideoEncoder : mAudioEncoder).number = 0;
        mEncoderError = "an encoder failed: " + error;
        tell(mEncoderError);
    }
}

void MixWorker::check() {
    mTimer = callAfter(kLook, [this] { check(); });
    for (const std::unique_ptr<MixInput>& input : mInputs) {
        input->check();
    }
    mOutput.check();
    const bool lacksVideo = mConfiguration.video && mVideoEncoder.number == 0;
    const bool lacksAudio = mAudioEncoder.number == 0;
    if (lacksVideo) {
        replaceEncoder(mVideoEncoder, *mConfiguration.video);
    }
    if (lacksAudio) {
        replaceEncoder(mAudioEncoder, mConfiguration.audio);
    }
    if (lacksVideo || lacksAudio) {
        showScene();
    }
}

void MixWorker::showScene() {
    auto scene = std::make_shared<MixScene>();
    if (mConfiguration.video) {
        scene->width = mConfiguration.video->width;
        scene->height = mConfiguration.video->height;
        scene->frameRate = mConfiguration.video->frameRate;
    }
    scene->colour = mConfiguration.colour;
    scene->cropCenter = mConfiguration.cropCenter;
    scene->videoEncoder = mVideoEncoder.appsrc;
    scene->audioEncoder = mAudioEncoder.appsrc;
    std::vector<size_t> byLayer(mInputs.size());
    std::iota(byLayer.begin(), byLayer.end(), size_t{0});
    std::stable_sort(byLayer.begin(), byLayer.end(), [this](size_t a, size_t b) {
        return mConfiguration.inputs[a].layer < mConfiguration.inputs[b].layer;
    });
    for (const size_t index : byLayer) {
        scene->pictures.push_back({mInputs[index]->feed(), mConfiguration.inputs[index].rectangle});
        scene->sounds.push_back(mInputs[index]->feed());
    }
    mConductor.show(std::move(scene));
}

WorkerStatus MixWorker::status() const {
    WorkerStatus status;
    status.numbers = mOutput.numbers();
    status.numbers.dropped += mConductor.dropped();
    if (status.numbers.state != MediaState::kRunning && status.numbers.error.empty()) {
        status.numbers.error = mEncoderError;
    }
    for (const std::unique_ptr<MixInput>& input : mInputs) {
        status.inputs.push_back(input->status());
    }
    return status;
}

void MixWorker::takePicture(int width, std::function<void(const std::string& jpeg)> done) {
    const GstRef<GstSample> sample = mConductor.picture();
    if (!sample) {
        done("");
        return;
    }
    mSnapshots.make(sample.get(), width, std::move(done));
}

void MixWorker::stop(std::function<void()> done) {
    if (mTimer != 0) {
        g_source_remove(mTimer);
        mTimer = 0;
    }
    mInputs.clear();
    mOutput.stop(std::move(done));
}

}  // namespace vexalive
