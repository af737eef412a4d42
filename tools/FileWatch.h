// Tells when a file has been saved: written and closed, or moved into its place. Linux's inotify.

#ifndef VEXALIVE_TOOLS_FILE_WATCH_H
#define VEXALIVE_TOOLS_FILE_WATCH_H

#include <string>

namespace vexalive {

// For one thread.
class FileWatch {
public:
    // Watches the folder, since many editors save by replacing the file. Throws std::system_error if it cannot.
    explicit FileWatch(const std::string& path);
    ~FileWatch();
    FileWatch(const FileWatch&) = delete;
    FileWatch& operator=(const FileWatch&) = delete;

    // Readable for poll() while there may be something to take.
    int fd() const { return mFd; }

    // Whether the file was saved since the last call; does not wait.
    bool takeChange();

private:
    std::string mName;  // in its folder
    int mFd;
};

}  // namespace vexalive

#endif
