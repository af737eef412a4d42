// A command of the `vexalive` tool: what CommandLine.cpp needs to know of it.
//
// Each command is one file with two functions: one declares its options on the command line and is named below, the
// other runs. A further command is a further file and a row of the list in CommandLine.cpp.

#ifndef VEXALIVE_TOOLS_COMMAND_H
#define VEXALIVE_TOOLS_COMMAND_H

#include <CLI/App.hpp>
#include <functional>

namespace vexalive {

struct Command {
    CLI::App* app;             // as it stands in the command line
    std::function<int()> run;  // after parsing: the exit status; UsageError if an option is missing or wrong
};

Command addPreviewCommand(CLI::App& tool);
Command addMixCommand(CLI::App& tool);
Command addRelayCommand(CLI::App& tool);
Command addServeCommand(CLI::App& tool);
Command addStreamIdCommand(CLI::App& tool);

}  // namespace vexalive

#endif
