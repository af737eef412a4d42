#include "tools/CommandLine.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "base/Version.h"
#include "tools/Command.h"
#include "tools/ExitStatus.h"
#include "tools/Options.h"

namespace vexalive {
namespace {

constexpr Command (*kCommands[])(CLI::App& tool) = {addRelayCommand, addMixCommand, addPreviewCommand, addServeCommand,
                                                    addStreamIdCommand};

constexpr size_t kHelpColumns = 80;

// Breaks `text` at spaces into lines of at most `columns`.
std::string wrapped(const std::string& text, size_t columns) {
    std::string result;
    size_t length = 0;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        const bool fits = length + 1 + word.size() <= columns;
        result += length == 0 ? "" : fits ? " " : "\n";
        result += word;
        length = fits ? length + 1 + word.size() : word.size();
    }
    return result;
}

// Formats help like CLI11, but wraps lines at kHelpColumns and shows one line for each command.
class HelpFormatter : public CLI::Formatter {
public:
    HelpFormatter() {
        column_width(24);
        label("SUBCOMMAND", "COMMAND");
        label("Positionals", "Arguments");
    }
    std::string make_description(const CLI::App* app) const override { return app->get_description() + "\n\n"; }
    std::string make_option_usage(const CLI::Option* option) const override { return make_option_name(option, true); }
    std::string make_option_desc(const CLI::Option* option) const override {
        return wrapped(option->get_description(), kHelpColumns - get_column_width());
    }
    std::string make_subcommand(const CLI::App* command) const override {
        const std::string description = command->get_description();
        std::ostringstream out;
        CLI::detail::format_help(out, command->get_name(), description.substr(0, description.find('\n')),
                                 get_column_width());
        return out.str();
    }
};

std::vector<std::string> commandNames(const std::vector<Command>& commands) {
    std::vector<std::string> names;
    names.reserve(commands.size());
    for (const Command& command : commands) {
        names.push_back(command.app->get_name());
    }
    return names;
}

int usageError(const std::string& command, const std::string& message) {
    std::fprintf(stderr, "%s: %s\nTry: %s --help\n", command.c_str(), message.c_str(), command.c_str());
    return kUsage;
}

int runCommand(const Command& command) {
    const std::string name = "vexalive " + command.app->get_name();
    const std::vector<std::string> extras = command.app->remaining(true);
    if (!extras.empty()) {
        const bool hasSecrets = command.app->get_option_no_throw("--sig") != nullptr;
        return usageError(name, describeExtras(extras, longOptionNames(*command.app), hasSecrets));
    }
    const Result<int> status = command.run();
    return status ? *status : usageError(name, status.error().message);
}

}  // namespace

int runCommandLine(int argc, const char* const* argv) {
    CLI::App tool("Relay and mix the live streams of a room through a live-interface service.", "vexalive");
    tool.set_version_flag("--version", std::string("vexalive ") + kstf_get_sdk_version(), "Show the version and exit");
    tool.set_help_flag("-h,--help", "Show this help and exit");
    tool.formatter(std::make_shared<HelpFormatter>());
    tool.allow_extras();
    tool.require_subcommand(0, 1);
    tool.footer(
        "Run vexalive COMMAND --help for the options of a command.\n"
        "\n"
        "Example: run a local service in one terminal and a relay in another\n"
        "  vexalive serve           # prints two export lines; paste them into the other\n"
        "  export VEXALIVE_SIG=... VEXALIVE_MAP_KEY=...\n"
        "  vexalive relay rtmp://cdn.example/live/main --sdk-app-id 1400000001 \\\n"
        "      --user alice --room 4711 --app-id 1250000000 --biz-id 3891\n"
        "\n"
        "Exit status: 0 success; 1 refused by the service; 2 usage error; 3 no usable\n"
        "response; 130 aborted by a second Ctrl-C.");

    std::vector<Command> commands;
    for (const auto addCommand : kCommands) {
        commands.push_back(addCommand(tool));
        commands.back().app->allow_extras()->group("Commands");
    }

    try {
        tool.parse(argc, argv);
    } catch (const CLI::Success& helpOrVersion) {
        return tool.exit(helpOrVersion);
    } catch (const CLI::ParseError& error) {
        const std::vector<CLI::App*> commandsGiven = tool.get_subcommands();
        return usageError(commandsGiven.empty() ? "vexalive" : "vexalive " + commandsGiven.front()->get_name(),
                          error.what());
    }

    for (const Command& command : commands) {
        if (command.app->parsed()) {
            return runCommand(command);
        }
    }
    const std::vector<std::string> extras = tool.remaining();
    if (extras.empty()) {
        std::fputs(tool.help().c_str(), stderr);
        return kUsage;
    }
    const bool isOption = extras.front().front() == '-';
    return usageError("vexalive", isOption ? describeExtras(extras, longOptionNames(tool), true)
                                           : "unknown command \"" + extras.front() + "\"" +
                                                 didYouMean(extras.front(), commandNames(commands)));
}

}  // namespace vexalive
