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
    // Runs the command. Call after parsing. Returns the exit status (ExitStatus.h). Fails if an option is missing or
    // wrong, or if no descriptor is free; nothing was sent then, and runCommandLine() returns kUsage.
    std::function<Result<int>()> run;
};

Command addPreviewCommand(CLI::App& tool);
Command addMixCommand(CLI::App& tool);
Command addRelayCommand(CLI::App& tool);
Command addServeCommand(CLI::App& tool);
Command addStreamIdCommand(CLI::App& tool);

}  // namespace vexalive

#endif
