/// @file
/// The SDK's room event reports. The default implementation is platform/EventReport.cpp. It passes each report to the
/// host's sink (platform/Platform.h) if one is set, else writes it as one log line.

#ifndef VEXALIVE_BASE_EVENT_REPORT_H
#define VEXALIVE_BASE_EVENT_REPORT_H

#include <cstdint>

/// Reports the outcome of a relay or mix operation. The adapter reports the final response to each request, each
/// refused start and each start before room entry. A start before room entry is reported a second time when its request
/// ends. A refused stop or cancel is not reported.
///
/// `sdkAppId`: low 32 bits of the SDK application id. `reserved`: 0. `roomUser`: room and user, joined by "_".
/// `eventType`: 10004. `event`: 30 for relays, 31 for mixes. `information`: SDK version and the operation's input.
/// `detail`: the trace of the request, a string that contains each response to it (up to eleven); or the reason why
/// nothing was sent. The strings are valid during the call. The adapter ignores the return value.
///
/// Threads: each adapter calls it on its own worker thread, so it runs on several threads at once. While it runs, the
/// adapter's other tasks wait.
int kstReportAvRoomEvt(int sdkAppId, uint64_t reserved, const char* roomUser, int eventType, int event,
                       const char* information, const char* detail);

#endif
