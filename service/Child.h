#ifndef VEXALIVE_SERVICE_CHILD_H
#define VEXALIVE_SERVICE_CHILD_H

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/Descriptor.h"
#include "common/Result.h"

namespace vexalive {

/// The path of an executable file in one of `folders` (separated by colons) or in PATH; empty if there is none.
std::string findProgram(const std::string& name, const std::string& folders);

/// One child process, with its standard streams as pipes. Not thread-safe.
///
/// The kernel kills the child when the thread that started it ends, so one thread starts all children and outlives
/// them.
class Child {
public:
    /// Runs `arguments[0]`, a path. The child inherits its standard streams only. It leads a process group of its own,
    /// so that Ctrl-C in a terminal reaches only this process.
    static Result<std::unique_ptr<Child>> start(const std::vector<std::string>& arguments);
    ~Child();  ///< kills and waits for a child that was not reaped
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void signal(int number);

    /// How the child exited: "exited with status 1". std::nullopt while it runs.
    std::optional<std::string> reap();

    /// This process's ends of the child's standard streams, non-blocking.
    Descriptor input;
    Descriptor output;
    Descriptor errors;

    int exitFd() const { return mExit.get(); }  ///< readable once it has exited

private:
    Child(pid_t pid, Descriptor exit) : mPid(pid), mExit(std::move(exit)) {}

    pid_t mPid;  // 0: reaped
    Descriptor mExit;
};

}  // namespace vexalive

#endif
