// When the media of one connection have their turn in the mix.
//
// A connection brings timestamps of its publisher's. All of them, of audio and video, get the same offset, so they stay
// together; the offset is such that what comes at the usual pace comes a little before its turn. Times are in
// nanoseconds.

#ifndef VEXALIVE_MEDIA_MIX_TIMELINE_H
#define VEXALIVE_MEDIA_MIX_TIMELINE_H

#include <cstdint>

namespace vexalive {

class MixTimeline {
public:
    enum Kind { kAudio, kVideo };

    static constexpr int64_t kCushion = 150'000'000;      // takes in the unevenness of the road and of the decoder
    static constexpr int64_t kMostAhead = 1'000'000'000;  // then the publisher's clock has jumped, or runs fast
    static constexpr int64_t kMostLate = 5'000'000'000;   // then it has jumped back
    static constexpr int64_t kPatience = 1'000'000'000;   // with one that is late, but may catch up

    // `decoding` is when it is to be decoded, by the publisher's clock: so late or early is told in the order in which
    // media come. What is returned belongs to that moment.
    int64_t at(Kind kind, int64_t decoding, int64_t now) {
        const int64_t lead = decoding + mOffset - now;
        if (!mHasBegun || lead > kMostAhead || lead < -kMostLate || isLateForLong(kind, lead < 0, now)) {
            mHasBegun = true;
            mOffset = now + kCushion - decoding;
            mLateSince[kAudio] = mLateSince[kVideo] = kNever;
        }
        return decoding + mOffset;
    }

private:
    static constexpr int64_t kNever = INT64_MAX;

    bool isLateForLong(Kind kind, bool isLate, int64_t now) {
        int64_t& since = mLateSince[kind];
        since = !isLate ? kNever : since == kNever ? now : since;
        return since != kNever && now - since > kPatience;
    }

    bool mHasBegun = false;
    int64_t mOffset = 0;
    int64_t mLateSince[2] = {kNever, kNever};
};

}  // namespace vexalive

#endif
