// A stream as RTMP carries it: a sequence of FLV tags, with any codecs.

#ifndef VEXALIVE_MEDIA_FLV_STREAM_H
#define VEXALIVE_MEDIA_FLV_STREAM_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace vexalive {

/// The header of an FLV stream with audio and video, followed by the "previous tag size" of the first tag: 0.
extern const std::string_view kFlvHeader;

/// Codec ids in a tag and in onMetaData.
constexpr unsigned kFlvAvc = 7;
constexpr unsigned kFlvAac = 10;

struct FlvTag {
    enum class Kind : uint8_t { kAudio = 8, kVideo = 9, kScript = 18 };  // the types on the wire
    enum class Packet : uint8_t { kSequenceHeader = 0, kFrame = 1 };     // of AVC and AAC
    enum class FrameType : uint8_t { kKey = 1, kInter = 2 };             // of video
    static constexpr size_t kHeaderSize = 11;  // type, size (3), timestamp (3, then its highest byte), stream id (3)
    static constexpr size_t kVideoHeaderSize = 5;  // frame type and codec, packet, composition time (3)
    static constexpr size_t kAudioHeaderSize = 2;  // codec, packet
    static constexpr size_t kTrailerSize = 4;      // the tag's size

    Kind kind = Kind::kScript;
    int64_t timestamp = 0;  ///< milliseconds
    std::string bytes;      ///< the whole tag with its trailer; ignore the timestamp inside

    bool isMedia() const { return kind != Kind::kScript; }  ///< a server adds scripts of its own to a stream
    /// Whether this is a sequence header or the metadata, which a decoder or player needs at the start of a connection.
    bool isStreamHeader() const;
    bool isFrame() const { return isMedia() && !isStreamHeader(); }
    bool isKeyFrame() const;
    unsigned codec() const;  ///< of audio or video

    /// The part of an AVC or AAC tag that the decoder needs; empty for other codecs.
    std::string_view payload() const;
    /// The presentation time of an AVC frame minus its decoding time, in milliseconds; may be negative.
    int64_t compositionTime() const;

    /// The bytes of the tag with another timestamp, in milliseconds.
    std::string at(int64_t time) const;
};

/// Splits bytes, in pieces of any size, into tags.
class FlvReader {
public:
    /// False if the bytes are not FLV. Do not call it again then.
    bool read(std::string_view piece, const std::function<void(const FlvTag& tag)>& onTag);

private:
    bool mHasHeader = false;
    std::string mRest;
};

/// Converts the timestamps of a source that reconnects, or whose clock jumps, to one continuous sequence. Timestamps
/// never decrease. A pause of the source keeps its length. Times are in milliseconds.
class SteadyTime {
public:
    /// The next timestamp is from a new connection.
    void beginConnection() { mIsFirst = true; }

    /// The continuous timestamp. `now` is read from any monotonic clock.
    int64_t at(int64_t timestamp, int64_t now);

    int64_t last() const { return mLast; }

private:
    bool mIsFirst = true;
    bool mHasBegun = false;
    int64_t mOffset = 0;
    int64_t mLast = 0;
    int64_t mLastNow = 0;
};

/// Passes a source's tags to a destination as long as its queue is short. If the queue is full, or the destination has
/// just connected, the gate closes: tags are dropped until the next key frame, or audio frame if there is no video. The
/// gate then sends the stream headers first. This bounds the queue.
class FlvGate {
public:
    static constexpr size_t kMaxQueued = size_t{4} << 20;  ///< bytes; with more, the gate closes
    static constexpr int64_t kVideoTimeout = 3'000;        ///< milliseconds without video until audio opens the gate

    void forgetHeaders() { mHeaders.clear(); }  ///< call if the source reconnects: it sends new headers
    void close() { mIsOpen = false; }           ///< call if the destination reconnects

    /// Call with each tag of the source, also without a destination. `now` is in milliseconds of any clock.
    void observe(const FlvTag& tag, int64_t now);

    /// Calls `send` for each tag to send: `tag` (the last that was observed), after stream headers if the gate opens.
    /// `queued` bytes wait for the destination. False if the tag is dropped.
    bool pass(const FlvTag& tag, size_t queued, const std::function<void(const FlvTag& tag)>& send);

private:
    bool mIsOpen = false;
    std::vector<FlvTag> mHeaders;  // the latest of each kind; kinds in the order of their first arrival
    int64_t mLastTag = 0;
    int64_t mLastVideo = -kVideoTimeout - 1;
};

}  // namespace vexalive

#endif
