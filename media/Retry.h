// How long to wait before a connection is tried again.

#ifndef VEXALIVE_MEDIA_RETRY_H
#define VEXALIVE_MEDIA_RETRY_H

#include <algorithm>
#include <chrono>

namespace vexalive {

class Retry {
public:
    // 250 ms, and twice as long each time, up to 4 s.
    std::chrono::milliseconds next() {
        const std::chrono::milliseconds pause = mPause;
        mPause = std::min(2 * mPause, kLongest);
        return pause;
    }
    void succeeded() { mPause = kShortest; }

private:
    static constexpr std::chrono::milliseconds kShortest{250};
    static constexpr std::chrono::milliseconds kLongest{4000};

    std::chrono::milliseconds mPause = kShortest;
};

}  // namespace vexalive

#endif
