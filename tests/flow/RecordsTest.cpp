// The texts of the records, as reports show them.

#include <limits>

#include "FlowTest.h"

using kstmedia::VexaMixUserInternal;
using kstmedia::VexaPublishCDNParamInternal;
using kstmedia::VexaTranscodingConfigInternal;

class RecordsTest : public FlowTest {};

TEST_F(RecordsTest, RelayParameter) {
    VexaPublishCDNParamInternal param = relay("abc");

    EXPECT_EQ(param.to_string(), "appId:12345, bizId:8888, url:abc");
    param.appId = -1;
    param.bizId = std::numeric_limits<int32_t>::min();
    EXPECT_EQ(param.to_string(), "appId:-1, bizId:-2147483648, url:abc");
}

TEST_F(RecordsTest, RelayParameterWithoutAnAddressEndsAtTheColon) {
    EXPECT_EQ(relay("").to_string(), "appId:12345, bizId:8888, url:");
}

TEST_F(RecordsTest, RelaysAddressIsAppendedWholeAndAsItStands) {
    const std::string url = std::string(5000, 'u') + std::string("\0\"%d é", 8);

    EXPECT_EQ(relay(url).to_string(), "appId:12345, bizId:8888, url:" + url);
}

TEST_F(RecordsTest, ConfigurationWithOneUser) {
    VexaTranscodingConfigInternal config = mix();
    config.mode = 0;

    EXPECT_EQ(config.to_string(),
              "mode:0, appId:12345, bizId:8888, width:720, height:1280, bitrate:1500, fps:20, gop:2, "
              "audio_samplerate:48000, audio_bitrate:64, audio_channel:2 mixUser1:[userId:alice, roomId:, "
              "rect:(x:0-y:0-w:720-h:1280), zOrder:1, pureAudio:0, streamType:0]");
}

TEST_F(RecordsTest, ConfigurationWithoutUsersIsItsHead) {
    EXPECT_EQ(mix({}).to_string(),
              "mode:3, appId:12345, bizId:8888, width:720, height:1280, bitrate:1500, fps:20, gop:2, "
              "audio_samplerate:48000, audio_bitrate:64, audio_channel:2");
}

TEST_F(RecordsTest, NegativeNumbersKeepTheirSigns) {
    VexaTranscodingConfigInternal config;
    config.mode = config.appId = config.bizId = -1;
    config.videoWidth = config.videoHeight = config.videoBitrate = config.videoFramerate = config.videoGOP = -1;
    config.audioSampleRate = config.audioBitrate = config.audioChannels = -1;

    EXPECT_EQ(config.to_string(),
              "mode:-1, appId:-1, bizId:-1, width:-1, height:-1, bitrate:-1, fps:-1, gop:-1, audio_samplerate:-1, "
              "audio_bitrate:-1, audio_channel:-1");
}

TEST_F(RecordsTest, EveryFieldOfEveryUserInTheCallersOrder) {
    VexaMixUserInternal bob = user("bob", 16);
    bob.roomId = "room9";
    bob.rect = {-1, 2, -3, 4};
    bob.pureAudio = true;
    bob.streamType = 2;

    EXPECT_EQ(mix({bob, user("", -5)}).to_string(),
              mixText(" mixUser1:[userId:bob, roomId:room9, rect:(x:-1-y:2-w:-3-h:4), zOrder:16, pureAudio:1, "
                      "streamType:2] mixUser2:[userId:, roomId:, rect:(x:0-y:0-w:720-h:1280), zOrder:-5, pureAudio:0, "
                      "streamType:0]"));
}

TEST_F(RecordsTest, UserIsCutAt259CharactersAndTheNextFollowsDirectly) {
    const std::string longName(5000, 'u');

    EXPECT_EQ(mix({user(longName, 1), user("bob", 2)}).to_string(),
              mixText(" mixUser1:[userId:" + std::string(259 - 18, 'u') +
                      " mixUser2:[userId:bob, roomId:, rect:(x:0-y:0-w:720-h:1280), zOrder:2, pureAudio:0, "
                      "streamType:0]"));
}

TEST_F(RecordsTest, UserOf259CharactersIsWholeAndOneOf260LosesItsBracket) {
    const std::string start = " mixUser1:[userId:";
    const std::string end = ", roomId:, rect:(x:0-y:0-w:720-h:1280), zOrder:1, pureAudio:0, streamType:0]";
    const std::string name(259 - start.size() - end.size(), 'n');

    EXPECT_EQ(mix({user(name, 1)}).to_string(), mixText(start + name + end));
    EXPECT_EQ(mix({user(name + "n", 1)}).to_string(), mixText(start + name + "n" + end.substr(0, end.size() - 1)));
}

TEST_F(RecordsTest, ZeroByteEndsAUsersTexts) {
    VexaMixUserInternal odd = user(std::string("a\0b", 3), 1);
    odd.roomId = std::string("c\0d", 3);

    EXPECT_EQ(mix({odd}).to_string(),
              mixText(" mixUser1:[userId:a, roomId:c, rect:(x:0-y:0-w:720-h:1280), zOrder:1, pureAudio:0, "
                      "streamType:0]"));
}

TEST_F(RecordsTest, CopyHasAUserListOfItsOwn) {
    const VexaTranscodingConfigInternal config = mix();
    VexaTranscodingConfigInternal copy = config;

    copy.mixUsersArray[0].userId = "bob";
    copy.mixUsersArray.push_back(user("carol", 2));

    ASSERT_EQ(config.mixUsersArray.size(), 1u);
    EXPECT_EQ(config.mixUsersArray[0].userId, "alice");
}
