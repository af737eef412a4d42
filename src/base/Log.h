/// @file
/// The SDK's log. The default implementation is platform/Log.cpp. It passes each line to the host's sink
/// (platform/Platform.h) if one is set, else to spdlog.

#ifndef VEXALIVE_BASE_LOG_H
#define VEXALIVE_BASE_LOG_H

/// Writes one line. Any thread may call. The strings are used during the call only. No line contains the user signature
/// or the map key.
/// @param level  1 debug, 2 info (progress), 3 warning, 4 error (refusals).
/// @param file  base name of the source file.
/// @param function  name of the function that logs.
/// @param format  as for printf, as are the arguments after it.
void kstf_log(int level, const char* file, int line, const char* function, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 5, 6)))
#endif
    ;

#endif
