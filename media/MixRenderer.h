// Renders the mix in real time. When a video frame or a block of audio is due, the renderer makes it from the media
// that the inputs have received by then, and passes it to the encoder. It never waits for an input.

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
    int frameRate = 0;    ///< frames per second
    uint32_t colour = 0;  ///< of the canvas: 0xRRGGBB
    bool cropCenter = false;
    std::vector<MixPainter::Layer> layers;  ///< the last is on top
    std::vector<std::shared_ptr<MixFeed>> audio;
    std::shared_ptr<GstElement> videoEncoder;  ///< the appsrc of the video encoder; null: no video
    std::shared_ptr<GstElement> audioEncoder;  ///< the appsrc of the audio encoder
};

class MixRenderer {
public:
    MixRenderer();
    ~MixRenderer();
    MixRenderer(const MixRenderer&) = delete;
    MixRenderer& operator=(const MixRenderer&) = delete;

    /// Replaces the scene from the next frame on. An encoder that is not in the new scene receives the end of stream.
    /// Any thread.
    void show(std::shared_ptr<const MixScene> scene);

    /// Makes the next frame a key frame. Any thread.
    void requestKeyFrame() { mKeyFrameRequested = true; }

    /// The last frame, as it was passed to the encoder; null if there is none. Any thread.
    GstRef<GstSample> lastFrame() const;
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
    // In the order of show(). All are applied before the next frame.
    std::vector<std::shared_ptr<const MixScene>> mPendingScenes KST_GUARDED_BY(mMutex);
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
