// A GStreamer pipeline on the system clock. All pipelines of a process share one base time, so their running times are
// comparable: media keep their timestamps when they move from the appsink of one pipeline to the appsrc of another.

#ifndef VEXALIVE_MEDIA_PIPELINE_H
#define VEXALIVE_MEDIA_PIPELINE_H

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "common/Result.h"

namespace vexalive {

struct GstUnref {
    void operator()(gpointer object) const { gst_object_unref(object); }
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
    void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
    void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
};
template <class T>
using GstRef = std::unique_ptr<T, GstUnref>;

/// Maps a buffer for reading.
class MappedBytes {
public:
    explicit MappedBytes(GstBuffer* buffer);
    ~MappedBytes();
    MappedBytes(const MappedBytes&) = delete;
    MappedBytes& operator=(const MappedBytes&) = delete;

    std::string_view get() const { return {reinterpret_cast<const char*>(mMap.data), mMap.size}; }

private:
    GstMapInfo mMap{};
    GstBuffer* const mBuffer;  // null if mapping failed; get() is then empty
};

/// Call members on the main loop only, except those marked "Any thread".
///
/// Callbacks on a streaming thread may still run for up to several seconds after the pipeline has been destroyed:
/// capture shared ownership of the objects that they use.
class Pipeline {
public:
    /// Called once, on the main loop, at the end of the stream or with the first error. May destroy the pipeline.
    using OnEnded = std::function<void(const Result<void>& result)>;
    using OnSample = std::function<void(GstSample* sample)>;
    using OnBuffer = std::function<bool(GstBuffer* buffer)>;

    /// `description` has the syntax of gst-launch-1.0. If it is wrong or a plugin is missing, the process writes the
    /// reason to stderr and exits with status 1.
    Pipeline(const std::string& description, OnEnded onEnded);

    /// Returns at once. Another thread stops the elements, which may take seconds: a source must first complete its
    /// handshake.
    ~Pipeline();
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    /// Calls `onSample` for each sample of the named appsink, on a streaming thread. Call this before play().
    void onSample(const char* appsink, OnSample onSample);
    /// Calls `onBuffer` for each buffer before it passes the pad, on a streaming thread. If `onBuffer` returns false,
    /// the buffer is dropped.
    void onBuffer(const char* element, const char* pad, OnBuffer onBuffer);
    void play();

    GstElement* find(const char* name) const;  ///< owned by the pipeline

    /// Nanoseconds since the base time of all pipelines. Any thread.
    static int64_t runningTime();

private:
    struct Elements;

    static int onMessage(GstBus* bus, GstMessage* message, void* pipeline);

    std::shared_ptr<Elements> mElements;
    OnEnded mOnEnded;
    unsigned mBusWatch = 0;
};

}  // namespace vexalive

#endif
