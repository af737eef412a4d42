#include "service/FaultQueue.h"

namespace vexalive {

Result<void> FaultQueue::add(const Fault& fault) {
    if (Result<void> checked = checkFault(fault); !checked) {
        return checked;
    }
    KstMutexLock lock(mMutex);
    if (mActive.size() == kMax) {
        return failure(std::to_string(kMax) + " faults are active, the maximum; clear them first");
    }
    mActive.push_back(fault);
    return {};
}

std::optional<Fault> FaultQueue::take(const std::string& interfaceName) {
    KstMutexLock lock(mMutex);
    for (auto each = mActive.begin(); each != mActive.end(); ++each) {
        if (!each->interfaceName.empty() && each->interfaceName != interfaceName) {
            continue;
        }
        const Fault fault = *each;
        if (each->count > 0 && --each->count == 0) {
            mActive.erase(each);
        }
        return fault;
    }
    return std::nullopt;
}

void FaultQueue::clear() {
    KstMutexLock lock(mMutex);
    mActive.clear();
}

std::vector<Fault> FaultQueue::active() const {
    KstMutexLock lock(mMutex);
    return {mActive.begin(), mActive.end()};
}

}  // namespace vexalive
