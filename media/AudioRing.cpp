#include "media/AudioRing.h"

#include <algorithm>
#include <cstdlib>

namespace vexalive {

float* AudioRing::sampleAt(int64_t position) {
    return &mSamples[static_cast<size_t>(position % kCapacity) * kChannels];
}

void AudioRing::put(int64_t position, const float* samples, int64_t count) {
    if (mSamples.empty()) {
        mSamples.resize(static_cast<size_t>(kCapacity) * kChannels);
    }
    const bool isJoined = std::abs(position - mEnd) < kJoinTolerance;
    if (!isJoined && (position < mEnd || position > mEnd + kCapacity)) {
        mBegin = mEnd = position;
    }
    for (; !isJoined && mEnd < position; ++mEnd) {
        std::fill_n(sampleAt(mEnd), kChannels, 0.0F);
    }
    for (int64_t i = 0; i < count; ++i, ++mEnd) {
        std::copy_n(samples + static_cast<size_t>(i) * kChannels, kChannels, sampleAt(mEnd));
    }
    mBegin = std::max(mBegin, mEnd - kCapacity);
}

void AudioRing::addTo(float* sum, int64_t position, int64_t count) const {
    const int64_t end = std::min(position + count, mEnd);
    for (int64_t at = std::max(position, mBegin); at < end; ++at) {
        const float* const sample = &mSamples[static_cast<size_t>(at % kCapacity) * kChannels];
        float* const target = sum + static_cast<size_t>(at - position) * kChannels;
        for (size_t channel = 0; channel < kChannels; ++channel) {
            target[channel] += sample[channel];
        }
    }
}

}  // namespace vexalive
