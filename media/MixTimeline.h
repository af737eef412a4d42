// Presentation times for the media of one connection.
//
// A connection brings timestamps of its publisher's clock. Audio and video get the same offset, so they stay in sync;
// the offset is such that media which arrive at the usual pace arrive a little before their presentation time. Times
// are in nanoseconds.

#ifndef VEXALIVE_MEDIA_MIX_TIMELINE_H
#define VEXALIVE_MEDIA_MIX_TIMELINE_H

#include <cstdint>

namespace vexalive {

class MixTimeline {
public:
    enum Kind { kAudio, kVideo };

    static constexpr int64_t kTargetLead = 150'000'000;     // covers the jitter of the network and of the decoder
    static constexpr int64_t kMaxLead = 1'000'000'000;      // above, the publisher's clock has jumped or runs fast
    static constexpr int64_t kMinLead = 50'000'000;         // below, media are late: they still have to be decoded
    static constexpr int64_t kMaxLate = 5'000'000'000;      // above, the publisher's clock has jumped back
    static constexpr int64_t kLateTimeout = 1'000'000'000;  // how long media may be late and still catch up

    /// The running time for a decoding timestamp of the publisher's that arrives at running time `now`. The timestamps
    /// are those of decoding since media arrive in that order.
    int64_t at(Kind kind, int64_t decodingTime, int64_t now) {
        const int64_t lead = decodingTime + mOffset - now;
        if (!mHasBegun || lead > kMaxLead || lead < -kMaxLate || (lead < kMinLead && isLateForLong(kind, now))) {
            mHasBegun = true;
            mOffset = now + kTargetLead - decodingTime;
            mLate[kAudio] = mLate[kVideo] = LateSpell();
        }
        return decodingTime + mOffset;
    }

private:
    // A spell ends after kLateTimeout without a late arrival. One arrival in time does not end it: if every other audio
    // frame is late, the mix crackles.
    struct LateSpell {
        int64_t first = 0;
        int64_t last = INT64_MIN / 2;
    };

    bool isLateForLong(Kind kind, int64_t now) {
        LateSpell& spell = mLate[kind];
        spell.first = now - spell.last > kLateTimeout ? now : spell.first;
        spell.last = now;
        return now - spell.first > kLateTimeout;
    }

    bool mHasBegun = false;
    int64_t mOffset = 0;
    LateSpell mLate[2];
};

}  // namespace vexalive

#endif
