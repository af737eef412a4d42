#include "media/FlvStream.h"

#include <algorithm>
#include <optional>

namespace vexalive {

namespace {

// Milliseconds. The source's clock has jumped if a timestamp is further behind the last one, or further ahead of the
// time that has elapsed since.
constexpr int64_t kMaxBack = 1'000;
constexpr int64_t kMaxAhead = 10'000;

unsigned byteAt(std::string_view bytes, size_t position) {
    return position < bytes.size() ? static_cast<unsigned char>(bytes[position]) : 0;
}

size_t number24(std::string_view bytes, size_t position) {
    return byteAt(bytes, position) << 16 | byteAt(bytes, position + 1) << 8 | byteAt(bytes, position + 2);
}

std::optional<FlvTag::Kind> kindOf(unsigned type) {
    for (const FlvTag::Kind kind : {FlvTag::Kind::kAudio, FlvTag::Kind::kVideo, FlvTag::Kind::kScript}) {
        if (type == static_cast<unsigned>(kind)) {
            return kind;
        }
    }
    return std::nullopt;
}

}  // namespace

const std::string_view kFlvHeader{"FLV\x01\x05\0\0\0\x09\0\0\0\0", 13};

unsigned FlvTag::codec() const {
    const unsigned format = byteAt(bytes, kHeaderSize);
    return kind == Kind::kVideo ? format & 0x0f : format >> 4;
}

bool FlvTag::isStreamHeader() const {
    if (!isMedia()) {
        return bytes.find("onMetaData") != std::string::npos;
    }
    return bytes.size() >= kHeaderSize + 2 + kTrailerSize && codec() == (kind == Kind::kVideo ? kFlvAvc : kFlvAac) &&
           byteAt(bytes, kHeaderSize + 1) == static_cast<unsigned>(Packet::kSequenceHeader);
}

bool FlvTag::isKeyFrame() const {
    return kind == Kind::kVideo && byteAt(bytes, kHeaderSize) >> 4 == static_cast<unsigned>(FrameType::kKey);
}

std::string_view FlvTag::payload() const {
    const size_t begin = kHeaderSize + (kind == Kind::kVideo ? kVideoHeaderSize : kAudioHeaderSize);
    return bytes.size() <= begin + kTrailerSize
               ? std::string_view()
               : std::string_view(bytes).substr(begin, bytes.size() - begin - kTrailerSize);
}

int64_t FlvTag::compositionTime() const {
    const auto value = static_cast<int64_t>(number24(bytes, kHeaderSize + 2));
    return value < 0x800000 ? value : value - 0x1000000;
}

std::string FlvTag::withTimestamp(int64_t time) const {
    std::string result = bytes;
    const auto value = static_cast<uint32_t>(time);
    const int shifts[] = {16, 8, 0, 24};
    for (size_t i = 0; i < 4; ++i) {
        result[4 + i] = static_cast<char>(value >> shifts[i] & 0xff);
    }
    return result;
}

bool FlvReader::read(std::string_view piece, const std::function<void(const FlvTag& tag)>& onTag) {
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
    size_t position = 0;
    while (mRest.size() >= position + FlvTag::kHeaderSize) {
        const std::string_view rest = std::string_view(mRest).substr(position);
        const size_t size = FlvTag::kHeaderSize + number24(rest, 1) + FlvTag::kTrailerSize;
        const std::optional<FlvTag::Kind> kind = kindOf(byteAt(rest, 0));
        if (!kind) {
            return false;
        }
        if (rest.size() < size) {
            break;
        }
        FlvTag tag;
        tag.kind = *kind;
        tag.timestamp = static_cast<int64_t>(number24(rest, 4) | static_cast<size_t>(byteAt(rest, 7)) << 24);
        tag.bytes = rest.substr(0, size);
        onTag(tag);
        position += size;
    }
    mRest.erase(0, position);
    return true;
}

int64_t SteadyTime::convert(int64_t timestamp, int64_t now) {
    const int64_t ahead = timestamp + mOffset - mLast;
    mNeedsOffset = mNeedsOffset || ahead < -kMaxBack || ahead > now - mLastNow + kMaxAhead;
    if (mNeedsOffset) {
        const int64_t begin = mHasBegun ? mLast + std::max<int64_t>(now - mLastNow, 1) : 0;
        mOffset = begin - timestamp;
        mNeedsOffset = false;
        mHasBegun = true;
    }
    mLast = std::max(mLast, timestamp + mOffset);
    mLastNow = now;
    return mLast;
}

void FlvGate::observe(const FlvTag& tag, int64_t now) {
    mLastTag = now;
    mLastVideo = tag.kind == FlvTag::Kind::kVideo ? now : mLastVideo;
    if (!tag.isStreamHeader()) {
        return;
    }
    const auto known =
        std::find_if(mHeaders.begin(), mHeaders.end(), [&tag](const FlvTag& each) { return each.kind == tag.kind; });
    if (known == mHeaders.end()) {
        mHeaders.push_back(tag);
    } else {
        *known = tag;
    }
}

bool FlvGate::pass(const FlvTag& tag, size_t queued, const std::function<void(const FlvTag& tag)>& send) {
    mIsOpen = mIsOpen && queued <= kMaxQueued;
    const bool mayStart = tag.isFrame() && (tag.isKeyFrame() || mLastTag - mLastVideo > kVideoTimeout);
    if (!mIsOpen && mayStart && queued < kMaxQueued / 4) {
        mIsOpen = true;
        for (const FlvTag& header : mHeaders) {
            send(header);
        }
    }
    if (mIsOpen) {
        send(tag);
    }
    return mIsOpen;
}

}  // namespace vexalive
