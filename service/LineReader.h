#ifndef VEXALIVE_SERVICE_LINE_READER_H
#define VEXALIVE_SERVICE_LINE_READER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace vexalive {

/// Splits the output of a child process into lines. Bounds limit the cost of a child that writes too much. Not
/// thread-safe.
class LineReader {
public:
    using Clock = std::chrono::steady_clock;

    struct Bounds {
        size_t maxLineBytes;  ///< longer lines are omitted
        int maxLines;         ///< per second; further lines are omitted
        size_t maxBytes;      ///< per second; further bytes remain in the pipe
    };

    explicit LineReader(const Bounds& bounds) : mBounds(bounds) {}

    /// Reads the available bytes and calls `onLine` for each complete line. Returns false at the end of the stream.
    bool read(int fd, Clock::time_point now, const std::function<void(const std::string& line)>& onLine);

    /// The time from which read() reads again: in the past, unless maxBytes were read in the current second.
    Clock::time_point ready() const;

    /// Returns and clears the incomplete line at the end of the stream.
    std::string takeRest();

    /// The number of lines omitted since the last call.
    uint64_t takeOmitted();

private:
    void split(const char* bytes, size_t count, const std::function<void(const std::string& line)>& onLine);
    void end(const std::function<void(const std::string& line)>& onLine);

    Bounds mBounds;
    std::string mLine;
    bool mIsTooLong = false;  // the current line is longer than maxLineBytes
    uint64_t mOmitted = 0;
    Clock::time_point mSecond;  // start of the current second
    int mLines = 0;             // number of lines in the current second
    size_t mBytes = 0;          // number of bytes in the current second
};

}  // namespace vexalive

#endif
