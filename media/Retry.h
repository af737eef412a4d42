// The pauses between attempts to connect.

#ifndef VEXALIVE_MEDIA_RETRY_H
#define VEXALIVE_MEDIA_RETRY_H

#include <algorithm>
#include <chrono>

namespace vexalive {

class Retry {
public:
    /// Returns the next pause: 250 ms at first, then twice the previous pause, up to 4 s.
    std::chrono::milliseconds nextPause() {
        const std::chrono::milliseconds pause = mPause;
        mPause = std::min(2 * mPause, kMax);
        return pause;
    }

    /// Makes the next pause 250 ms again.
    void reset() { mPause = kMin; }

private:
    static constexpr std::chrono::milliseconds kMin{250};
    static constexpr std::chrono::milliseconds kMax{4000};

    std::chrono::milliseconds mPause = kMin;
};

}  // namespace vexalive

#endif
