// Detects when a file has been saved: written and closed, or replaced by a rename. Uses inotify.

#ifndef VEXALIVE_TOOLS_FILE_WATCHER_H
#define VEXALIVE_TOOLS_FILE_WATCHER_H

#include <string>

namespace vexalive {

// Not thread-safe.
class FileWatcher {
public:
    // Watches the file's folder, because many editors save by replacing the file. Throws std::system_error if the
    // folder cannot be watched.
    explicit FileWatcher(const std::string& path);
    ~FileWatcher();
    FileWatcher(const FileWatcher&) = delete;
    FileWatcher& operator=(const FileWatcher&) = delete;

    // For poll(): readable while events are pending.
    int fd() const { return mFd; }

    // Whether the file was saved since the last call; does not block.
    bool pollChange();

private:
    std::string mName;  // in its folder
    int mFd;
};

}  // namespace vexalive

#endif
