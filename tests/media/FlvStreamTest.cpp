// The run of tags that a relay passes on.

#include <gtest/gtest.h>

#include <vector>

#include "media/FlvStream.h"

namespace vexalive {
namespace {

// A tag on the wire.
std::string tagOf(char kind, unsigned timestamp, const std::string& data) {
    std::string bytes{kind, 0, 0, static_cast<char>(data.size())};
    for (const int shift : {16, 8, 0, 24}) {
        bytes += static_cast<char>(timestamp >> shift & 0xff);
    }
    bytes += std::string(3, '\0') + data;
    return bytes + std::string(3, '\0') + static_cast<char>(11 + data.size());
}

const std::string kStream = std::string(kFlvHeader) + tagOf(18, 0, "onMetaData") + tagOf(9, 0, {0x17, 0, 1, 2}) +
                            tagOf(8, 0, {'\xaf', 0, 3}) + tagOf(9, 40, {0x17, 1, 4}) +
                            tagOf(9, 0x1020304, {0x27, 1, 5}) + tagOf(8, 60, {'\xaf', 1, 6});

std::vector<FlvTag> read(const std::string& stream, size_t pieceSize) {
    FlvReader reader;
    std::vector<FlvTag> tags;
    for (size_t place = 0; place < stream.size(); place += pieceSize) {
        EXPECT_TRUE(reader.read(stream.substr(place, pieceSize), [&](const FlvTag& tag) { tags.push_back(tag); }));
    }
    return tags;
}

TEST(FlvStream, IsCutIntoTagsWhateverTheSizeOfItsPieces) {
    for (const size_t pieceSize : {size_t{1}, size_t{7}, kStream.size()}) {
        const std::vector<FlvTag> tags = read(kStream, pieceSize);
        ASSERT_EQ(tags.size(), 6U) << pieceSize;
        EXPECT_EQ(tags[0].kind, FlvTag::Kind::kScript);
        EXPECT_EQ(tags[2].kind, FlvTag::Kind::kAudio);
        EXPECT_EQ(tags[3].timestamp, 40);
        EXPECT_EQ(tags[4].timestamp, 0x1020304);
        std::string all(kFlvHeader);
        for (const FlvTag& tag : tags) {
            all += tag.bytes;
        }
        EXPECT_EQ(all, kStream);
    }
}

TEST(FlvStream, TellsSetupAndKeyFramesFromTheRest) {
    const std::vector<FlvTag> tags = read(kStream, kStream.size());
    ASSERT_EQ(tags.size(), 6U);
    const bool setup[] = {true, true, true, false, false, false};
    const bool keyFrame[] = {false, true, false, true, false, false};
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(tags[i].isStreamHeader(), setup[i]) << i;
        EXPECT_EQ(tags[i].isKeyFrame(), keyFrame[i]) << i;
    }
}

TEST(FlvStream, AScriptOfTheServersOwnIsNoSetup) {
    const std::vector<FlvTag> tags = read(std::string(kFlvHeader) + tagOf(18, 0, "|RtmpSampleAccess"), 5);
    ASSERT_EQ(tags.size(), 1U);
    EXPECT_FALSE(tags[0].isStreamHeader());
    EXPECT_FALSE(tags[0].isMedia());
}

TEST(FlvStream, ATagTakesAnotherTimeAndNothingElseOfItChanges) {
    const FlvTag tag = read(kStream, kStream.size())[3];
    EXPECT_EQ(tag.at(40), tag.bytes);
    EXPECT_EQ(tag.at(0x7f010203), tagOf(9, 0x7f010203, {0x17, 1, 4}));
}

TEST(FlvStream, BytesThatAreNoFlvAreRefused) {
    const auto ignore = [](const FlvTag&) {};
    EXPECT_FALSE(FlvReader().read("HTTP/1.1 200 OK\r\n", ignore));
    EXPECT_FALSE(FlvReader().read(std::string(kFlvHeader) + std::string(11, '\x07'), ignore));
}

TEST(SteadyTime, KeepsTheTimesOfOneConnectionFromZero) {
    SteadyTime time;
    EXPECT_EQ(time.at(5000, 100), 0);
    EXPECT_EQ(time.at(5020, 125), 20);
    EXPECT_EQ(time.at(5040, 140), 40);
}

TEST(SteadyTime, GoesOnWhereANewConnectionComesAfterAsLongAPause) {
    SteadyTime time;
    time.at(5000, 100);
    time.at(5040, 140);
    time.beginConnection();
    EXPECT_EQ(time.at(0, 1140), 1040);
    EXPECT_EQ(time.at(20, 1160), 1060);
}

TEST(SteadyTime, GoesOnAtTheSamePaceWhereAClockJumps) {
    SteadyTime time;
    time.at(500'000, 0);
    EXPECT_EQ(time.at(500'040, 40), 40);
    EXPECT_EQ(time.at(0, 80), 80);  // back
    EXPECT_EQ(time.at(40, 120), 120);
    EXPECT_EQ(time.at(9'000'000, 160), 160);  // ahead
    EXPECT_EQ(time.at(9'000'040, 200), 200);
}

TEST(SteadyTime, ABurstAfterAPauseOfTheNetworkKeepsItsTimes) {
    SteadyTime time;
    time.at(0, 0);
    EXPECT_EQ(time.at(40, 5'000), 40);
    EXPECT_EQ(time.at(4'960, 5'001), 4'960);
}

TEST(SteadyTime, NeverGoesBack) {
    SteadyTime time;
    time.at(1000, 0);
    EXPECT_EQ(time.at(1040, 40), 40);
    EXPECT_EQ(time.at(1020, 41), 40);
    EXPECT_EQ(time.at(1060, 60), 60);
    time.beginConnection();
    EXPECT_EQ(time.at(900, 60), 61);
}

// What a gate lets through of the tags that come one after the other, as text.
struct Gate : FlvGate {
    std::string take(const std::string& bytes, size_t waiting = 0, int64_t now = 0) {
        const FlvTag tag = read(std::string(kFlvHeader) + bytes, bytes.size())[0];
        std::string given;
        observe(tag, now);
        const bool isPassed = pass(tag, waiting, [&](const FlvTag& each) { given += each.bytes; });
        EXPECT_EQ(isPassed, !given.empty());
        return given;
    }
};

const std::string kMetadata = tagOf(18, 0, "onMetaData");
const std::string kVideoSetup = tagOf(9, 0, {0x17, 0, 1, 2});
const std::string kAudioSetup = tagOf(8, 0, {'\xaf', 0, 3});
const std::string kKeyFrame = tagOf(9, 0, {0x17, 1, 4});
const std::string kInterFrame = tagOf(9, 0, {0x27, 1, 5});
const std::string kSound = tagOf(8, 0, {'\xaf', 1, 6});

TEST(FlvGate, BeginsAtAKeyFrameWithTheSetup) {
    Gate gate;
    for (const std::string& early : {kMetadata, kVideoSetup, kAudioSetup, kInterFrame, kSound}) {
        EXPECT_EQ(gate.take(early), "");
    }
    EXPECT_EQ(gate.take(kKeyFrame), kMetadata + kVideoSetup + kAudioSetup + kKeyFrame);
    for (const std::string& next : {kSound, kInterFrame, kVideoSetup, kMetadata, kKeyFrame}) {
        EXPECT_EQ(gate.take(next), next);
    }
}

TEST(FlvGate, BeginsWithSoundWhereNoVideoComes) {
    Gate alone;
    EXPECT_EQ(alone.take(kAudioSetup), "");
    EXPECT_EQ(alone.take(kSound), kAudioSetup + kSound);

    Gate gate;
    gate.take(kInterFrame, 0, 1000);
    EXPECT_EQ(gate.take(kSound, 0, 1000 + FlvGate::kVideoTimeout), "");
    EXPECT_EQ(gate.take(kSound, 0, 1001 + FlvGate::kVideoTimeout), kSound);
}

TEST(FlvGate, KeepsWhatWaitsForASlowDestinationBoundedWhateverItIs) {
    for (const std::string& tag : {kMetadata, kVideoSetup, kAudioSetup, kKeyFrame, kInterFrame, kSound}) {
        Gate gate;
        gate.take(kKeyFrame);
        EXPECT_EQ(gate.take(tag, FlvGate::kMaxQueued), tag);
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ(gate.take(tag, FlvGate::kMaxQueued + 1), "");
        }
    }
}

TEST(FlvGate, GoesOnAtAKeyFrameOnceThereIsRoomAndWithTheLatestSetup) {
    Gate gate;
    gate.take(kMetadata);
    gate.take(kVideoSetup);
    gate.take(kKeyFrame);
    const std::string otherSetup = tagOf(9, 0, {0x17, 0, 7, 8});
    EXPECT_EQ(gate.take(otherSetup, FlvGate::kMaxQueued + 1), "");
    EXPECT_EQ(gate.take(kKeyFrame, FlvGate::kMaxQueued / 4), "");
    EXPECT_EQ(gate.take(kInterFrame), "");
    EXPECT_EQ(gate.take(kMetadata), "");
    EXPECT_EQ(gate.take(kSound), "");
    EXPECT_EQ(gate.take(kKeyFrame, FlvGate::kMaxQueued / 4 - 1), kMetadata + otherSetup + kKeyFrame);
    EXPECT_EQ(gate.take(kInterFrame), kInterFrame);
}

TEST(FlvGate, TellsANewDestinationTheSetupAndForgetsThatOfAnOldSource) {
    Gate gate;
    gate.take(kVideoSetup);
    gate.take(kKeyFrame);
    gate.close();
    EXPECT_EQ(gate.take(kInterFrame), "");
    EXPECT_EQ(gate.take(kKeyFrame), kVideoSetup + kKeyFrame);
    gate.forgetHeaders();
    EXPECT_EQ(gate.take(kKeyFrame), kKeyFrame);
    gate.close();
    EXPECT_EQ(gate.take(kKeyFrame), kKeyFrame);
}

}  // namespace
}  // namespace vexalive
