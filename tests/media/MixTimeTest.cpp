// When an input's media have their turn, and its sound by the sample.

#include <gtest/gtest.h>

#include <deque>
#include <vector>

#include "media/AudioRing.h"
#include "media/MixTimeline.h"

namespace vexalive {
namespace {

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kCushion = MixTimeline::kTargetLead;

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

TEST(MixTimeline, MovesForWhatIsLateAgainAndAgain) {
    MixTimeline timeline;
    timeline.at(MixTimeline::kAudio, 0, 0);
    constexpr int64_t kDelay = 120;  // of every other one
    for (int64_t time = 0; time <= 1000; time += 40) {
        EXPECT_EQ(timeline.at(MixTimeline::kAudio, time * kMs, (time + kDelay) * kMs), time * kMs + kCushion);
        EXPECT_EQ(timeline.at(MixTimeline::kAudio, (time + 20) * kMs, (time + 20) * kMs), (time + 20) * kMs + kCushion);
    }
    EXPECT_EQ(timeline.at(MixTimeline::kAudio, 1040 * kMs, (1040 + kDelay) * kMs), (1040 + kDelay) * kMs + kCushion);
}

TEST(MixTimeline, BearsWhatIsLateNowAndThen) {
    MixTimeline timeline;
    timeline.at(MixTimeline::kAudio, 0, 0);
    for (int64_t time = 20; time <= 60'000; time += 20) {
        const int64_t delay = time % 1500 == 0 ? 400 : 0;
        EXPECT_EQ(timeline.at(MixTimeline::kAudio, time * kMs, (time + delay) * kMs), time * kMs + kCushion);
    }
}

TEST(MixTimeline, MovesAtOnceForAJumpOfThePublishersClock) {
    MixTimeline timeline;
    timeline.at(MixTimeline::kVideo, 10'000 * kMs, 0);
    EXPECT_EQ(timeline.at(MixTimeline::kVideo, 90'000 * kMs, 40 * kMs), 40 * kMs + kCushion);
    EXPECT_EQ(timeline.at(MixTimeline::kVideo, 0, 80 * kMs), 80 * kMs + kCushion);
}

std::vector<float> samples(int64_t count, float value) {
    return std::vector<float>(static_cast<size_t>(count) * AudioRing::kChannels, value);
}

std::vector<float> heard(const AudioRing& sound, int64_t position, int64_t count) {
    std::vector<float> sum = samples(count, 0);
    sound.addTo(sum.data(), position, count);
    return sum;
}

TEST(AudioRing, AddsWhatThereIs) {
    AudioRing sound;
    sound.put(10'000, samples(100, 0.25F).data(), 100);
    std::vector<float> sum = samples(4, 0.5F);
    sound.addTo(sum.data(), 9998, 4);
    EXPECT_EQ(sum, (std::vector<float>{0.5F, 0.5F, 0.5F, 0.5F, 0.75F, 0.75F, 0.75F, 0.75F}));
    EXPECT_EQ(heard(sound, 10'099, 2), (std::vector<float>{0.25F, 0.25F, 0, 0}));
}

TEST(AudioRing, JoinsWhatNearlyFollows) {
    AudioRing sound;
    sound.put(10'000, samples(1024, 1).data(), 1024);
    sound.put(11'060, samples(1024, 2).data(), 1024);
    EXPECT_EQ(heard(sound, 11'023, 2), (std::vector<float>{1, 1, 2, 2}));
}

TEST(AudioRing, IsSilentInAGap) {
    AudioRing sound;
    sound.put(10'000, samples(1000, 1).data(), 1000);
    sound.put(20'000, samples(1000, 2).data(), 1000);
    EXPECT_EQ(heard(sound, 10'999, 2), (std::vector<float>{1, 1, 0, 0}));
    EXPECT_EQ(heard(sound, 19'999, 2), (std::vector<float>{0, 0, 2, 2}));
}

TEST(AudioRing, ForgetsWhatIsOld) {
    AudioRing sound;
    sound.put(0, samples(AudioRing::kRate, 1).data(), AudioRing::kRate);
    for (int64_t second = 1; second < 5; ++second) {
        sound.put(second * AudioRing::kRate, samples(AudioRing::kRate, 2).data(), AudioRing::kRate);
    }
    EXPECT_EQ(heard(sound, 100, 1), (std::vector<float>{0, 0}));
    EXPECT_EQ(heard(sound, 5 * AudioRing::kRate - 1, 1), (std::vector<float>{2, 2}));
}

// It falls behind by 360 ms in two minutes, on an uneven road. The mix takes what there is every 20 ms.
TEST(AudioRing, OfASlowPublisherHasAGapNowAndThenAndNoneBetween) {
    struct Piece {
        int64_t decoded;
        int64_t turn;
    };
    MixTimeline timeline;
    AudioRing sound;
    std::deque<Piece> decoding;
    int64_t pieces = 0;
    int64_t silent = 0;
    int gaps = 0;
    bool isSilent = true;
    for (int64_t now = 0; now < 120'000; ++now) {
        for (; pieces * 20 * 1003 / 1000 + pieces % 5 * 2 <= now; ++pieces) {
            decoding.push_back({now + 5, timeline.at(MixTimeline::kAudio, pieces * 20 * kMs, now * kMs)});
        }
        for (; !decoding.empty() && decoding.front().decoded <= now; decoding.pop_front()) {
            sound.put(AudioRing::positionOf(decoding.front().turn), samples(960, 1).data(), 960);
        }
        if (now % 20 != 7 || now < 1000) {
            continue;
        }
        for (const float sample : heard(sound, AudioRing::positionOf((now - 20) * kMs), 960)) {
            gaps += !isSilent && sample == 0 ? 1 : 0;
            silent += sample == 0 ? 1 : 0;
            isSilent = sample == 0;
        }
    }
    EXPECT_GE(gaps, 1);
    EXPECT_LE(gaps, 4);
    EXPECT_LT(silent / static_cast<int64_t>(AudioRing::kChannels), gaps * AudioRing::kRate * 150 / 1000);
}

TEST(AudioRing, CountsForDays) {
    constexpr int64_t kMonth = int64_t{30} * 24 * 3600;
    EXPECT_EQ(AudioRing::positionOf(kMonth * 1'000'000'000), kMonth * AudioRing::kRate);
    EXPECT_EQ(AudioRing::timeOf(kMonth * AudioRing::kRate), kMonth * 1'000'000'000);
}

}  // namespace
}  // namespace vexalive
