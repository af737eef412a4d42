#include "base/EventReport.h"

#include "base/Log.h"
#include "platform/Hook.h"
#include "platform/Platform.h"

namespace {

// The sink is never destroyed: a worker may still report while the process exits.
vexalive::Hook<vexalive::EventSink>& eventSink() {
    static auto& sink = *new vexalive::Hook<vexalive::EventSink>();
    return sink;
}

}  // namespace

void vexalive::setEventSink(EventSink sink) {
    eventSink().set(std::move(sink));
}

int kstReportAvRoomEvt(int sdkAppId, uint64_t /*reserved*/, const char* roomUser, int eventType, int event,
                       const char* information, const char* detail) {
    if (const auto sink = eventSink().get()) {
        (*sink)({sdkAppId, roomUser, eventType, event, information, detail});
    } else {
        kstf_log(2, "EventReport.cpp", __LINE__, __func__,
                 "sdkAppId=%d roomUser=%s eventType=%d event=%d information=\"%s\" detail=\"%s\"", sdkAppId, roomUser,
                 eventType, event, information, detail);
    }
    return 0;
}
