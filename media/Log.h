// The worker's log, on standard error.

#ifndef VEXALIVE_MEDIA_LOG_H
#define VEXALIVE_MEDIA_LOG_H

#include <string>

namespace vexalive {

/// Writes one line. Beyond 10 lines per second, lines are dropped and counted. Any thread.
void logLine(const std::string& line);

}  // namespace vexalive

#endif
