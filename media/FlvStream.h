// A stream as RTMP carries it: a run of FLV tags, whatever the codecs in them.

#ifndef VEXALIVE_MEDIA_FLV_STREAM_H
#define VEXALIVE_MEDIA_FLV_STREAM_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace vexalive {

// The first bytes of a FLV stream with audio and video, with the size of the tag before the first: 0.
extern const std::string_view kFlvHeader;

struct FlvTag {
    enum class Kind { kAudio, kVideo, kScript };

    Kind kind = Kind::kScript;
    int64_t timestamp = 0;  // milliseconds
    std::string bytes;      // the whole tag, with its size behind it; its timestamp in there counts for nothing

    // Tells a decoder or a player what comes; needed at the start of each connection.
    bool isSetup() const;
    bool isMedia() const { return kind != Kind::kScript; }  // what a server sends by itself, it sends as scripts
    bool isKeyFrame() const;

    // The tag on the wire at that time, in milliseconds.
    std::string at(int64_t time) const;
};

// Cuts bytes, in pieces of any size, into tags.
class FlvReader {
public:
    // False if the bytes are no FLV; nothing more can be read then.
    bool read(std::string_view piece, const std::function<void(const FlvTag& tag)>& take);

private:
    bool mHasHeader = false;
    std::string mRest;
};

// Makes one run of time of the connections of a source that comes and goes, and of one whose clock jumps. Times never
// go back, and a pause of the source stays as long as it was.
class SteadyTime {
public:
    // Whatever comes next is from a new connection.
    void beginConnection() { mIsFirst = true; }

    // `now` in milliseconds, of any clock that does not go back.
    int64_t at(int64_t timestamp, int64_t now);

    int64_t last() const { return mLast; }

private:
    bool mIsFirst = true;
    bool mHasBegun = false;
    int64_t mOffset = 0;
    int64_t mLast = 0;
    int64_t mLastNow = 0;
};

// Lets a source's tags through to a destination, as long as that keeps up. One that does not, or has just been
// connected, goes on at a key frame, or at a sound if no video comes, and is told the setup there. So it is bounded
// what waits for it, whatever the tags are.
class FlvGate {
public:
    static constexpr size_t kMaxWaiting = size_t{4} << 20;  // bytes; then it shuts
    static constexpr int64_t kSilent = 3'000;               // milliseconds without video, and none is waited for

    void forgetSetup() { mSetup.clear(); }  // the source is connected anew, and will tell its own
    void shut() { mIsOpen = false; }        // the destination is

    // Each tag of the source, whether there is a destination or not. `now` in milliseconds, of any clock.
    void see(const FlvTag& tag, int64_t now);

    // Of the tag that was seen last, while so many bytes wait for the destination: calls `give` for what that is to get
    // now. False if the tag is left out.
    bool pass(const FlvTag& tag, size_t waiting, const std::function<void(const FlvTag& tag)>& give);

private:
    bool mIsOpen = false;
    std::vector<FlvTag> mSetup;  // the latest of each kind, in the order in which the kinds came
    int64_t mCame = 0;
    int64_t mVideoCame = -kSilent - 1;
};

}  // namespace vexalive

#endif
