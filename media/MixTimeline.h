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

    static constexpr int64_t kCushion = 150'000'000;     // takes in the unevenness of the road and of the decoder
    static constexpr int64_t kMaxAhead = 1'000'000'000;  // then the publisher's clock has jumped, or runs fast
    static constexpr int64_t kMinAhead = 50'000'000;     // else it is late: it is yet to be decoded, and sound joined
    static constexpr int64_t kMaxLate = 5'000'000'000;   // then it has jumped back
    static constexpr int64_t kPatience = 1'000'000'000;  // with one that is late again and again, but may catch up

    // `decoding` is when it is to be decoded, by the publisher's clock: so late or early is told in the order in which
    // media come. What is returned belongs to that moment.
    int64_t at(Kind kind, int64_t decoding, int64_t now) {
        const int64_t lead = decoding + mOffset - now;
        if (!mHasBegun || lead > kMaxAhead || lead < -kMaxLate || (lead < kMinAhead && isLateForLong(kind, now))) {
            mHasBegun = true;
            mOffset = now + kCushion - decoding;
            mLate[kAudio] = mLate[kVideo] = Lateness();
        }
        return decoding + mOffset;
    }

private:
    // A spell of it ends when all has been in time for as long as the patience lasts. One that comes in time now and
    // then would not do: with every other piece of sound late, the mix crackles.
    struct Lateness {
        int64_t since = 0;
        int64_t last = INT64_MIN / 2;
    };

    bool isLateForLong(Kind kind, int64_t now) {
        Lateness& late = mLate[kind];
        late.since = now - late.last > kPatience ? now : late.since;
        late.last = now;
        return now - late.since > kPatience;
    }

    bool mHasBegun = false;
    int64_t mOffset = 0;
    Lateness mLate[2];
};

}  // namespace vexalive

#endif
