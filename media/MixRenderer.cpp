#include "media/MixRenderer.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace vexalive {

namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kAudioInterval = kSecond / 50;
constexpr int64_t kMaxBehind = kSecond;  // video frames and audio that are later than this are skipped
constexpr guint64 kMaxQueued = 20;       // maximum number of frames that wait for an encoder

GstAppSrc* appsrcOf(const std::shared_ptr<GstElement>& encoder) {
    return GST_APP_SRC(encoder.get());
}

void endUnused(const std::shared_ptr<GstElement>& encoder, const std::shared_ptr<GstElement>& used) {
    if (encoder && encoder != used) {
        gst_app_src_end_of_stream(appsrcOf(encoder));
    }
}

}  // namespace

MixRenderer::MixRenderer() : mScene(std::make_shared<MixScene>()), mThread([this] { run(); }) {}

MixRenderer::~MixRenderer() {
    {
        const KstMutexLock lock(mMutex);
        mIsStopping = true;
    }
    mStopRequested.notifyAll();
    mThread.join();
}

void MixRenderer::show(std::shared_ptr<const MixScene> scene) {
    const KstMutexLock lock(mMutex);
    mPendingScenes.push_back(std::move(scene));
}

GstRef<GstSample> MixRenderer::lastFrame() const {
    const KstMutexLock lock(mMutex);
    return GstRef<GstSample>(mLastFrame ? gst_sample_ref(mLastFrame.get()) : nullptr);
}

void MixRenderer::run() {
    mAudioEnd = AudioRing::positionOf(Pipeline::runningTime());
    for (;;) {
        const int64_t due = mScene->width > 0 ? std::min(mFrameDue, mAudioDue) : mAudioDue;
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::nanoseconds(due - Pipeline::runningTime());
        {
            const KstMutexLock lock(mMutex);
            while (!mIsStopping && mStopRequested.waitUntil(mMutex, deadline)) {
            }
            if (mIsStopping) {
                return;
            }
        }
        const int64_t now = Pipeline::runningTime();
        if (mScene->width == 0 || mFrameDue <= now) {
            applyScenes(now);
        }
        if (mScene->width > 0 && mFrameDue <= now) {
            makeFrame(now);
        }
        if (mAudioDue <= now) {
            makeAudio(now);
            mAudioDue = std::max(mAudioDue + kAudioInterval, now);
        }
    }
}

void MixRenderer::applyScenes(int64_t now) {
    std::vector<std::shared_ptr<const MixScene>> scenes;
    {
        const KstMutexLock lock(mMutex);
        scenes.swap(mPendingScenes);
    }
    for (const std::shared_ptr<const MixScene>& scene : scenes) {
        endUnused(mScene->videoEncoder, scene->videoEncoder);
        endUnused(mScene->audioEncoder, scene->audioEncoder);
        if (mScene->width == 0) {
            mFrameDue = now;
        }
        mScene = scene;
    }
    if (mScene->width == 0) {
        const KstMutexLock lock(mMutex);
        mLastFrame.reset();
    }
}

void MixRenderer::makeFrame(int64_t now) {
    const MixScene& scene = *mScene;
    const int64_t duration = kSecond / scene.frameRate;
    for (; mFrameDue < now - kMaxBehind; mFrameDue += duration) {
        ++mDropped;
    }
    const int64_t time = mFrameDue;
    mFrameDue += duration;
    if (gst_app_src_get_current_level_buffers(appsrcOf(scene.videoEncoder)) >= kMaxQueued) {
        ++mDropped;
        return;
    }
    mPainter.setCanvas(scene.width, scene.height);
    GstRef<GstBuffer> buffer = mPainter.paint(scene.colour, scene.layers, scene.cropCenter, time);
    if (!buffer) {
        ++mDropped;
        return;
    }
    GST_BUFFER_PTS(buffer.get()) = static_cast<GstClockTime>(time);
    GST_BUFFER_DURATION(buffer.get()) = static_cast<GstClockTime>(duration);
    if (mKeyFrameRequested.exchange(false)) {
        gst_element_send_event(scene.videoEncoder.get(),
                               gst_video_event_new_downstream_force_key_unit(GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE,
                                                                             GST_CLOCK_TIME_NONE, TRUE, 0));
    }
    const GstRef<GstCaps> caps(gst_app_src_get_caps(appsrcOf(scene.videoEncoder)));
    GstRef<GstSample> sample(gst_sample_new(buffer.get(), caps.get(), nullptr, nullptr));
    gst_app_src_push_buffer(appsrcOf(scene.videoEncoder), buffer.release());
    const KstMutexLock lock(mMutex);
    mLastFrame.swap(sample);
}

void MixRenderer::makeAudio(int64_t now) {
    const int64_t end = AudioRing::positionOf(now);
    mAudioEnd = std::max(mAudioEnd, end - AudioRing::positionOf(kMaxBehind));
    const int64_t count = end - mAudioEnd;
    if (!mScene->audioEncoder || count <= 0) {
        mAudioEnd = end;
        return;
    }
    std::vector<float> sum(static_cast<size_t>(count) * AudioRing::kChannels, 0.0F);
    for (const std::shared_ptr<MixFeed>& feed : mScene->audio) {
        feed->addAudio(sum.data(), mAudioEnd, count);
    }
    for (float& sample : sum) {
        sample = std::clamp(sample, -1.0F, 1.0F);
    }
    GstBuffer* const buffer = gst_buffer_new_memdup(sum.data(), sum.size() * sizeof(float));
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(AudioRing::timeOf(mAudioEnd));
    GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>(AudioRing::timeOf(end) - AudioRing::timeOf(mAudioEnd));
    gst_app_src_push_buffer(appsrcOf(mScene->audioEncoder), buffer);
    mAudioEnd = end;
}

}  // namespace vexalive
