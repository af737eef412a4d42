// The timeline of a mix input, and the ring buffer of its audio.

#include <gtest/gtest.h>

#include <deque>
#include <vector>

#include "media/AudioRing.h"
#include "media/MixTimeline.h"

namespace vexalive {
namespace {

constexpr int64_t kMs = 1'000'000;

// A timeline in milliseconds. Its first frame, a video frame with timestamp 0, arrived at time 0.
struct Timeline : MixTimeline {
    Timeline() { toRunningTime(kVideo, 0, 0); }
    int64_t operator()(int64_t timestamp, int64_t now, Kind kind = kVideo) {
        return (toRunningTime(kind, timestamp * kMs, now * kMs) - kTargetLead) / kMs;
    }
};

TEST(MixTimeline, GivesAudioAndVideoOneOffset) {
    Timeline time;
    EXPECT_EQ(time(20, 20), 20);
    EXPECT_EQ(time(10, 50, MixTimeline::kAudio), 10);
}

TEST(MixTimeline, DoesNotShiftForAPauseAndABurst) {
    Timeline time;
    for (int64_t timestamp = 40; timestamp <= 3000; timestamp += 40) {
        EXPECT_EQ(time(timestamp, 3000), timestamp);
    }
}

TEST(MixTimeline, ShiftsForMediaThatStayLate) {
    Timeline time;
    constexpr int64_t kDelay = 400;
    for (int64_t timestamp = 0; timestamp <= 1000; timestamp += 40) {
        EXPECT_EQ(time(timestamp, timestamp + kDelay), timestamp);
    }
    EXPECT_EQ(time(1040, 1040 + kDelay), 1040 + kDelay);
    EXPECT_EQ(time(1040, 1040 + kDelay, MixTimeline::kAudio), 1040 + kDelay);
}

TEST(MixTimeline, ShiftsIfEveryOtherFrameIsLate) {
    Timeline time;
    constexpr int64_t kDelay = 120;
    for (int64_t timestamp = 0; timestamp <= 1000; timestamp += 40) {
        EXPECT_EQ(time(timestamp, timestamp + kDelay, MixTimeline::kAudio), timestamp);
        EXPECT_EQ(time(timestamp + 20, timestamp + 20, MixTimeline::kAudio), timestamp + 20);
    }
    EXPECT_EQ(time(1040, 1040 + kDelay, MixTimeline::kAudio), 1040 + kDelay);
}

TEST(MixTimeline, DoesNotShiftForAnOccasionalLateFrame) {
    Timeline time;
    for (int64_t timestamp = 20; timestamp <= 60'000; timestamp += 20) {
        EXPECT_EQ(time(timestamp, timestamp + (timestamp % 1500 == 0 ? 400 : 0), MixTimeline::kAudio), timestamp);
    }
}

TEST(MixTimeline, ShiftsAtOnceForAJumpOfThePublishersClock) {
    Timeline time;
    EXPECT_EQ(time(80'000, 40), 40);
    EXPECT_EQ(time(0, 80), 80);
}

std::vector<float> samples(int64_t count, float value) {
    return std::vector<float>(static_cast<size_t>(count) * AudioRing::kChannels, value);
}

std::vector<float> read(const AudioRing& ring, int64_t position, int64_t count) {
    std::vector<float> sum = samples(count, 0);
    ring.addTo(sum.data(), position, count);
    return sum;
}

TEST(AudioRing, AddsTheSamplesItHas) {
    AudioRing ring;
    ring.put(10'000, samples(100, 0.25F).data(), 100);
    std::vector<float> sum = samples(4, 0.5F);
    ring.addTo(sum.data(), 9998, 4);
    EXPECT_EQ(sum, (std::vector<float>{0.5F, 0.5F, 0.5F, 0.5F, 0.75F, 0.75F, 0.75F, 0.75F}));
    EXPECT_EQ(read(ring, 10'099, 2), (std::vector<float>{0.25F, 0.25F, 0, 0}));
}

TEST(AudioRing, JoinsSamplesThatNearlyFollow) {
    AudioRing ring;
    ring.put(10'000, samples(1024, 1).data(), 1024);
    ring.put(11'060, samples(1024, 2).data(), 1024);
    EXPECT_EQ(read(ring, 11'023, 2), (std::vector<float>{1, 1, 2, 2}));
}

TEST(AudioRing, IsSilentInAGap) {
    AudioRing ring;
    ring.put(10'000, samples(1000, 1).data(), 1000);
    ring.put(20'000, samples(1000, 2).data(), 1000);
    EXPECT_EQ(read(ring, 10'999, 2), (std::vector<float>{1, 1, 0, 0}));
    EXPECT_EQ(read(ring, 19'999, 2), (std::vector<float>{0, 0, 2, 2}));
}

TEST(AudioRing, DropsOldSamples) {
    AudioRing ring;
    ring.put(0, samples(AudioRing::kRate, 1).data(), AudioRing::kRate);
    for (int64_t second = 1; second < 5; ++second) {
        ring.put(second * AudioRing::kRate, samples(AudioRing::kRate, 2).data(), AudioRing::kRate);
    }
    EXPECT_EQ(read(ring, 100, 1), (std::vector<float>{0, 0}));
    EXPECT_EQ(read(ring, 5 * AudioRing::kRate - 1, 1), (std::vector<float>{2, 2}));
}

// The publisher's clock is slow, by 360 ms in two minutes, with jitter. The mix reads every 20 ms.
TEST(AudioRing, HasFewShortGapsForASlowPublisher) {
    struct Piece {
        int64_t decoded;
        int64_t presentationTime;
    };
    MixTimeline timeline;
    AudioRing ring;
    std::deque<Piece> decoding;
    int64_t pieces = 0;
    int64_t silent = 0;
    int gaps = 0;
    bool isSilent = true;
    for (int64_t now = 0; now < 120'000; ++now) {
        for (; pieces * 20 * 1003 / 1000 + pieces % 5 * 2 <= now; ++pieces) {
            decoding.push_back({now + 5, timeline.toRunningTime(MixTimeline::kAudio, pieces * 20 * kMs, now * kMs)});
        }
        for (; !decoding.empty() && decoding.front().decoded <= now; decoding.pop_front()) {
            ring.put(AudioRing::positionOf(decoding.front().presentationTime), samples(960, 1).data(), 960);
        }
        if (now % 20 != 7 || now < 1000) {
            continue;
        }
        for (const float sample : read(ring, AudioRing::positionOf((now - 20) * kMs), 960)) {
            gaps += !isSilent && sample == 0 ? 1 : 0;
            silent += sample == 0 ? 1 : 0;
            isSilent = sample == 0;
        }
    }
    EXPECT_GE(gaps, 1);
    EXPECT_LE(gaps, 4);
    EXPECT_LT(silent / static_cast<int64_t>(AudioRing::kChannels), gaps * AudioRing::kRate * 150 / 1000);
}

TEST(AudioRing, PositionsDoNotOverflowInAMonth) {
    constexpr int64_t kMonth = int64_t{30} * 24 * 3600;
    EXPECT_EQ(AudioRing::positionOf(kMonth * 1'000'000'000), kMonth * AudioRing::kRate);
    EXPECT_EQ(AudioRing::timeOf(kMonth * AudioRing::kRate), kMonth * 1'000'000'000);
}

}  // namespace
}  // namespace vexalive
