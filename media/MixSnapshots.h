// Makes a JPEG of a picture of the mix when someone asks for one, on a thread of its own.

#ifndef VEXALIVE_MEDIA_MIX_SNAPSHOTS_H
#define VEXALIVE_MEDIA_MIX_SNAPSHOTS_H

#include <gst/gst.h>

#include <functional>
#include <memory>
#include <queue>
#include <string>

#include "media/Pipeline.h"

namespace vexalive {

// For the main loop's thread.
class MixSnapshots {
public:
    using Done = std::function<void(const std::string& jpeg)>;

    MixSnapshots();

    // At most so wide. Calls `done` soon, on the main loop, with an empty text if it fails.
    void make(GstSample* picture, int width, Done done);

private:
    struct Waiting;

    void makePipeline(int width, int height);
    void giveUp();

    const std::shared_ptr<Waiting> mWaiting;  // shared with what comes back from the streaming thread
    std::unique_ptr<Pipeline> mPipeline;      // stays as long as the size does
    int mWidth = 0;
    int mHeight = 0;
};

}  // namespace vexalive

#endif
