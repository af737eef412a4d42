#include "tools/FileWatcher.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <filesystem>
#include <system_error>

namespace vexalive {

Result<FileWatcher> FileWatcher::watch(const std::string& path) {
    std::error_code problem;
    const std::filesystem::path file = std::filesystem::weakly_canonical(path, problem);
    if (problem) {
        return failure(path + " cannot be watched: " + problem.message());
    }
    Descriptor events(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!events.isOpen() ||
        inotify_add_watch(events.get(), file.parent_path().c_str(), IN_CLOSE_WRITE | IN_MOVED_TO) < 0) {
        return failure(path + " cannot be watched: " + systemMessage(errno));
    }
    return FileWatcher(file.filename(), std::move(events));
}

bool FileWatcher::pollChange() {
    bool isChanged = false;
    alignas(inotify_event) char buffer[16 * (sizeof(inotify_event) + NAME_MAX + 1)];
    for (ssize_t length = 0; (length = read(mEvents.get(), buffer, sizeof buffer)) > 0;) {
        for (const char* next = buffer; next < buffer + length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(next);
            const bool isOverflow = (event->mask & IN_Q_OVERFLOW) != 0;
            isChanged = isChanged || isOverflow || (event->len > 0 && mName == event->name);
            next += sizeof(inotify_event) + event->len;
        }
    }
    return isChanged;
}

}  // namespace vexalive
