// The SDK's log. Default: platform/Log.cpp on spdlog, or the host's own sink (platform/Platform.h).

#ifndef VEXALIVE_BASE_LOG_H
#define VEXALIVE_BASE_LOG_H

// Writes one line. `level`: 1 debug, 2 info (progress), 3 warning, 4 error (refusals). `file` is the base name of the
// source file, `function` the function whose line it is; `format` and what follows are printf's. Any thread may call;
// the texts need to live for the call only. The user signature and the map key are never part of a line.
void kstf_log(int level, const char* file, int line, const char* function, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 5, 6)))
#endif
    ;

#endif
