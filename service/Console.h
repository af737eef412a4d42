// The console: the web page that shows what the service does. Its files stand in service/console/ and are compiled in.

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

// What a browser gets at `path`: "/" is the page, the others are the files that the page uses by their names.
std::optional<ConsoleFile> consoleFile(const std::string& path);

std::vector<std::string> consolePaths();

}  // namespace vexalive

#endif
