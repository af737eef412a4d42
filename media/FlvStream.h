// A stream in the form that RTMP transports: a sequence of FLV tags. The codecs do not matter.

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
    enum class Kind : uint8_t { kAudio = 8, kVideo = 9, kScript = 18 };  // the tag types of FLV
    enum class Packet : uint8_t { kSequenceHeader = 0, kFrame = 1 };     // the packet types of AVC and AAC
    enum class FrameType : uint8_t { kKey = 1, kInter = 2 };             // the frame types of video
    // Sizes in bytes. The comments list the fields; a number is the size of a field of more than one byte.
    static constexpr size_t kHeaderSize = 11;      // type, size (3), timestamp (3), its highest byte, stream id (3)
    static constexpr size_t kVideoHeaderSize = 5;  // frame type with codec, packet type, composition time (3)
    static constexpr size_t kAudioHeaderSize = 2;  // codec, packet type
    static constexpr size_t kTrailerSize = 4;      // the tag's size (4)

    Kind kind = Kind::kScript;
    int64_t timestamp = 0;  ///< milliseconds
    std::string bytes;      ///< the whole tag with its trailer; use `timestamp`, not the one in these bytes

    bool isMedia() const { return kind != Kind::kScript; }  ///< audio or video; servers insert their own script tags
    /// Whether the tag is a sequence header or the metadata. A decoder or player needs them first on each connection.
    bool isStreamHeader() const;
    bool isFrame() const { return isMedia() && !isStreamHeader(); }
    bool isKeyFrame() const;
    unsigned codec() const;  ///< the codec id; of audio and video tags only

    /// The part of an AVC or AAC tag that the decoder needs; empty for other codecs.
    std::string_view payload() const;
    /// The presentation time of an AVC frame minus its decoding time, in milliseconds; may be negative.
    int64_t compositionTime() const;

    /// The bytes of the tag with another timestamp, in milliseconds.
    std::string withTimestamp(int64_t time) const;
};

/// Splits a byte stream, which arrives in pieces of any size, into tags.
class FlvReader {
public:
    /// Calls `onTag` for each tag that `piece` completes. Returns false if the stream is not FLV; do not call it again
    /// then.
    bool read(std::string_view piece, const std::function<void(const FlvTag& tag)>& onTag);

private:
    bool mHasHeader = false;
    std::string mRest;  // the begin of an incomplete tag
};

/// Converts the timestamps of a source to one sequence that continues if the source reconnects or its clock jumps. It
/// never decreases. If the source pauses, the sequence has a gap of the same length. Times are in milliseconds.
class SteadyTime {
public:
    /// Call before the first timestamp of each new connection.
    void beginConnection() { mNeedsOffset = true; }

    /// Converts a timestamp. `now` is the current time of any monotonic clock.
    int64_t convert(int64_t timestamp, int64_t now);

    int64_t last() const { return mLast; }  ///< the last converted timestamp

private:
    bool mNeedsOffset = true;
    bool mHasBegun = false;
    int64_t mOffset = 0;   // added to the source's timestamps
    int64_t mLast = 0;     // the last converted timestamp
    int64_t mLastNow = 0;  // the time of that conversion
};

/// Passes a source's tags to a destination as long as the destination's queue is short.
///
/// The gate closes if the queue is full or the destination has just connected. It opens at the next key frame, or at
/// the next audio frame if there is no video, and then sends the stream headers first. A closed gate drops tags, so the
/// queue stays bounded.
class FlvGate {
public:
    static constexpr size_t kMaxQueued = size_t{4} << 20;  ///< bytes; the gate closes above this limit
    static constexpr int64_t kVideoTimeout = 3'000;        ///< after so many ms without video, audio opens the gate

    void forgetHeaders() { mHeaders.clear(); }  ///< call if the source reconnects: it sends new headers
    void close() { mIsOpen = false; }           ///< call if the destination reconnects

    /// Call with each tag of the source, even while no destination is connected. `now` is the current time in
    /// milliseconds of any monotonic clock.
    void observe(const FlvTag& tag, int64_t now);

    /// Sends or drops `tag`, which must be the tag of the last observe(). Calls `send` for each tag to send: if the
    /// gate opens, for the stream headers first. `queued` is the number of bytes in the destination's queue. Returns
    /// false if `tag` is dropped.
    bool pass(const FlvTag& tag, size_t queued, const std::function<void(const FlvTag& tag)>& send);

private:
    bool mIsOpen = false;
    std::vector<FlvTag> mHeaders;             // the latest of each kind; kinds in the order of their first arrival
    int64_t mLastTag = 0;                     // time of the last tag
    int64_t mLastVideo = -kVideoTimeout - 1;  // time of the last video tag
};

}  // namespace vexalive

#endif
