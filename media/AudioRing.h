// The last seconds of an input's audio, addressed by sample.

#ifndef VEXALIVE_MEDIA_AUDIO_RING_H
#define VEXALIVE_MEDIA_AUDIO_RING_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vexalive {

/// Not thread-safe. A position is a number of samples since running time 0.
class AudioRing {
public:
    /// The format of all audio in the mix.
    static constexpr int64_t kRate = 48000;
    static constexpr size_t kChannels = 2;

    // Seconds and the remainder are converted separately: nanoseconds × rate would overflow after two days.
    static int64_t positionOf(int64_t nanoseconds) {
        return nanoseconds / kSecond * kRate + nanoseconds % kSecond * kRate / kSecond;
    }
    static int64_t timeOf(int64_t position) { return position / kRate * kSecond + position % kRate * kSecond / kRate; }

    /// Stores `count` samples of both channels, interleaved, from `position` on. Samples that begin near the end of the
    /// previous ones are joined to them: timestamps are rounded to milliseconds, and the gaps would be audible.
    void put(int64_t position, const float* samples, int64_t count);

    /// Adds `count` samples from `position` on to those in `sum`. Missing samples are silence.
    void addTo(float* sum, int64_t position, int64_t count) const;

private:
    static constexpr int64_t kSecond = 1'000'000'000;
    static constexpr int64_t kCapacity = 3 * kRate;
    static constexpr int64_t kJoinTolerance = kRate * 40 / 1000;

    float* sampleAt(int64_t position);

    std::vector<float> mSamples;  // a ring; empty until the first put()
    int64_t mBegin = 0;
    int64_t mEnd = 0;
};

}  // namespace vexalive

#endif
