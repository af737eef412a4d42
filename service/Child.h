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

/// The path of the executable file `name` in one of `folders` (separated by colons) or in PATH. The error is "NAME is
/// not installed".
Result<std::string> findProgram(const std::string& name, const std::string& folders);

/// One child process whose standard streams are pipes. Not thread-safe.
///
/// The kernel kills the child when the thread that started the child ends. So this thread must outlive the child.
class Child {
public:
    /// Runs `arguments[0]`, a path, with these arguments. The child inherits no descriptors except its standard
    /// streams. It has its own process group, so that Ctrl-C in a terminal signals only the calling process.
    static Result<std::unique_ptr<Child>> start(const std::vector<std::string>& arguments);
    ~Child();  ///< if the child was not reaped: kills it and waits for its exit
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void signal(int number);

    /// Reaps the child if it has exited, and returns how, for example "exited with status 1". std::nullopt while it
    /// runs.
    std::optional<std::string> reap();

    /// This process's ends of the child's standard streams, non-blocking.
    Descriptor input;
    Descriptor output;
    Descriptor errors;

    int exitFd() const { return mExit.get(); }  ///< readable once the child has exited

private:
    Child(pid_t pid, Descriptor exit) : mPid(pid), mExit(std::move(exit)) {}

    pid_t mPid;  // 0 after the child was reaped
    Descriptor mExit;
};

}  // namespace vexalive

#endif
