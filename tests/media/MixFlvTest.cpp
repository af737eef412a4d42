#include <gtest/gtest.h>

#include <string>

#include "media/MixFlv.h"

namespace vexalive {
namespace {

using namespace std::string_literals;

TEST(MixFlv, MakesTheBytesOfTheFormat) {
    EXPECT_EQ(videoTag("ab", true).withTimestamp(0x01020304),
              "\x09\0\0\x07\x02\x03\x04\x01\0\0\0\x17\x01\0\0\0ab\0\0\0\x12"s);
    EXPECT_EQ(videoTag("ab", false).withTimestamp(16'777'250),
              "\x09\0\0\x07\0\0\x22\x01\0\0\0\x27\x01\0\0\0ab\0\0\0\x12"s);
    EXPECT_EQ(audioTag("ab").withTimestamp(0), "\x08\0\0\x04\0\0\0\0\0\0\0\xaf\x01"s + "ab\0\0\0\x0f"s);
    EXPECT_EQ(sequenceHeaderTag(FlvTag::Kind::kVideo, "c").withTimestamp(0),
              "\x09\0\0\x06\0\0\0\0\0\0\0\x17\0\0\0\0c\0\0\0\x11"s);
    EXPECT_EQ(sequenceHeaderTag(FlvTag::Kind::kAudio, "c").withTimestamp(0),
              "\x08\0\0\x03\0\0\0\0\0\0\0\xaf\0c\0\0\0\x0e"s);
}

TEST(MixFlv, DescribesWhatThereIs) {
    const std::string audio = metadataTag(std::nullopt, AudioFormat{44100, 64, 1}).bytes;
    EXPECT_EQ(audio.find("width"), std::string::npos);
    EXPECT_EQ(audio.find("\x02\0\x0aonMetaData\x08\0\0\0\x05"s), 11U);
    // 44100 as a double
    EXPECT_NE(audio.find("\0\x0f"s + "audiosamplerate" + "\0\x40\xe5\x88\x80\0\0\0\0"s), std::string::npos);
    EXPECT_EQ(metadataTag(std::nullopt, std::nullopt).withTimestamp(0),
              "\x12\0\0\x15\0\0\0\0\0\0\0\x02\0\x0aonMetaData\x08\0\0\0\0\0\0\x09\0\0\0\x20"s);
    EXPECT_NE(metadataTag(VideoFormat{1280, 720, 20, 1500, 2}, std::nullopt).bytes.find("\0\x05width\0\x40\x94"s),
              std::string::npos);
}

}  // namespace
}  // namespace vexalive
