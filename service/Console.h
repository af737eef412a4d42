// The console: the web page that shows what the service does. Its files, in service/console/, are compiled into the
// program.

#ifndef VEXALIVE_SERVICE_CONSOLE_H
#define VEXALIVE_SERVICE_CONSOLE_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vexalive {

struct ConsoleFile {
    const char* contentType;
    std::string_view content;
};

// The file that is served at `path`: "/" is the page; "/NAME" is a file that the page loads. std::nullopt for all other
// paths.
std::optional<ConsoleFile> consoleFile(const std::string& path);

std::vector<std::string> consolePaths();

}  // namespace vexalive

#endif
