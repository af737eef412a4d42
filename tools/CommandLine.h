// The `vexalive` tool's command line as a whole: finds the command, runs it, and tells usage errors.

#ifndef VEXALIVE_TOOLS_COMMAND_LINE_H
#define VEXALIVE_TOOLS_COMMAND_LINE_H

namespace vexalive {

// Returns the exit status (ExitStatus.h). Expects blockStopSignals() to have been called.
int runCommandLine(int argc, const char* const* argv);

}  // namespace vexalive

#endif
