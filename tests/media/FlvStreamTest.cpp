// FLV streams of a relay: reading tags, timestamps, and the gate that decides which tags are sent.

#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "media/FlvStream.h"

namespace vexalive {
namespace {

// The bytes of an FLV tag.
std::string tagOf(char kind, unsigned timestamp, const std::string& data) {
    std::string bytes{kind, 0, 0, static_cast<char>(data.size())};
    for (const int shift : {16, 8, 0, 24}) {
        bytes += static_cast<char>(timestamp >> shift & 0xff);
    }
    bytes += std::string(3, '\0') + data;
    return bytes + std::string(3, '\0') + static_cast<char>(11 + data.size());
}

const std::string kMetadata = tagOf(18, 0, "onMetaData");
const std::string kVideoHeader = tagOf(9, 0, {0x17, 0, 1, 2});
const std::string kAudioHeader = tagOf(8, 0, {'\xaf', 0, 3});
const std::string kKeyFrame = tagOf(9, 0, {0x17, 1, 4});
const std::string kInterFrame = tagOf(9, 0, {0x27, 1, 5});
const std::string kAudioFrame = tagOf(8, 0, {'\xaf', 1, 6});

struct TagCase {
    std::string bytes;
    FlvTag::Kind kind;
    int64_t timestamp;
    bool isStreamHeader;
    bool isKeyFrame;
    bool isFrame;
};
const TagCase kTags[] = {
    {kMetadata, FlvTag::Kind::kScript, 0, true, false, false},
    {kVideoHeader, FlvTag::Kind::kVideo, 0, true, true, false},
    {kAudioHeader, FlvTag::Kind::kAudio, 0, true, false, false},
    {tagOf(9, 40, {0x17, 1, 4}), FlvTag::Kind::kVideo, 40, false, true, true},
    {tagOf(9, 0x1020304, {0x27, 1, 5}), FlvTag::Kind::kVideo, 0x1020304, false, false, true},
    {tagOf(8, 60, {'\xaf', 1, 6}), FlvTag::Kind::kAudio, 60, false, false, true},
    {tagOf(18, 0, "|RtmpSampleAccess"), FlvTag::Kind::kScript, 0, false, false, false},  // some servers add this tag
};

FlvTag tag(const std::string& bytes) {
    FlvTag result;
    EXPECT_TRUE(FlvReader().read(std::string(kFlvHeader) + bytes, [&](const FlvTag& each) { result = each; }));
    return result;
}

TEST(FlvStream, IsSplitIntoTagsWhateverTheSizeOfItsPieces) {
    std::string stream(kFlvHeader);
    for (const TagCase& each : kTags) {
        stream += each.bytes;
    }
    for (const size_t pieceSize : {size_t{1}, size_t{7}, stream.size()}) {
        FlvReader reader;
        std::vector<FlvTag> tags;
        for (size_t begin = 0; begin < stream.size(); begin += pieceSize) {
            EXPECT_TRUE(
                reader.read(stream.substr(begin, pieceSize), [&](const FlvTag& each) { tags.push_back(each); }));
        }
        ASSERT_EQ(tags.size(), std::size(kTags)) << pieceSize;
        for (size_t i = 0; i < tags.size(); ++i) {
            EXPECT_EQ(tags[i].bytes, kTags[i].bytes) << i;
            EXPECT_EQ(tags[i].kind, kTags[i].kind) << i;
            EXPECT_EQ(tags[i].timestamp, kTags[i].timestamp) << i;
            EXPECT_EQ(tags[i].isStreamHeader(), kTags[i].isStreamHeader) << i;
            EXPECT_EQ(tags[i].isKeyFrame(), kTags[i].isKeyFrame) << i;
            EXPECT_EQ(tags[i].isFrame(), kTags[i].isFrame) << i;
        }
    }
}

TEST(FlvStream, ATagGetsAnotherTimestampAndIsOtherwiseUnchanged) {
    EXPECT_EQ(tag(kKeyFrame).withTimestamp(0), kKeyFrame);
    EXPECT_EQ(tag(kKeyFrame).withTimestamp(0x7f010203), tagOf(9, 0x7f010203, {0x17, 1, 4}));
}

TEST(FlvStream, ATagHasACodecAPayloadAndACompositionTime) {
    const FlvTag video = tag(tagOf(9, 0, {0x27, 1, 0, 1, 2, 'a', 'b'}));
    EXPECT_EQ(video.codec(), kFlvAvc);
    EXPECT_EQ(video.payload(), "ab");
    EXPECT_EQ(video.compositionTime(), 0x102);
    EXPECT_EQ(tag(tagOf(9, 0, {0x27, 1, '\xff', '\xff', '\xfe'})).compositionTime(), -2);
    EXPECT_EQ(tag(kAudioFrame).codec(), kFlvAac);
    EXPECT_EQ(tag(kAudioFrame).payload(), "\x06");
    EXPECT_EQ(tag(kKeyFrame).payload(), "");
}

TEST(FlvStream, BytesThatAreNoFlvAreRefused) {
    const auto ignore = [](const FlvTag&) {};
    EXPECT_FALSE(FlvReader().read("HTTP/1.1 200 OK\r\n", ignore));
    EXPECT_FALSE(FlvReader().read(std::string(kFlvHeader) + std::string(11, '\x07'), ignore));
}

// Times in milliseconds.
struct Arrival {
    int64_t timestamp;              // in the source
    int64_t now;                    // time of the arrival
    int64_t steady;                 // expected timestamp in the relay
    bool beginsConnection = false;  // the source connects anew with this tag
};

TEST(SteadyTime, IsMonotonicAndHasTheIntervalsOfItsSource) {
    const std::map<std::string, std::vector<Arrival>> cases = {
        {"one connection", {{5000, 100, 0}, {5020, 125, 20}, {5040, 140, 40}}},
        {"a pause", {{5000, 100, 0}, {5040, 140, 40}, {0, 1140, 1040, true}, {20, 1160, 1060}}},
        {"a clock that jumps back and ahead",
         {{500'000, 0, 0},
          {500'040, 40, 40},
          {0, 80, 80},
          {40, 120, 120},
          {9'000'000, 160, 160},
          {9'000'040, 200, 200}}},
        {"a burst", {{0, 0, 0}, {40, 5'000, 40}, {4'960, 5'001, 4'960}}},
        {"timestamps that go back",
         {{1000, 0, 0}, {1040, 40, 40}, {1020, 41, 40}, {1060, 60, 60}, {900, 60, 61, true}}},
    };
    for (const auto& [name, arrivals] : cases) {
        SCOPED_TRACE(name);
        SteadyTime time;
        for (const Arrival& each : arrivals) {
            if (each.beginsConnection) {
                time.beginConnection();
            }
            EXPECT_EQ(time.convert(each.timestamp, each.now), each.steady) << each.timestamp << " at " << each.now;
            EXPECT_EQ(time.last(), each.steady);
        }
    }
}

// Offers a tag to the gate and returns the bytes that the gate then sends.
struct Gate : FlvGate {
    std::string operator()(const std::string& bytes, size_t queued = 0, int64_t now = 0) {
        const FlvTag each = tag(bytes);
        std::string sent;
        observe(each, now);
        const bool isPassed = pass(each, queued, [&](const FlvTag& next) { sent += next.bytes; });
        EXPECT_EQ(isPassed, !sent.empty());
        return sent;
    }
};

TEST(FlvGate, StartsAtAKeyFrameWithTheStreamHeaders) {
    Gate gate;
    for (const std::string& early : {kMetadata, kVideoHeader, kAudioHeader, kInterFrame, kAudioFrame}) {
        EXPECT_EQ(gate(early), "");
    }
    EXPECT_EQ(gate(kKeyFrame), kMetadata + kVideoHeader + kAudioHeader + kKeyFrame);
    for (const std::string& next : {kAudioFrame, kInterFrame, kVideoHeader, kMetadata, kKeyFrame}) {
        EXPECT_EQ(gate(next), next);
    }
}

TEST(FlvGate, StartsWithAudioIfNoVideoComes) {
    Gate alone;
    EXPECT_EQ(alone(kAudioHeader), "");
    EXPECT_EQ(alone(kAudioFrame), kAudioHeader + kAudioFrame);

    Gate gate;
    gate(kInterFrame, 0, 1000);
    EXPECT_EQ(gate(kAudioFrame, 0, 1000 + FlvGate::kVideoTimeout), "");
    EXPECT_EQ(gate(kAudioFrame, 0, 1001 + FlvGate::kVideoTimeout), kAudioFrame);
}

TEST(FlvGate, BoundsTheQueueOfASlowDestinationWhateverTheTags) {
    for (const std::string& each : {kMetadata, kVideoHeader, kAudioHeader, kKeyFrame, kInterFrame, kAudioFrame}) {
        Gate gate;
        gate(kKeyFrame);
        EXPECT_EQ(gate(each, FlvGate::kMaxQueued), each);
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ(gate(each, FlvGate::kMaxQueued + 1), "");
        }
    }
}

TEST(FlvGate, ResumesAtAKeyFrameOnceTheQueueHasDrainedAndWithTheLatestHeaders) {
    Gate gate;
    gate(kMetadata);
    gate(kVideoHeader);
    gate(kKeyFrame);
    const std::string otherHeader = tagOf(9, 0, {0x17, 0, 7, 8});
    EXPECT_EQ(gate(otherHeader, FlvGate::kMaxQueued + 1), "");
    EXPECT_EQ(gate(kKeyFrame, FlvGate::kMaxQueued / 4), "");
    for (const std::string& each : {kInterFrame, kMetadata, kAudioFrame}) {
        EXPECT_EQ(gate(each), "");
    }
    EXPECT_EQ(gate(kKeyFrame, FlvGate::kMaxQueued / 4 - 1), kMetadata + otherHeader + kKeyFrame);
    EXPECT_EQ(gate(kInterFrame), kInterFrame);
}

TEST(FlvGate, SendsTheHeadersToANewDestinationAndForgetsThoseOfAnOldSource) {
    Gate gate;
    gate(kVideoHeader);
    gate(kKeyFrame);
    gate.close();
    EXPECT_EQ(gate(kInterFrame), "");
    EXPECT_EQ(gate(kKeyFrame), kVideoHeader + kKeyFrame);
    gate.forgetHeaders();
    EXPECT_EQ(gate(kKeyFrame), kKeyFrame);
    gate.close();
    EXPECT_EQ(gate(kKeyFrame), kKeyFrame);
}

}  // namespace
}  // namespace vexalive
