// The console: the web page that shows what the service does. Its files are in service/console/ and are compiled in.

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

// The file that is served at `path`: "/" is the page, "/NAME" a file that the page uses. std::nullopt for other paths.
std::optional<ConsoleFile> consoleFile(const std::string& path);

std::vector<std::string> consolePaths();

}  // namespace vexalive

#endif
