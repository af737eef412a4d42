#include "media/MixConductor.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace vexalive {

namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kSoundPiece = kSecond / 50;
constexpr int64_t kMaxBehind = kSecond;  // then frames are left out, and sound
constexpr guint64 kMaxWaiting = 20;      // frames before an encoder

int64_t runningTime() {
    return static_cast<int64_t>(Pipeline::runningTime());
}

GstAppSrc* appsrcOf(const std::shared_ptr<GstElement>& encoder) {
    return GST_APP_SRC(encoder.get());
}

void endUnused(const std::shared_ptr<GstElement>& encoder, const std::shared_ptr<GstElement>& used) {
    if (encoder && encoder != used) {
        gst_app_src_end_of_stream(appsrcOf(encoder));
    }
}

}  // namespace

MixConductor::MixConductor() : mScene(std::make_shared<MixScene>()), mThread([this] { run(); }) {}

MixConductor::~MixConductor() {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mIsEnding = true;
    }
    mEnds.notify_all();
    mThread.join();
}

void MixConductor::show(std::shared_ptr<const MixScene> scene) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mWaiting.push_back(std::move(scene));
}

GstRef<GstSample> MixConductor::picture() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return GstRef<GstSample>(mPicture ? gst_sample_ref(mPicture.get()) : nullptr);
}

void MixConductor::run() {
    mSoundMade = MixSound::positionOf(runningTime());
    for (;;) {
        const int64_t due = mScene->width > 0 ? std::min(mPictureDue, mSoundDue) : mSoundDue;
        {
            std::unique_lock<std::mutex> lock(mMutex);
            mEnds.wait_for(lock, std::chrono::nanoseconds(due - runningTime()), [this] { return mIsEnding; });
            if (mIsEnding) {
                return;
            }
        }
        const int64_t now = runningTime();
        if (mScene->width == 0 || mPictureDue <= now) {
            takeScene(now);
        }
        if (mScene->width > 0 && mPictureDue <= now) {
            makePicture(now);
        }
        if (mSoundDue <= now) {
            makeSound(now);
            mSoundDue = std::max(mSoundDue + kSoundPiece, now);
        }
    }
}

void MixConductor::takeScene(int64_t now) {
    std::vector<std::shared_ptr<const MixScene>> scenes;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        scenes.swap(mWaiting);
    }
    for (const std::shared_ptr<const MixScene>& scene : scenes) {
        endUnused(mScene->videoEncoder, scene->videoEncoder);
        endUnused(mScene->audioEncoder, scene->audioEncoder);
        if (mScene->width == 0) {
            mPictureDue = now;
        }
        mScene = scene;
    }
    if (mScene->width == 0) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mPicture.reset();
    }
}

void MixConductor::makePicture(int64_t now) {
    const MixScene& scene = *mScene;
    const int64_t duration = kSecond / scene.frameRate;
    for (; mPictureDue < now - kMaxBehind; mPictureDue += duration) {
        ++mDropped;
    }
    const int64_t time = mPictureDue;
    mPictureDue += duration;
    if (gst_app_src_get_current_level_buffers(appsrcOf(scene.videoEncoder)) >= kMaxWaiting) {
        ++mDropped;
        return;
    }
    mPainter.setCanvas(scene.width, scene.height);
    GstRef<GstBuffer> buffer = mPainter.paint(scene.colour, scene.pictures, scene.cropCenter, time);
    if (!buffer) {
        ++mDropped;
        return;
    }
    GST_BUFFER_PTS(buffer.get()) = static_cast<GstClockTime>(time);
    GST_BUFFER_DURATION(buffer.get()) = static_cast<GstClockTime>(duration);
    if (mKeyFrameIsWanted.exchange(false)) {
        gst_element_send_event(scene.videoEncoder.get(),
                               gst_video_event_new_downstream_force_key_unit(GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE,
                                                                             GST_CLOCK_TIME_NONE, TRUE, 0));
    }
    const GstRef<GstCaps> caps(gst_app_src_get_caps(appsrcOf(scene.videoEncoder)));
    GstRef<GstSample> sample(gst_sample_new(buffer.get(), caps.get(), nullptr, nullptr));
    gst_app_src_push_buffer(appsrcOf(scene.videoEncoder), buffer.release());
    const std::lock_guard<std::mutex> lock(mMutex);
    mPicture.swap(sample);
}

void MixConductor::makeSound(int64_t now) {
    const int64_t end = MixSound::positionOf(now);
    mSoundMade = std::max(mSoundMade, end - MixSound::positionOf(kMaxBehind));
    const int64_t count = end - mSoundMade;
    if (!mScene->audioEncoder || count <= 0) {
        mSoundMade = end;
        return;
    }
    std::vector<float> sum(static_cast<size_t>(count) * MixSound::kChannels, 0.0F);
    for (const std::shared_ptr<MixFeed>& feed : mScene->sounds) {
        feed->addSound(sum.data(), mSoundMade, count);
    }
    for (float& sample : sum) {
        sample = std::clamp(sample, -1.0F, 1.0F);
    }
    GstBuffer* const buffer = gst_buffer_new_memdup(sum.data(), sum.size() * sizeof(float));
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(MixSound::timeOf(mSoundMade));
    GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>(MixSound::timeOf(end) - MixSound::timeOf(mSoundMade));
    gst_app_src_push_buffer(appsrcOf(mScene->audioEncoder), buffer);
    mSoundMade = end;
}

}  // namespace vexalive
