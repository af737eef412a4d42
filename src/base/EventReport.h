// The SDK's room event reports. Default: platform/EventReport.cpp, which hands each to the host's sink
// (platform/Platform.h) or else writes it as one log line.

#ifndef VEXALIVE_BASE_EVENT_REPORT_H
#define VEXALIVE_BASE_EVENT_REPORT_H

#include <cstdint>

// Reports that a task ended. `sdkAppId`: low 32 bits of the SDK application id. `reserved`: 0. `roomUser`: the room and
// the user joined by "_". `eventType`: 10004. `event`: 30 for relay tasks, 31 for mix tasks. `information`: SDK version
// and the task's input. `detail`: what happened. The texts are copied during the call. The result is ignored.
// Called on the worker thread of each adapter, so several at once; it holds up that adapter while it runs. `detail` may
// hold eleven answers.
int kstReportAvRoomEvt(int sdkAppId, uint64_t reserved, const char* roomUser, int eventType, int event,
                       const char* information, const char* detail);

#endif
