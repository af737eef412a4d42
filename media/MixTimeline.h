// Computes the presentation times for the media of one connection.
//
// The timestamps of a connection are times of its publisher's clock. An offset converts them to running time. Audio and
// video share the offset, so they stay in sync. The offset makes media normally arrive kTargetLead before their
// presentation time. Times are in nanoseconds.

#ifndef VEXALIVE_MEDIA_MIX_TIMELINE_H
#define VEXALIVE_MEDIA_MIX_TIMELINE_H

#include <cstdint>

namespace vexalive {

class MixTimeline {
public:
    enum Kind { kAudio, kVideo };

    // The lead is the time from the arrival of media to their presentation.
    static constexpr int64_t kTargetLead = 150'000'000;     // ns; covers the jitter of the network and the decoder
    static constexpr int64_t kMaxLead = 1'000'000'000;      // above: the publisher's clock has jumped or runs fast
    static constexpr int64_t kMinLead = 50'000'000;         // below: media are late, since decoding takes time, too
    static constexpr int64_t kMaxLate = 5'000'000'000;      // later than this: the publisher's clock has jumped back
    static constexpr int64_t kLateTimeout = 1'000'000'000;  // media that are late for longer get a new offset

    /// Converts a publisher's timestamp, which arrives at running time `now`, to running time. The timestamp is a
    /// decoding time, since media arrive in decoding order.
    int64_t toRunningTime(Kind kind, int64_t decodingTime, int64_t now) {
        const int64_t lead = decodingTime + mOffset - now;
        if (!mHasBegun || lead > kMaxLead || lead < -kMaxLate || (lead < kMinLead && isLateForLong(kind, now))) {
            mHasBegun = true;
            mOffset = now + kTargetLead - decodingTime;
            mLate[kAudio] = mLate[kVideo] = LatePeriod();
        }
        return decodingTime + mOffset;
    }

private:
    // A period with late arrivals. It ends after kLateTimeout without a late arrival. One punctual arrival does not end
    // it: if every second audio frame is late, the mix crackles.
    struct LatePeriod {
        int64_t first = 0;             // time of the first late arrival
        int64_t last = INT64_MIN / 2;  // time of the last late arrival
    };

    bool isLateForLong(Kind kind, int64_t now) {
        LatePeriod& period = mLate[kind];
        period.first = now - period.last > kLateTimeout ? now : period.first;
        period.last = now;
        return now - period.first > kLateTimeout;
    }

    bool mHasBegun = false;
    int64_t mOffset = 0;
    LatePeriod mLate[2];
};

}  // namespace vexalive

#endif
