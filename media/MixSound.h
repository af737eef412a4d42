// The last seconds of an input's sound, by the sample. Not for several threads at a time.

#ifndef VEXALIVE_MEDIA_MIX_SOUND_H
#define VEXALIVE_MEDIA_MIX_SOUND_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vexalive {

class MixSound {
public:
    // What all sound is brought to before it is mixed.
    static constexpr int64_t kRate = 48000;
    static constexpr size_t kChannels = 2;

    // Seconds and the rest by themselves: the product of the whole would not fit after two days.
    static int64_t positionOf(int64_t nanoseconds) {
        return nanoseconds / kSecond * kRate + nanoseconds % kSecond * kRate / kSecond;
    }
    static int64_t timeOf(int64_t position) { return position / kRate * kSecond + position % kRate * kSecond / kRate; }

    // `count` samples of both channels, side by side, that begin at `position`. If they nearly follow the last ones,
    // they follow them exactly: timestamps come in milliseconds, and the difference would crackle.
    void put(int64_t position, const float* samples, int64_t count);

    // Adds what there is of `count` samples from `position` on to those in `sum`.
    void addTo(float* sum, int64_t position, int64_t count) const;

private:
    static constexpr int64_t kSecond = 1'000'000'000;
    static constexpr int64_t kHeld = 3 * kRate;
    static constexpr int64_t kNear = kRate * 40 / 1000;

    float* sampleAt(int64_t position);

    std::vector<float> mSamples;  // a ring; empty until the first sound
    int64_t mBegin = 0;
    int64_t mEnd = 0;
};

}  // namespace vexalive

#endif
