// The commands of the `vexalive` tool. Each is one source file with an add…Command() function, which is declared here
// and listed in CommandLine.cpp.

#ifndef VEXALIVE_TOOLS_COMMAND_H
#define VEXALIVE_TOOLS_COMMAND_H

#include <CLI/App.hpp>
#include <functional>

#include "common/Result.h"

namespace vexalive {

struct Command {
    CLI::App* app;
    // Call after parsing. Returns the exit status (ExitStatus.h), or an error if nothing was sent: an option is missing
    // or wrong, or no descriptor is free. runCommandLine() then exits with kUsage.
    std::function<Result<int>()> run;
};

Command addPreviewCommand(CLI::App& tool);
Command addMixCommand(CLI::App& tool);
Command addRelayCommand(CLI::App& tool);
Command addServeCommand(CLI::App& tool);
Command addStreamIdCommand(CLI::App& tool);

}  // namespace vexalive

#endif
