// One child process, with its standard streams as pipes.
//
// Used by Supervisor. The child dies with the thread that started it, however that ends, so one thread starts all
// children and lives as long as they shall. For one thread.

#ifndef VEXALIVE_SERVICE_CHILD_H
#define VEXALIVE_SERVICE_CHILD_H

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/Descriptor.h"

namespace vexalive {

// An executable file of that name in one of `folders`, which have a colon between them, or in one of PATH's; empty if
// there is none.
std::string findProgram(const std::string& name, const std::string& folders);

class Child {
public:
    // Runs `arguments[0]`, a path. Null if that fails; `error` tells why. The child leads a process group of its own,
    // so that a terminal's Ctrl-C is for this process to pass on, and has no descriptor but its standard streams.
    static std::unique_ptr<Child> start(const std::vector<std::string>& arguments, std::string& error);
    ~Child();  // kills and awaits one that was not reaped
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void signal(int number);

    // How it ended, in words: "ended with exit status 1". Nothing while it runs.
    std::optional<std::string> reap();

    // This side of its standard streams, none of which blocks.
    Descriptor input;
    Descriptor output;
    Descriptor errors;

    int exitFd() const { return mExit.get(); }  // readable once it has ended

private:
    Child(pid_t pid, Descriptor exit) : mPid(pid), mExit(std::move(exit)) {}

    pid_t mPid;  // 0: reaped
    Descriptor mExit;
};

}  // namespace vexalive

#endif
