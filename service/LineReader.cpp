#include "service/LineReader.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace vexalive {

bool LineReader::read(int fd, Clock::time_point now, const std::function<void(const std::string& line)>& onLine) {
    if (now >= mSecond + std::chrono::seconds(1)) {
        mSecond = now;
        mLines = 0;
        mBytes = 0;
    }
    while (mBytes < mBounds.maxBytes) {
        std::array<char, 65536> piece;
        const ssize_t count = ::read(fd, piece.data(), std::min(piece.size(), mBounds.maxBytes - mBytes));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return count < 0 && errno == EAGAIN;
        }
        mBytes += static_cast<size_t>(count);
        split(piece.data(), static_cast<size_t>(count), onLine);
    }
    return true;
}

LineReader::Clock::time_point LineReader::ready() const {
    return mBytes < mBounds.maxBytes ? Clock::time_point::min() : mSecond + std::chrono::seconds(1);
}

void LineReader::split(const char* bytes, size_t count, const std::function<void(const std::string& line)>& onLine) {
    while (count > 0) {
        const auto* const newline = static_cast<const char*>(std::memchr(bytes, '\n', count));
        const size_t length = newline ? static_cast<size_t>(newline - bytes) : count;
        mIsTooLong = mIsTooLong || mLine.size() + length > mBounds.maxLineBytes;
        if (mIsTooLong) {
            mLine.clear();
        } else {
            mLine.append(bytes, length);
        }
        if (!newline) {
            return;
        }
        end(onLine);
        bytes += length + 1;
        count -= length + 1;
    }
}

void LineReader::end(const std::function<void(const std::string& line)>& onLine) {
    const std::string line = std::exchange(mLine, "");
    if (std::exchange(mIsTooLong, false) || mLines >= mBounds.maxLines) {
        ++mOmitted;
        return;
    }
    ++mLines;
    onLine(line);
}

std::string LineReader::takeRest() {
    return std::exchange(mLine, "");
}

uint64_t LineReader::takeOmitted() {
    return std::exchange(mOmitted, 0);
}

}  // namespace vexalive
