/// @file
/// The SDK's room event reports. Default: platform/EventReport.cpp, which passes each to the host's sink
/// (platform/Platform.h) or writes it as one log line.

#ifndef VEXALIVE_BASE_EVENT_REPORT_H
#define VEXALIVE_BASE_EVENT_REPORT_H

#include <cstdint>

/// Reports the outcome of a relay or mix operation. The final response to a request makes one report. A start that is
/// refused or comes before room entry makes one, too; the latter makes another when it ends. A refused stop or cancel
/// makes none.
///
/// `sdkAppId`: low 32 bits of the SDK application id. `reserved`: 0. `roomUser`: room and user, joined by "_".
/// `eventType`: 10004. `event`: 30 for relays, 31 for mixes. `information`: SDK version and the operation's input.
/// `detail`: the trace of the request, with up to eleven complete responses. All strings are copied during the call.
/// The result is ignored.
///
/// Threads: called on the worker thread of each adapter, so on several at once. The adapter waits while it runs.
int kstReportAvRoomEvt(int sdkAppId, uint64_t reserved, const char* roomUser, int eventType, int event,
                       const char* information, const char* detail);

#endif
