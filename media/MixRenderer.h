// Renders the mix in real time: makes each video frame and each block of audio at its time, from the media that the
// inputs have by then, and passes it to the encoders. It never waits for an input.

#ifndef VEXALIVE_MEDIA_MIX_RENDERER_H
#define VEXALIVE_MEDIA_MIX_RENDERER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "base/Mutex.h"
#include "media/MixPainter.h"
#include "media/Pipeline.h"

namespace vexalive {

/// The state from which the frames of the mix are rendered. It is replaced as a whole, between two frames.
struct MixScene {
    int width = 0;  ///< of the canvas; 0: no video
    int height = 0;
    int frameRate = 0;
    uint32_t colour = 0;
    bool cropCenter = false;
    std::vector<MixPainter::Layer> layers;  ///< the last is on top
    std::vector<std::shared_ptr<MixFeed>> audio;
    std::shared_ptr<GstElement> videoEncoder;  ///< its appsrc
    std::shared_ptr<GstElement> audioEncoder;
};

class MixRenderer {
public:
    MixRenderer();
    ~MixRenderer();
    MixRenderer(const MixRenderer&) = delete;
    MixRenderer& operator=(const MixRenderer&) = delete;

    /// Replaces the scene from the next frame on. An encoder that the new scene lacks receives the end of stream. Any
    /// thread.
    void show(std::shared_ptr<const MixScene> scene);

    /// Makes the next frame a key frame. Any thread.
    void requestKeyFrame() { mKeyFrameRequested = true; }

    GstRef<GstSample> lastFrame() const;           ///< as the encoder received it; null if there is none. Any thread.
    uint64_t dropped() const { return mDropped; }  ///< frames that were skipped for lack of time. Any thread.

private:
    void run();
    void applyScenes(int64_t now);
    void makeFrame(int64_t now);
    void makeAudio(int64_t now);

    std::atomic<bool> mKeyFrameRequested{false};
    std::atomic<uint64_t> mDropped{0};

    mutable KstMutex mMutex;
    KstCondition mStopRequested;
    bool mIsStopping KST_GUARDED_BY(mMutex) = false;
    std::vector<std::shared_ptr<const MixScene>> mPendingScenes KST_GUARDED_BY(mMutex);  // the last is to be shown
    GstRef<GstSample> mLastFrame KST_GUARDED_BY(mMutex);

    // Used on the renderer's thread only.
    std::shared_ptr<const MixScene> mScene;
    MixPainter mPainter;
    int64_t mFrameDue = 0;  // running time of the next frame
    int64_t mAudioDue = 0;  // running time of the next block of audio
    int64_t mAudioEnd = 0;  // end of the rendered audio, as a position of AudioRing

    std::thread mThread;
};

}  // namespace vexalive

#endif
