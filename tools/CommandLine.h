// Parses the command line of the `vexalive` tool, runs the command and prints usage errors.

#ifndef VEXALIVE_TOOLS_COMMAND_LINE_H
#define VEXALIVE_TOOLS_COMMAND_LINE_H

namespace vexalive {

// Returns the exit status (ExitStatus.h). Call blockStopSignals() first.
int runCommandLine(int argc, const char* const* argv);

}  // namespace vexalive

#endif
