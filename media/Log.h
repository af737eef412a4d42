// The worker's log: lines for people, on standard error.

#ifndef VEXALIVE_MEDIA_LOG_H
#define VEXALIVE_MEDIA_LOG_H

#include <string>

namespace vexalive {

/// Writes one line. Above 10 lines a second, lines are counted and left out. Any thread.
void logLine(const std::string& line);

}  // namespace vexalive

#endif
