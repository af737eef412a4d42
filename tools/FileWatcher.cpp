#include "tools/FileWatcher.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <filesystem>
#include <system_error>

namespace vexalive {

FileWatcher::FileWatcher(const std::string& path) : mFd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    const std::filesystem::path file = std::filesystem::weakly_canonical(path);
    mName = file.filename();
    if (mFd < 0 || inotify_add_watch(mFd, file.parent_path().c_str(), IN_CLOSE_WRITE | IN_MOVED_TO) < 0) {
        const int reason = errno;
        if (mFd >= 0) {
            close(mFd);
        }
        throw std::system_error(reason, std::generic_category(), path + " cannot be watched");
    }
}

FileWatcher::~FileWatcher() {
    close(mFd);
}

bool FileWatcher::pollChange() {
    bool isChanged = false;
    alignas(inotify_event) char buffer[16 * (sizeof(inotify_event) + NAME_MAX + 1)];
    for (ssize_t length = 0; (length = read(mFd, buffer, sizeof buffer)) > 0;) {
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
