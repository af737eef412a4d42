// Detects when a file is saved: written and closed, or replaced by a rename. Uses inotify.

#ifndef VEXALIVE_TOOLS_FILE_WATCHER_H
#define VEXALIVE_TOOLS_FILE_WATCHER_H

#include <string>
#include <utility>

#include "common/Descriptor.h"
#include "common/Result.h"

namespace vexalive {

// Not thread-safe.
class FileWatcher {
public:
    // Watches the file's folder, because many editors save by replacing the file. Fails if the folder
    // cannot be watched.
    static Result<FileWatcher> watch(const std::string& path);

    // A descriptor for poll(). It is readable while events are pending.
    int fd() const { return mEvents.get(); }

    // Whether the file was saved since the last call; does not block.
    bool pollChange();

private:
    FileWatcher(std::string name, Descriptor events) : mName(std::move(name)), mEvents(std::move(events)) {}

    std::string mName;  // without the folder
    Descriptor mEvents;
};

}  // namespace vexalive

#endif
