#ifndef VEXALIVE_SERVICE_FAULT_QUEUE_H
#define VEXALIVE_SERVICE_FAULT_QUEUE_H

#include <cstddef>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "base/Mutex.h"
#include "common/Result.h"
#include "service/Fault.h"

namespace vexalive {

/// The active faults. Each request consumes one use of the first that applies to it. Any thread may call any member.
class FaultQueue {
public:
    static constexpr size_t kMax = 1000;

    /// Fails if the fault is invalid or the queue is full.
    Result<void> add(const Fault& fault);

    /// Consumes one use of the first fault that applies to the interface, and returns that fault.
    std::optional<Fault> take(const std::string& interfaceName);

    void clear();
    std::vector<Fault> active() const;

private:
    mutable KstMutex mMutex;
    std::list<Fault> mActive KST_GUARDED_BY(mMutex);
};

}  // namespace vexalive

#endif
