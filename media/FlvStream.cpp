#include "media/FlvStream.h"

#include <algorithm>

namespace vexalive {

namespace {

constexpr size_t kTagHeader = 11;      // kind, size (3), timestamp (3, and its highest byte), stream id (3)
constexpr size_t kTagSize = 4;         // behind the tag
constexpr int64_t kMaxBack = 1'000;    // milliseconds; what goes back further is another clock
constexpr int64_t kMaxAhead = 10'000;  // the same, of what no pause explains
constexpr size_t kSetupPacket = 0;     // of AVC and AAC: a decoder's configuration

unsigned byteAt(std::string_view bytes, size_t place) {
    return place < bytes.size() ? static_cast<unsigned char>(bytes[place]) : 0;
}

size_t number24(std::string_view bytes, size_t place) {
    return byteAt(bytes, place) << 16 | byteAt(bytes, place + 1) << 8 | byteAt(bytes, place + 2);
}

bool readKind(unsigned byte, FlvTag::Kind& kind) {
    switch (byte) {
        case 8:
            kind = FlvTag::Kind::kAudio;
            return true;
        case 9:
            kind = FlvTag::Kind::kVideo;
            return true;
        case 18:
            kind = FlvTag::Kind::kScript;
            return true;
        default:
            return false;
    }
}

}  // namespace

const std::string_view kFlvHeader{"FLV\x01\x05\0\0\0\x09\0\0\0\0", 13};

bool FlvTag::isSetup() const {
    const unsigned format = byteAt(bytes, kTagHeader);
    if (isMedia() && bytes.size() < kTagHeader + 2 + kTagSize) {
        return false;
    }
    switch (kind) {
        case Kind::kVideo:
            return (format & 0x0f) == 7 && byteAt(bytes, kTagHeader + 1) == kSetupPacket;
        case Kind::kAudio:
            return format >> 4 == 10 && byteAt(bytes, kTagHeader + 1) == kSetupPacket;
        case Kind::kScript:
            break;
    }
    return bytes.find("onMetaData") != std::string::npos;
}

bool FlvTag::isKeyFrame() const {
    return kind == Kind::kVideo && byteAt(bytes, kTagHeader) >> 4 == 1;
}

std::string FlvTag::at(int64_t time) const {
    std::string result = bytes;
    const auto value = static_cast<uint32_t>(time);
    const int shifts[] = {16, 8, 0, 24};
    for (size_t i = 0; i < 4; ++i) {
        result[4 + i] = static_cast<char>(value >> shifts[i] & 0xff);
    }
    return result;
}

bool FlvReader::read(std::string_view piece, const std::function<void(const FlvTag& tag)>& take) {
    mRest += piece;
    if (!mHasHeader) {
        if (mRest.size() < kFlvHeader.size()) {
            return true;
        }
        if (mRest.compare(0, 3, "FLV") != 0) {
            return false;
        }
        mRest.erase(0, kFlvHeader.size());
        mHasHeader = true;
    }
    size_t place = 0;
    while (mRest.size() >= place + kTagHeader) {
        const std::string_view rest = std::string_view(mRest).substr(place);
        const size_t size = kTagHeader + number24(rest, 1) + kTagSize;
        FlvTag tag;
        if (!readKind(byteAt(rest, 0), tag.kind)) {
            return false;
        }
        if (rest.size() < size) {
            break;
        }
        tag.timestamp = static_cast<int64_t>(number24(rest, 4) | static_cast<size_t>(byteAt(rest, 7)) << 24);
        tag.bytes = rest.substr(0, size);
        take(tag);
        place += size;
    }
    mRest.erase(0, place);
    return true;
}

int64_t SteadyTime::at(int64_t timestamp, int64_t now) {
    const int64_t ahead = timestamp + mOffset - mLast;
    mIsFirst = mIsFirst || ahead < -kMaxBack || ahead > now - mLastNow + kMaxAhead;
    if (mIsFirst) {
        const int64_t begin = mHasBegun ? mLast + std::max<int64_t>(now - mLastNow, 1) : 0;
        mOffset = begin - timestamp;
        mIsFirst = false;
        mHasBegun = true;
    }
    mLast = std::max(mLast, timestamp + mOffset);
    mLastNow = now;
    return mLast;
}

void FlvGate::see(const FlvTag& tag, int64_t now) {
    mCame = now;
    mVideoCame = tag.kind == FlvTag::Kind::kVideo ? now : mVideoCame;
    if (!tag.isSetup()) {
        return;
    }
    const auto known =
        std::find_if(mSetup.begin(), mSetup.end(), [&tag](const FlvTag& each) { return each.kind == tag.kind; });
    if (known == mSetup.end()) {
        mSetup.push_back(tag);
    } else {
        *known = tag;
    }
}

bool FlvGate::pass(const FlvTag& tag, size_t waiting, const std::function<void(const FlvTag& tag)>& give) {
    mIsOpen = mIsOpen && waiting <= kMaxWaiting;
    const bool isBeginning = tag.isMedia() && !tag.isSetup() && (tag.isKeyFrame() || mCame - mVideoCame > kSilent);
    if (!mIsOpen && isBeginning && waiting < kMaxWaiting / 4) {
        mIsOpen = true;
        for (const FlvTag& setup : mSetup) {
            give(setup);
        }
    }
    if (mIsOpen) {
        give(tag);
    }
    return mIsOpen;
}

}  // namespace vexalive
