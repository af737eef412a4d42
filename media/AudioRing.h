// A ring buffer with the last three seconds of one input's audio.

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

    // These functions convert the whole seconds and the remainder separately: nanoseconds × rate would overflow after
    // two days.
    static int64_t positionOf(int64_t nanoseconds) {
        return nanoseconds / kSecond * kRate + nanoseconds % kSecond * kRate / kSecond;
    }
    static int64_t timeOf(int64_t position) { return position / kRate * kSecond + position % kRate * kSecond / kRate; }

    /// Stores `count` interleaved samples of both channels, from `position` on. If they begin within kJoinTolerance of
    /// the last stored sample, they are appended to it: timestamps are rounded to milliseconds, and the gaps would be
    /// audible. Later samples leave a silent gap; earlier samples, or samples more than kCapacity later, replace the
    /// content.
    void put(int64_t position, const float* samples, int64_t count);

    /// Adds the `count` stored samples from `position` on to the samples in `sum`. A missing sample counts as silence.
    void addTo(float* sum, int64_t position, int64_t count) const;

private:
    static constexpr int64_t kSecond = 1'000'000'000;
    static constexpr int64_t kCapacity = 3 * kRate;               // 3 s
    static constexpr int64_t kJoinTolerance = kRate * 40 / 1000;  // 40 ms

    float* sampleAt(int64_t position);

    std::vector<float> mSamples;  // a ring; empty until the first put()
    int64_t mBegin = 0;           // position of the oldest sample
    int64_t mEnd = 0;             // position after the newest sample
};

}  // namespace vexalive

#endif
