#include "media/Log.h"

#include <chrono>
#include <cstdio>

#include "base/Mutex.h"

namespace vexalive {

namespace {

constexpr int kMaxLinesPerSecond = 10;

class RateLimitedLog {
public:
    void write(const std::string& line) {
        const auto now = std::chrono::steady_clock::now();
        const KstMutexLock lock(mMutex);
        if (now >= mIntervalBegin + std::chrono::seconds(1)) {
            if (mLines > kMaxLinesPerSecond) {
                std::fprintf(stderr, "dropped %d more lines\n", mLines - kMaxLinesPerSecond);
            }
            mIntervalBegin = now;
            mLines = 0;
        }
        if (++mLines <= kMaxLinesPerSecond) {
            std::fprintf(stderr, "%s\n", line.c_str());
        }
    }

private:
    KstMutex mMutex;
    std::chrono::steady_clock::time_point mIntervalBegin
        KST_GUARDED_BY(mMutex);             // begin of the current interval of 1 s
    int mLines KST_GUARDED_BY(mMutex) = 0;  // in that interval
};

}  // namespace

void logLine(const std::string& line) {
    static RateLimitedLog log;
    log.write(line);
}

}  // namespace vexalive
