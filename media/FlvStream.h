// A stream as RTMP carries it: a sequence of FLV tags, whatever the codecs in them.

#ifndef VEXALIVE_MEDIA_FLV_STREAM_H
#define VEXALIVE_MEDIA_FLV_STREAM_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace vexalive {

/// The first bytes of an FLV stream with audio and video, with the size of the tag before the first: 0.
extern const std::string_view kFlvHeader;

/// Codec ids, as they stand in a tag and in onMetaData.
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
    std::string bytes;      ///< the whole tag with its trailer; the timestamp in there has no meaning

    bool isMedia() const { return kind != Kind::kScript; }  ///< what a server sends of its own are scripts
    /// Tells a decoder or a player what follows: a sequence header or the metadata. Each connection starts with these.
    bool isStreamHeader() const;
    bool isFrame() const { return isMedia() && !isStreamHeader(); }
    bool isKeyFrame() const;
    unsigned codec() const;  ///< of audio or video

    /// What the decoder gets of AVC or AAC; empty if the tag has none.
    std::string_view payload() const;
    /// By how much an AVC frame is shown later than it is decoded, in milliseconds; may be negative.
    int64_t compositionTime() const;

    /// The tag on the wire with another timestamp, in milliseconds.
    std::string at(int64_t time) const;
};

/// Splits bytes, in pieces of any size, into tags.
class FlvReader {
public:
    /// False if the bytes are no FLV; nothing more can be read then.
    bool read(std::string_view piece, const std::function<void(const FlvTag& tag)>& onTag);

private:
    bool mHasHeader = false;
    std::string mRest;
};

/// Joins the timestamps of a source that reconnects, or whose clock jumps, into one sequence. Timestamps never go back,
/// and a pause of the source keeps its length. Times are in milliseconds.
class SteadyTime {
public:
    /// The next timestamp is from a new connection.
    void beginConnection() { mIsFirst = true; }

    /// `now` by any clock that does not go back.
    int64_t at(int64_t timestamp, int64_t now);

    int64_t last() const { return mLast; }

private:
    bool mIsFirst = true;
    bool mHasBegun = false;
    int64_t mOffset = 0;
    int64_t mLast = 0;
    int64_t mLastNow = 0;
};

/// Lets a source's tags through to a destination while that keeps up. A destination that is too slow, or has just been
/// connected, gets nothing until the next key frame (or audio frame, if no video comes) and before that the stream
/// headers. So the queue in front of it is bounded, whatever the tags are.
class FlvGate {
public:
    static constexpr size_t kMaxQueued = size_t{4} << 20;  ///< bytes; above, the gate closes
    static constexpr int64_t kVideoTimeout = 3'000;        ///< milliseconds without video; then audio opens the gate

    void forgetHeaders() { mHeaders.clear(); }  ///< the source is connected anew, and sends its own
    void close() { mIsOpen = false; }           ///< the destination is connected anew

    /// To be called with each tag of the source, whether there is a destination or not. `now` in milliseconds, by any
    /// clock.
    void observe(const FlvTag& tag, int64_t now);

    /// Calls `send` with what the destination gets because of `tag`, which was observed last; `queued` bytes wait for
    /// the destination. False if the tag is dropped.
    bool pass(const FlvTag& tag, size_t queued, const std::function<void(const FlvTag& tag)>& send);

private:
    bool mIsOpen = false;
    std::vector<FlvTag> mHeaders;  // the latest of each kind, in the order in which the kinds came
    int64_t mLastTag = 0;
    int64_t mLastVideo = -kVideoTimeout - 1;
};

}  // namespace vexalive

#endif
