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
        if (now >= mSecond + std::chrono::seconds(1)) {
            if (mLines > kMaxLinesPerSecond) {
                std::fprintf(stderr, "dropped %d more lines\n", mLines - kMaxLinesPerSecond);
            }
            mSecond = now;
            mLines = 0;
        }
        if (++mLines <= kMaxLinesPerSecond) {
            std::fprintf(stderr, "%s\n", line.c_str());
        }
    }

private:
    KstMutex mMutex;
    std::chrono::steady_clock::time_point mSecond KST_GUARDED_BY(mMutex);  // start of the current second
    int mLines KST_GUARDED_BY(mMutex) = 0;                                 // in that second
};

}  // namespace

void logLine(const std::string& line) {
    static RateLimitedLog log;
    log.write(line);
}

}  // namespace vexalive
