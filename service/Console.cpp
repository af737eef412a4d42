#include "service/Console.h"

#include <algorithm>
#include <iterator>

namespace vexalive {

namespace {

using namespace std::string_view_literals;

struct Entry {
    std::string_view path;
    ConsoleFile file;
};

constexpr Entry kEntries[] = {
#include "ConsoleFiles.inc"  // written by service/console/embed.cmake
};

}  // namespace

std::optional<ConsoleFile> consoleFile(const std::string& path) {
    const auto* found = std::find_if(std::begin(kEntries), std::end(kEntries),
                                     [&path](const Entry& entry) { return entry.path == path; });
    if (found == std::end(kEntries)) {
        return std::nullopt;
    }
    return found->file;
}

std::vector<std::string> consolePaths() {
    std::vector<std::string> paths;
    for (const Entry& entry : kEntries) {
        paths.emplace_back(entry.path);
    }
    return paths;
}

}  // namespace vexalive
