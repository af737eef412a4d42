// Encodes frames of the mix as JPEG, on a streaming thread.

#ifndef VEXALIVE_MEDIA_MIX_SNAPSHOTS_H
#define VEXALIVE_MEDIA_MIX_SNAPSHOTS_H

#include <gst/gst.h>

#include <functional>
#include <memory>
#include <queue>
#include <string>

#include "media/Pipeline.h"

namespace vexalive {

/// Makes JPEG images of frames. Call its members on the main loop only.
class MixSnapshots {
public:
    using Done = std::function<void(const std::string& jpeg)>;

    MixSnapshots();

    /// Encodes `frame`, scaled down to at most `width` columns. Calls `done` later, on the main loop; with an empty
    /// string on failure.
    void make(GstSample* frame, int width, Done done);

private:
    struct Requests;

    void makePipeline(int width, int height);
    void fail();

    const std::shared_ptr<Requests> mRequests;  // shared with tasks from the streaming thread
    std::unique_ptr<Pipeline> mPipeline;        // encodes images of mWidth × mHeight pixels
    int mWidth = 0;
    int mHeight = 0;
};

}  // namespace vexalive

#endif
