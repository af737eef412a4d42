// A function that a host may replace at any time, while other threads call it.

#ifndef VEXALIVE_PLATFORM_HOOK_H
#define VEXALIVE_PLATFORM_HOOK_H

#include <memory>
#include <utility>

#include "base/Mutex.h"

namespace vexalive {

template <class F>
class Hook {
public:
    void set(F hook) {
        std::shared_ptr<const F> next = hook ? std::make_shared<const F>(std::move(hook)) : nullptr;
        KstMutexLock lock(mMutex);
        mHook.swap(next);  // the previous function is destroyed after the lock is released
    }

    // The function, or null if none is set. The pointer keeps the function alive during a call.
    std::shared_ptr<const F> get() const {
        KstMutexLock lock(mMutex);
        return mHook;
    }

private:
    mutable KstMutex mMutex;
    std::shared_ptr<const F> mHook KST_GUARDED_BY(mMutex);
};

}  // namespace vexalive

#endif
