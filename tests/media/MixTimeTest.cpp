// When an input's media have their turn, and its sound by the sample.

#include <gtest/gtest.h>

#include <vector>

#include "media/MixSound.h"
#include "media/MixTimeline.h"

namespace vexalive {
namespace {

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kCushion = MixTimeline::kCushion;

TEST(MixTimeline, GivesAudioAndVideoOneOffset) {
    MixTimeline timeline;
    EXPECT_EQ(timeline.at(MixTimeline::kVideo, 7000 * kMs, 100 * kMs), 100 * kMs + kCushion);
    EXPECT_EQ(timeline.at(MixTimeline::kAudio, 7010 * kMs, 150 * kMs), 110 * kMs + kCushion);
}

TEST(MixTimeline, DoesNotMoveForAPauseAndABurst) {
    MixTimeline timeline;
    timeline.at(MixTimeline::kVideo, 0, 0);
    for (int64_t time = 40; time <= 3000; time += 40) {
        EXPECT_EQ(timeline.at(MixTimeline::kVideo, time * kMs, 3000 * kMs), time * kMs + kCushion);
    }
}

TEST(MixTimeline, MovesForWhatIsLateForLong) {
    MixTimeline timeline;
    timeline.at(MixTimeline::kVideo, 0, 0);
    constexpr int64_t kDelay = 400;
    for (int64_t time = 0; time <= 1000; time += 40) {
        EXPECT_EQ(timeline.at(MixTimeline::kVideo, time * kMs, (time + kDelay) * kMs), time * kMs + kCushion);
    }
    EXPECT_EQ(timeline.at(MixTimeline::kVideo, 1040 * kMs, (1040 + kDelay) * kMs), (1040 + kDelay) * kMs + kCushion);
    EXPECT_EQ(timeline.at(MixTimeline::kAudio, 1040 * kMs, (1040 + kDelay) * kMs), (1040 + kDelay) * kMs + kCushion);
}

TEST(MixTimeline, MovesAtOnceForAJumpOfThePublishersClock) {
    MixTimeline timeline;
    timeline.at(MixTimeline::kVideo, 10'000 * kMs, 0);
    EXPECT_EQ(timeline.at(MixTimeline::kVideo, 90'000 * kMs, 40 * kMs), 40 * kMs + kCushion);
    EXPECT_EQ(timeline.at(MixTimeline::kVideo, 0, 80 * kMs), 80 * kMs + kCushion);
}

std::vector<float> samples(int64_t count, float value) {
    return std::vector<float>(static_cast<size_t>(count) * MixSound::kChannels, value);
}

std::vector<float> heard(const MixSound& sound, int64_t position, int64_t count) {
    std::vector<float> sum = samples(count, 0);
    sound.addTo(sum.data(), position, count);
    return sum;
}

TEST(MixSound, AddsWhatThereIs) {
    MixSound sound;
    sound.put(10'000, samples(100, 0.25F).data(), 100);
    std::vector<float> sum = samples(4, 0.5F);
    sound.addTo(sum.data(), 9998, 4);
    EXPECT_EQ(sum, (std::vector<float>{0.5F, 0.5F, 0.5F, 0.5F, 0.75F, 0.75F, 0.75F, 0.75F}));
    EXPECT_EQ(heard(sound, 10'099, 2), (std::vector<float>{0.25F, 0.25F, 0, 0}));
}

TEST(MixSound, JoinsWhatNearlyFollows) {
    MixSound sound;
    sound.put(10'000, samples(1024, 1).data(), 1024);
    sound.put(11'060, samples(1024, 2).data(), 1024);
    EXPECT_EQ(heard(sound, 11'023, 2), (std::vector<float>{1, 1, 2, 2}));
}

TEST(MixSound, IsSilentInAGap) {
    MixSound sound;
    sound.put(10'000, samples(1000, 1).data(), 1000);
    sound.put(20'000, samples(1000, 2).data(), 1000);
    EXPECT_EQ(heard(sound, 10'999, 2), (std::vector<float>{1, 1, 0, 0}));
    EXPECT_EQ(heard(sound, 19'999, 2), (std::vector<float>{0, 0, 2, 2}));
}

TEST(MixSound, ForgetsWhatIsOld) {
    MixSound sound;
    sound.put(0, samples(MixSound::kRate, 1).data(), MixSound::kRate);
    for (int64_t second = 1; second < 5; ++second) {
        sound.put(second * MixSound::kRate, samples(MixSound::kRate, 2).data(), MixSound::kRate);
    }
    EXPECT_EQ(heard(sound, 100, 1), (std::vector<float>{0, 0}));
    EXPECT_EQ(heard(sound, 5 * MixSound::kRate - 1, 1), (std::vector<float>{2, 2}));
}

TEST(MixSound, CountsForDays) {
    constexpr int64_t kMonth = int64_t{30} * 24 * 3600;
    EXPECT_EQ(MixSound::positionOf(kMonth * 1'000'000'000), kMonth * MixSound::kRate);
    EXPECT_EQ(MixSound::timeOf(kMonth * MixSound::kRate), kMonth * 1'000'000'000);
}

}  // namespace
}  // namespace vexalive
