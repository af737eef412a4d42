// Keeps the mix's time: whenever a picture or a piece of sound is due, makes it of what the inputs have by then, and
// hands it to the encoders. It waits for no input, and never stops.

#ifndef VEXALIVE_MEDIA_MIX_CONDUCTOR_H
#define VEXALIVE_MEDIA_MIX_CONDUCTOR_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "media/MixPainter.h"
#include "media/Pipeline.h"

namespace vexalive {

// All that a frame of the mix depends on. It is replaced as a whole, between two frames.
struct MixScene {
    int width = 0;  // of the canvas; 0: no picture
    int height = 0;
    int frameRate = 0;
    uint32_t colour = 0;
    bool cropCenter = false;
    std::vector<MixPainter::Part> pictures;  // the last is on top
    std::vector<std::shared_ptr<MixFeed>> sounds;
    std::shared_ptr<GstElement> videoEncoder;  // their appsrc
    std::shared_ptr<GstElement> audioEncoder;
};

class MixConductor {
public:
    MixConductor();
    ~MixConductor();

    // From the next frame on. An encoder that is used no more is told that its stream has ended, after its last frame.
    void show(std::shared_ptr<const MixScene> scene);

    // Any thread: makes the next frame a key frame.
    void requestKeyFrame() { mKeyFrameIsWanted = true; }

    GstRef<GstSample> picture() const;             // as it went to the encoder last; null if there is none
    uint64_t dropped() const { return mDropped; }  // frames that were not made, for want of time

private:
    void run();
    void takeScene(int64_t now);
    void makePicture(int64_t now);
    void makeSound(int64_t now);

    std::atomic<bool> mKeyFrameIsWanted{false};
    std::atomic<uint64_t> mDropped{0};

    mutable std::mutex mMutex;
    std::condition_variable mEnds;
    bool mIsEnding = false;
    std::vector<std::shared_ptr<const MixScene>> mWaiting;  // the last is what is wanted
    GstRef<GstSample> mPicture;

    // Of the thread's.
    std::shared_ptr<const MixScene> mScene;
    MixPainter mPainter;
    int64_t mPictureDue = 0;  // running time
    int64_t mSoundDue = 0;
    int64_t mSoundMade = 0;  // up to this position, as MixSound counts
    std::thread mThread;
};

}  // namespace vexalive

#endif
