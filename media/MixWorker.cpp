#include "media/MixWorker.h"

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <numeric>
#include <utility>

#include "media/Log.h"
#include "media/MixEncoder.h"

namespace vexalive {

namespace {

constexpr std::chrono::seconds kCheckInterval{1};
constexpr std::chrono::seconds kIdleTimeout{3};    // time without progress until the output counts as not running
constexpr std::chrono::seconds kStallTimeout{10};  // time without progress until the output reconnects

}  // namespace

MixWorker::MixWorker()
    : mSink({"output", kStallTimeout}),
      mMuxer(std::make_shared<MixMuxer>(mSink.queue(), [this] { mRenderer.requestKeyFrame(); })) {
    // Each input starts and ends threads. If each thread had its own malloc arena, freed frames would occupy much
    // memory.
    mallopt(M_ARENA_MAX, 2);
}

MixWorker::~MixWorker() = default;

Result<void> MixWorker::configure(const nlohmann::json& configuration) {
    Result<MixConfiguration> read = readMixConfiguration(configuration);
    if (!read) {
        return tl::unexpected(read.error());
    }
    MixConfiguration& next = *read;
    std::vector<std::unique_ptr<MixInputStream>> inputs;
    for (const InputConfiguration& input : next.inputs) {
        inputs.push_back(findOrMakeInput(input));
        inputs.back()->enableVideo(next.video && !input.rectangle.isEmpty());
    }
    mInputs = std::move(inputs);
    mMuxer->expectVideo(next.video.has_value());
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
    mSink.setAddress(mConfiguration.destination);
    if (!mTimer.isActive()) {
        check();
    }
    return {};
}

// Returns the existing object of an input that was in the previous configuration, so its connection stays open. An
// input that is listed twice has two objects.
std::unique_ptr<MixInputStream> MixWorker::findOrMakeInput(const InputConfiguration& configuration) {
    for (std::unique_ptr<MixInputStream>& input : mInputs) {
        if (input && input->streamId() == configuration.streamId && input->address() == configuration.address) {
            return std::move(input);
        }
    }
    return std::make_unique<MixInputStream>(configuration.streamId, configuration.address);
}

template <class Format>
void MixWorker::replaceEncoder(Encoder& encoder, const Format& format) {
    const unsigned number = ++mLastEncoder;
    std::unique_ptr<Pipeline> pipeline =
        makeEncoder(format, mMuxer, [this, number](const Result<void>& result) { encoderEnded(number, result); });
    encoder.number = number;
    encoder.appsrc.reset(GST_ELEMENT(gst_object_ref(pipeline->find("in"))), GstUnref());
    mEncoders[number] = std::move(pipeline);
}

// A replaced encoder ends after its last frame. The current encoder ends only if it fails; check() then replaces it.
void MixWorker::encoderEnded(unsigned number, const Result<void>& result) {
    mEncoders.erase(number);
    if (number == mVideoEncoder.number || number == mAudioEncoder.number) {
        (number == mVideoEncoder.number ? mVideoEncoder : mAudioEncoder).number = 0;
        mEncoderError = "an encoder failed: " + (result ? "its stream ended" : result.error().message);
        logLine(mEncoderError);
    }
}

void MixWorker::check() {
    mTimer.start(kCheckInterval, [this] { check(); });
    for (const std::unique_ptr<MixInputStream>& input : mInputs) {
        input->check();
    }
    mSink.check();
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
        scene->layers.push_back({mInputs[index]->feed(), mConfiguration.inputs[index].rectangle});
        scene->audio.push_back(mInputs[index]->feed());
    }
    mRenderer.show(std::move(scene));
}

WorkerStatus MixWorker::status() const {
    const MixMuxer::Counts counts = mMuxer->counts();
    WorkerStatus status;
    StreamStatus& output = status.output;
    output.bytes = mSink.progress().bytes();
    output.frames = counts.frames;
    output.dropped = counts.dropped + mRenderer.dropped();
    output.reconnects = mSink.reconnects();
    if (mSink.isOpen() && mSink.hasFlowed() && mSink.progress().idleTime() < kIdleTimeout) {
        output.state = WorkerState::kRunning;
    } else {
        output.state = mSink.progress().hasEverFlowed() ? WorkerState::kReconnecting : WorkerState::kStarting;
        output.error = mSink.error().empty() ? mEncoderError : mSink.error();
    }
    for (const std::unique_ptr<MixInputStream>& input : mInputs) {
        status.inputs.push_back(input->status());
    }
    return status;
}

void MixWorker::takeSnapshot(int width, std::function<void(const std::string& jpeg)> done) {
    const GstRef<GstSample> frame = mRenderer.lastFrame();
    if (!frame) {
        done("");
        return;
    }
    mSnapshots.make(frame.get(), width, std::move(done));
}

void MixWorker::stop(std::function<void()> done) {
    mTimer.cancel();
    mInputs.clear();
    mSink.stop(std::move(done));
}

}  // namespace vexalive
