// Cuts into lines what a child process writes, within bounds that keep a child that floods from costing much.
//
// Used by Supervisor. For one thread.

#ifndef VEXALIVE_SERVICE_LINE_READER_H
#define VEXALIVE_SERVICE_LINE_READER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace vexalive {

class LineReader {
public:
    using Clock = std::chrono::steady_clock;

    struct Bounds {
        size_t mostLineBytes;  // a longer line is left out
        int mostLines;         // in a second; further ones are left out
        size_t mostBytes;      // in a second; further ones stay in the pipe
    };

    explicit LineReader(const Bounds& bounds) : mBounds(bounds) {}

    // Reads what is there and hands on each whole line, without its end. False once there will be nothing more.
    bool read(int fd, Clock::time_point now, const std::function<void(const std::string& line)>& take);

    // When the next read() may read anything; in the past if it may now.
    Clock::time_point ready() const;

    // What was begun without an end.
    std::string takeRest();

    // How many lines were left out since the last call.
    uint64_t takeOmitted();

private:
    void split(const char* bytes, size_t count, const std::function<void(const std::string& line)>& take);
    void end(const std::function<void(const std::string& line)>& take);

    Bounds mBounds;
    std::string mLine;
    bool mIsTooLong = false;  // the line in the making
    uint64_t mOmitted = 0;
    Clock::time_point mSecond;  // when the running second began
    int mLines = 0;             // in that second
    size_t mBytes = 0;          // in that second
};

}  // namespace vexalive

#endif
