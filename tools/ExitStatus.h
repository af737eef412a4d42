#ifndef VEXALIVE_TOOLS_EXIT_STATUS_H
#define VEXALIVE_TOOLS_EXIT_STATUS_H

namespace vexalive {

// The exit statuses of the `vexalive` tool. Scripts rely on them.
enum ExitStatus {
    kSucceeded = 0,
    kRefused = 1,        // the service refused; preview: the adapter would refuse; serve: could not start
    kUsage = 2,          // an option or a file is missing or wrong; nothing was sent
    kNoResponse = 3,     // the service was not reached, or its response was unreadable
    kInterrupted = 130,  // aborted by a second Ctrl-C
};

}  // namespace vexalive

#endif
