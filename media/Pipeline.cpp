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

// rtmp2src leaks its socket when it is stopped within its handshake, which this is enough for.
constexpr std::chrono::seconds kHandshake{3};

GstClock* systemClock() {
    static GstClock* const clock = gst_system_clock_obtain();
    return clock;
}

GstClockTime epoch() {
    static const GstClockTime moment = gst_clock_get_time(systemClock());
    return moment;
}

GstFlowReturn onSample(GstAppSink* sink, gpointer take) {
    const GstRef<GstSample> sample(gst_app_sink_pull_sample(sink));
    if (sample) {
        (*static_cast<Pipeline::Take*>(take))(sample.get());
    }
    return GST_FLOW_OK;
}

std::string errorOf(GstMessage* message) {
    GError* error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    std::string text = error->message;
    g_error_free(error);
    return text;
}

}  // namespace

void readBytes(GstSample* sample, const std::function<void(std::string_view bytes)>& read) {
    GstMapInfo map;
    GstBuffer* const buffer = gst_sample_get_buffer(sample);
    if (gst_buffer_map(buffer, &map, GST_MAP_READ)) {
        read({reinterpret_cast<const char*>(map.data), map.size});
        gst_buffer_unmap(buffer, &map);
    }
}

struct Pipeline::Elements {
    GstRef<GstElement> pipeline;
    std::chrono::steady_clock::time_point played;
    std::atomic<bool> hasFlowed{false};
    std::atomic<bool> hasEnded{false};

    // On a thread of its own.
    void bringDown() {
        while (!hasFlowed && !hasEnded && std::chrono::steady_clock::now() < played + kHandshake) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        gst_element_set_state(pipeline.get(), GST_STATE_NULL);
        pipeline.reset();
    }
};

GstClockTime Pipeline::runningTime() {
    const GstClockTime since = epoch();
    return gst_clock_get_time(systemClock()) - since;
}

Pipeline::Pipeline(const std::string& description, Ended ended)
    : mElements(std::make_shared<Elements>()), mEnded(std::move(ended)) {
    GError* error = nullptr;
    GstElement* const pipeline =
        gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error);
    if (!pipeline) {
        std::fprintf(stderr, "a part of GStreamer is missing: %s\n", error->message);
        std::_Exit(1);
    }
    mElements->pipeline.reset(GST_ELEMENT(gst_object_ref_sink(pipeline)));
    gst_pipeline_use_clock(GST_PIPELINE(pipeline), systemClock());
    gst_element_set_start_time(pipeline, GST_CLOCK_TIME_NONE);
    gst_element_set_base_time(pipeline, epoch());
    GstBus* const bus = gst_element_get_bus(pipeline);
    mWatch = gst_bus_add_watch(bus, onMessage, this);
    gst_object_unref(bus);
}

Pipeline::~Pipeline() {
    g_source_remove(mWatch);
    std::thread([elements = mElements] { elements->bringDown(); }).detach();
}

void Pipeline::take(const char* appsink, Take take) {
    GstAppSinkCallbacks callbacks{};
    callbacks.new_sample = onSample;
    auto each = [elements = mElements.get(), take = std::move(take)](GstSample* sample) {
        elements->hasFlowed = true;
        take(sample);
    };
    gst_app_sink_set_callbacks(GST_APP_SINK(find(appsink)), &callbacks, new Take(std::move(each)),
                               [](gpointer held) { delete static_cast<Take*>(held); });
}

void Pipeline::watch(const char* element, const char* name, std::function<void(GstBuffer*)> seen) {
    const GstRef<GstPad> pad(gst_element_get_static_pad(find(element), name));
    using Seen = std::function<void(GstBuffer*)>;
    gst_pad_add_probe(
        pad.get(), GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad*, GstPadProbeInfo* info, gpointer held) {
            (*static_cast<Seen*>(held))(gst_pad_probe_info_get_buffer(info));
            return GST_PAD_PROBE_OK;
        },
        new Seen(std::move(seen)), [](gpointer held) { delete static_cast<Seen*>(held); });
}

void Pipeline::play() {
    mElements->played = std::chrono::steady_clock::now();
    gst_element_set_state(mElements->pipeline.get(), GST_STATE_PLAYING);
}

GstBin* Pipeline::bin() const {
    return GST_BIN(mElements->pipeline.get());
}

GstElement* Pipeline::find(const char* name) const {
    GstElement* const element = gst_bin_get_by_name(bin(), name);
    gst_object_unref(element);  // the bin holds it
    return element;
}

int Pipeline::onMessage(GstBus*, GstMessage* message, void* self) {
    Pipeline& pipeline = *static_cast<Pipeline*>(self);
    const GstMessageType type = GST_MESSAGE_TYPE(message);
    if ((type == GST_MESSAGE_EOS || type == GST_MESSAGE_ERROR) && !pipeline.mElements->hasEnded.exchange(true)) {
        const Ended ended = pipeline.mEnded;  // a copy: the call may destroy the pipeline
        ended(type == GST_MESSAGE_EOS ? std::string() : errorOf(message));
    }
    return G_SOURCE_CONTINUE;
}

}  // namespace vexalive
