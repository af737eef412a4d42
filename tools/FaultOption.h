// What `vexalive serve --fault` takes, as a fault of the service's.

#ifndef VEXALIVE_TOOLS_FAULT_OPTION_H
#define VEXALIVE_TOOLS_FAULT_OPTION_H

#include <string>

#include "service/LiveService.h"

namespace vexalive {

// Reads "status=503,count=2": what to do, then for how many requests and other particulars. UsageError if it cannot be
// read; the service itself judges ranges.
Fault readFault(const std::string& text);

// How it is written, for the help.
extern const char* const kFaultHelp;

}  // namespace vexalive

#endif
