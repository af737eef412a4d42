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

/// The active faults. Each request uses the first fault that applies to it and decrements its count. Any thread may
/// call any member function.
class FaultQueue {
public:
    static constexpr size_t kMax = 1000;  ///< number of active faults

    /// Fails if the fault is invalid or the queue is full.
    Result<void> add(const Fault& fault);

    /// Returns the first fault that applies to the interface, if any. Decrements its count; removes it at the last use.
    std::optional<Fault> take(const std::string& interfaceName);

    void clear();
    std::vector<Fault> active() const;

private:
    mutable KstMutex mMutex;
    std::list<Fault> mActive KST_GUARDED_BY(mMutex);
};

}  // namespace vexalive

#endif
