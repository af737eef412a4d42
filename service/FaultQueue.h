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

    /// An error if the fault is invalid, or if the queue is full.
    Result<void> add(const Fault& fault);

    /// The first that applies to the interface, used once more.
    std::optional<Fault> take(const std::string& interfaceName);

    void clear();
    std::vector<Fault> active() const;

private:
    mutable KstMutex mMutex;
    std::list<Fault> mActive KST_GUARDED_BY(mMutex);
};

}  // namespace vexalive

#endif
