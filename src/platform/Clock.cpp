#include "base/Clock.h"

#include <chrono>

namespace {

template <class Clock>
uint64_t milliseconds() {
    using std::chrono::duration_cast;
    return static_cast<uint64_t>(duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count());
}

}  // namespace

uint64_t kstf_gettickcount() {
    return milliseconds<std::chrono::steady_clock>();
}

uint64_t kstf_getutctick() {
    return milliseconds<std::chrono::system_clock>();
}
