// How the `vexalive` tool ends, for scripts.

#ifndef VEXALIVE_TOOLS_EXIT_STATUS_H
#define VEXALIVE_TOOLS_EXIT_STATUS_H

namespace vexalive {

enum ExitStatus {
    kSucceeded = 0,
    kRefused = 1,        // by the service; of `serve`: it could not start
    kUsage = 2,          // an option is missing or wrong; nothing was sent
    kNoAnswer = 3,       // the service was not reached, or its answer could not be read
    kInterrupted = 130,  // a second Ctrl-C: what was under way was given up
};

}  // namespace vexalive

#endif
