// The worker's log, on standard error.

#ifndef VEXALIVE_MEDIA_LOG_H
#define VEXALIVE_MEDIA_LOG_H

#include <string>

namespace vexalive {

/// Writes one line, up to 10 lines per second. Further lines are dropped; their number is logged. Any thread.
void logLine(const std::string& line);

}  // namespace vexalive

#endif
