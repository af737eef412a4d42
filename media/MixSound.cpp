#include "media/MixSound.h"

#include <algorithm>
#include <cstdlib>

namespace vexalive {

float* MixSound::sampleAt(int64_t position) {
    return &mSamples[static_cast<size_t>(position % kHeld) * kChannels];
}

void MixSound::put(int64_t position, const float* samples, int64_t count) {
    if (mSamples.empty()) {
        mSamples.resize(static_cast<size_t>(kHeld) * kChannels);
    }
    const bool isNear = std::abs(position - mEnd) < kNear;
    if (!isNear && (position < mEnd || position > mEnd + kHeld)) {
        mBegin = mEnd = position;
    }
    for (; !isNear && mEnd < position; ++mEnd) {
        std::fill_n(sampleAt(mEnd), kChannels, 0.0F);
    }
    for (int64_t i = 0; i < count; ++i, ++mEnd) {
        std::copy_n(samples + static_cast<size_t>(i) * kChannels, kChannels, sampleAt(mEnd));
    }
    mBegin = std::max(mBegin, mEnd - kHeld);
}

void MixSound::addTo(float* sum, int64_t position, int64_t count) const {
    const int64_t end = std::min(position + count, mEnd);
    for (int64_t at = std::max(position, mBegin); at < end; ++at) {
        const float* const sample = &mSamples[static_cast<size_t>(at % kHeld) * kChannels];
        float* const into = sum + static_cast<size_t>(at - position) * kChannels;
        for (size_t channel = 0; channel < kChannels; ++channel) {
            into[channel] += sample[channel];
        }
    }
}

}  // namespace vexalive
