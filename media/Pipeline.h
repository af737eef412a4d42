// A GStreamer pipeline, with what all pipelines of a worker share: the system clock, and the moment from which running
// time counts. So a running time means the same in each of them, and media passes from one to the next by appsink and
// appsrc as it stands.

#ifndef VEXALIVE_MEDIA_PIPELINE_H
#define VEXALIVE_MEDIA_PIPELINE_H

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace vexalive {

struct GstUnref {
    void operator()(gpointer object) const { gst_object_unref(object); }
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
    void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
    void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
};
template <class T>
using GstRef = std::unique_ptr<T, GstUnref>;

// rtmp2sink leaves out the header, and holds the first tag until it is connected: then comes the third buffer.
constexpr uint64_t kBuffersBeforeConnected = 2;

// Calls `read` with the bytes of a sample's buffer. Any thread.
void readBytes(GstSample* sample, const std::function<void(std::string_view bytes)>& read);

// For the main loop's thread, but for what is said otherwise.
class Pipeline {
public:
    // Called once, on the main loop: at the end of the stream with an empty text, or at the first error with what it
    // was. The pipeline may be destroyed in there.
    using Ended = std::function<void(const std::string& error)>;
    // Called on a streaming thread, for each sample. Keep what it uses alive by capturing shared ownership: a call may
    // be under way for a while after the pipeline has been destroyed.
    using Take = std::function<void(GstSample* sample)>;

    // `description` as gst-launch-1.0 takes it. A description that is wrong ends the process: it is a mistake of ours,
    // or a plugin is missing, and the text on stderr says which.
    Pipeline(const std::string& description, Ended ended);

    // Returns at once. The elements are brought down by a thread of their own, which may take seconds: a source is
    // given the time to get through its handshake.
    ~Pipeline();
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    void take(const char* appsink, Take take);  // before play()
    // Calls `seen` for each buffer that is about to pass the pad, on a streaming thread; the rules of Take hold.
    void watch(const char* element, const char* pad, std::function<void(GstBuffer*)> seen);
    void play();

    GstBin* bin() const;                       // borrowed
    GstElement* find(const char* name) const;  // borrowed; lives as long as the bin holds it

    // Nanoseconds since the moment that all pipelines share. Any thread.
    static GstClockTime runningTime();

private:
    struct Elements;

    static int onMessage(GstBus* bus, GstMessage* message, void* pipeline);

    std::shared_ptr<Elements> mElements;
    Ended mEnded;
    unsigned mWatch = 0;
};

}  // namespace vexalive

#endif
