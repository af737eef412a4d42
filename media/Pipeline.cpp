#include "media/Pipeline.h"

#include <gst/app/gstappsink.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <utility>

namespace vexalive {

namespace {

// rtmp2src leaks its socket if it is stopped during its handshake. A pipeline is therefore stopped only after its first
// sample, its end, or this time.
constexpr std::chrono::seconds kHandshakeTimeout{3};
constexpr std::chrono::milliseconds kPollInterval{20};

GstClock* systemClock() {
    static GstClock* const clock = gst_system_clock_obtain();
    return clock;
}

GstClockTime baseTime() {
    static const GstClockTime moment = gst_clock_get_time(systemClock());
    return moment;
}

GstFlowReturn pullSample(GstAppSink* sink, gpointer onSample) {
    const GstRef<GstSample> sample(gst_app_sink_pull_sample(sink));
    if (sample) {
        (*static_cast<Pipeline::OnSample*>(onSample))(sample.get());
    }
    return GST_FLOW_OK;
}

std::string errorMessage(GstMessage* message) {
    GError* error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    std::string text = error->message;
    g_error_free(error);
    return text;
}

}  // namespace

MappedBytes::MappedBytes(GstBuffer* buffer) : mBuffer(gst_buffer_map(buffer, &mMap, GST_MAP_READ) ? buffer : nullptr) {}

MappedBytes::~MappedBytes() {
    if (mBuffer) {
        gst_buffer_unmap(mBuffer, &mMap);
    }
}

struct Pipeline::Elements {
    GstRef<GstElement> pipeline;
    std::chrono::steady_clock::time_point played;
    std::atomic<bool> hasFlowed{false};
    std::atomic<bool> hasEnded{false};

    void stopAndRelease() {
        while (!hasFlowed && !hasEnded && std::chrono::steady_clock::now() < played + kHandshakeTimeout) {
            std::this_thread::sleep_for(kPollInterval);
        }
        gst_element_set_state(pipeline.get(), GST_STATE_NULL);
        pipeline.reset();
    }
};

int64_t Pipeline::runningTime() {
    const GstClockTime base = baseTime();  // before the clock is read: the first call sets the base time
    return static_cast<int64_t>(gst_clock_get_time(systemClock()) - base);
}

Pipeline::Pipeline(const std::string& description, OnEnded onEnded)
    : mElements(std::make_shared<Elements>()), mOnEnded(std::move(onEnded)) {
    GError* error = nullptr;
    GstElement* const pipeline =
        gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error);
    if (!pipeline) {
        std::fprintf(stderr, "GStreamer cannot build the pipeline: %s\n", error->message);
        std::_Exit(1);
    }
    mElements->pipeline.reset(GST_ELEMENT(gst_object_ref_sink(pipeline)));
    gst_pipeline_use_clock(GST_PIPELINE(pipeline), systemClock());
    gst_element_set_start_time(pipeline, GST_CLOCK_TIME_NONE);
    gst_element_set_base_time(pipeline, baseTime());
    GstBus* const bus = gst_element_get_bus(pipeline);
    mBusWatch = gst_bus_add_watch(bus, onMessage, this);
    gst_object_unref(bus);
}

Pipeline::~Pipeline() {
    g_source_remove(mBusWatch);
    std::thread([elements = mElements] { elements->stopAndRelease(); }).detach();
}

void Pipeline::onSample(const char* appsink, OnSample onSample) {
    GstAppSinkCallbacks callbacks{};
    callbacks.new_sample = pullSample;
    auto each = [elements = mElements.get(), onSample = std::move(onSample)](GstSample* sample) {
        elements->hasFlowed = true;
        onSample(sample);
    };
    gst_app_sink_set_callbacks(GST_APP_SINK(find(appsink)), &callbacks, new OnSample(std::move(each)),
                               [](gpointer userData) { delete static_cast<OnSample*>(userData); });
}

void Pipeline::onBuffer(const char* element, const char* name, OnBuffer onBuffer) {
    const GstRef<GstPad> pad(gst_element_get_static_pad(find(element), name));
    gst_pad_add_probe(
        pad.get(), GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad*, GstPadProbeInfo* info, gpointer userData) {
            const bool passes = (*static_cast<OnBuffer*>(userData))(gst_pad_probe_info_get_buffer(info));
            return passes ? GST_PAD_PROBE_OK : GST_PAD_PROBE_DROP;
        },
        new OnBuffer(std::move(onBuffer)), [](gpointer userData) { delete static_cast<OnBuffer*>(userData); });
}

void Pipeline::play() {
    mElements->played = std::chrono::steady_clock::now();
    gst_element_set_state(mElements->pipeline.get(), GST_STATE_PLAYING);
}

GstElement* Pipeline::find(const char* name) const {
    GstElement* const element = gst_bin_get_by_name(GST_BIN(mElements->pipeline.get()), name);
    gst_object_unref(element);  // the pipeline holds it
    return element;
}

int Pipeline::onMessage(GstBus*, GstMessage* message, void* self) {
    Pipeline& pipeline = *static_cast<Pipeline*>(self);
    const GstMessageType type = GST_MESSAGE_TYPE(message);
    if ((type == GST_MESSAGE_EOS || type == GST_MESSAGE_ERROR) && !pipeline.mElements->hasEnded.exchange(true)) {
        const OnEnded onEnded = pipeline.mOnEnded;  // a copy: the call may destroy the pipeline
        onEnded(type == GST_MESSAGE_EOS ? Result<void>() : failure(errorMessage(message)));
    }
    return G_SOURCE_CONTINUE;
}

}  // namespace vexalive
