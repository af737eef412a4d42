// The to_string() functions of the three parameter records.

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "params/VexaMixUserInternal.h"
#include "params/VexaPublishCDNParamInternal.h"
#include "params/VexaTranscodingConfigInternal.h"

namespace {

using kstmedia::VexaMixUserInternal;
using kstmedia::VexaPublishCDNParamInternal;
using kstmedia::VexaTranscodingConfigInternal;

constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
constexpr size_t kEntryLimit = 259;

const std::string kHead =
    "mode:0, appId:12345, bizId:8888, width:720, height:1280, bitrate:1500, fps:20, gop:2, audio_samplerate:48000, "
    "audio_bitrate:64, audio_channel:2";

VexaMixUserInternal userNamed(const std::string& userId) {
    VexaMixUserInternal user;
    user.userId = userId;
    return user;
}

VexaMixUserInternal alice() {
    VexaMixUserInternal user = userNamed("alice");
    user.rect.w = 720;
    user.rect.h = 1280;
    user.zOrder = 1;
    return user;
}

// A mix whose string is kHead as long as it has no users.
VexaTranscodingConfigInternal portraitMix() {
    VexaTranscodingConfigInternal config;
    config.appId = 12345;
    config.bizId = 8888;
    config.videoWidth = 720;
    config.videoHeight = 1280;
    config.videoBitrate = 1500;
    config.videoFramerate = 20;
    config.videoGOP = 2;
    config.audioSampleRate = 48000;
    config.audioBitrate = 64;
    config.audioChannels = 2;
    return config;
}

// The part of the string that shows these users: everything after kHead.
std::string entriesOf(const std::vector<VexaMixUserInternal>& users) {
    VexaTranscodingConfigInternal config = portraitMix();
    config.mixUsersArray = users;
    const std::string text = config.to_string();
    EXPECT_EQ(text.substr(0, kHead.size()), kHead);
    return text.substr(kHead.size());
}

// ---- Relay parameter ----

TEST(PublishCDNParamTest, RendersItsNumbersWithTheirSignAndItsAddressWholeAndUnescaped) {
    EXPECT_EQ(VexaPublishCDNParamInternal().to_string(), "appId:0, bizId:0, url:");
    EXPECT_EQ((VexaPublishCDNParamInternal{12345, 8888, "abc"}.to_string()), "appId:12345, bizId:8888, url:abc");
    EXPECT_EQ((VexaPublishCDNParamInternal{-1, kMin, "u"}.to_string()), "appId:-1, bizId:-2147483648, url:u");
    for (const std::string& address : {std::string(), std::string(100000, 'x'), std::string("a\"b\\c%s%d\0tail", 14)}) {
        EXPECT_EQ((VexaPublishCDNParamInternal{1, 2, address}.to_string()), "appId:1, bizId:2, url:" + address);
    }
}

// ---- Mix configuration ----

TEST(TranscodingConfigTest, RendersEachNumberUnderItsOwnLabel) {
    VexaTranscodingConfigInternal config;
    config.mode = 1;
    config.appId = 2;
    config.bizId = 3;
    config.videoWidth = 4;
    config.videoHeight = 5;
    config.videoBitrate = 6;
    config.videoFramerate = 7;
    config.videoGOP = 8;
    config.audioSampleRate = 9;
    config.audioBitrate = 10;
    config.audioChannels = 11;
    EXPECT_EQ(config.to_string(),
              "mode:1, appId:2, bizId:3, width:4, height:5, bitrate:6, fps:7, gop:8, audio_samplerate:9, "
              "audio_bitrate:10, audio_channel:11");
}

TEST(TranscodingConfigTest, RendersTheMediaNumbersOfAFreshRecordAsMinusOne) {
    EXPECT_EQ(VexaTranscodingConfigInternal().to_string(),
              "mode:0, appId:0, bizId:0, width:-1, height:-1, bitrate:-1, fps:-1, gop:-1, audio_samplerate:-1, "
              "audio_bitrate:-1, audio_channel:-1");
}

TEST(TranscodingConfigTest, RendersTheLongestNumbersWhole) {
    VexaTranscodingConfigInternal config;
    for (int32_t* field : {&config.mode, &config.appId, &config.bizId, &config.videoWidth, &config.videoHeight,
                           &config.videoBitrate, &config.videoFramerate, &config.videoGOP, &config.audioSampleRate,
                           &config.audioBitrate, &config.audioChannels}) {
        *field = kMin;
    }
    EXPECT_EQ(config.to_string(),
              "mode:-2147483648, appId:-2147483648, bizId:-2147483648, width:-2147483648, height:-2147483648, "
              "bitrate:-2147483648, fps:-2147483648, gop:-2147483648, audio_samplerate:-2147483648, "
              "audio_bitrate:-2147483648, audio_channel:-2147483648");
}

TEST(TranscodingConfigTest, RendersEachUsersFieldsInOrderAndWithTheirSign) {
    VexaMixUserInternal user = userNamed("u");
    user.roomId = "r";
    user.rect = {1, 2, 3, 4};
    user.zOrder = 5;
    user.pureAudio = true;
    user.streamType = 6;
    EXPECT_EQ(entriesOf({user}),
              " mixUser1:[userId:u, roomId:r, rect:(x:1-y:2-w:3-h:4), zOrder:5, pureAudio:1, streamType:6]");
    user.rect = {-1, -2, -3, kMin};
    user.zOrder = -5;
    user.streamType = -6;
    EXPECT_EQ(entriesOf({user}),
              " mixUser1:[userId:u, roomId:r, rect:(x:-1-y:-2-w:-3-h:-2147483648), zOrder:-5, pureAudio:1, "
              "streamType:-6]");
}

TEST(TranscodingConfigTest, CountsTheUsersFromOneAndSeparatesThemByABlankOnly) {
    std::vector<VexaMixUserInternal> users;
    std::string expected;
    for (int i = 1; i <= 12; ++i) {
        users.push_back(userNamed("u" + std::to_string(i)));
        expected += " mixUser" + std::to_string(i) + ":[userId:u" + std::to_string(i) +
                    ", roomId:, rect:(x:0-y:0-w:0-h:0), zOrder:0, pureAudio:0, streamType:0]";
    }
    EXPECT_EQ(entriesOf(users), expected);
}

TEST(TranscodingConfigTest, AFreshUserWithoutNamesRendersTheShortestEntry) {
    const std::string entry = entriesOf({VexaMixUserInternal()});
    EXPECT_EQ(entry, " mixUser1:[userId:, roomId:, rect:(x:0-y:0-w:0-h:0), zOrder:0, pureAudio:0, streamType:0]");
    EXPECT_EQ(entry.size(), 89u);
}

TEST(TranscodingConfigTest, AnEntryOfExactly259CharactersIsWholeAndALongerOneIsTruncated) {
    const std::string whole = entriesOf({userNamed(std::string(kEntryLimit - 89, 'u'))});
    EXPECT_EQ(whole.size(), kEntryLimit);
    EXPECT_EQ(whole.substr(whole.size() - 13), "streamType:0]");
    const std::string truncated = entriesOf({userNamed(std::string(kEntryLimit - 88, 'u'))});
    EXPECT_EQ(truncated.size(), kEntryLimit);
    EXPECT_EQ(truncated.substr(truncated.size() - 12), "streamType:0");
}

TEST(TranscodingConfigTest, ALongUserOrRoomIdIsTruncatedAndTheNextEntryFollowsDirectly) {
    const std::string bob =
        " mixUser2:[userId:bob, roomId:, rect:(x:0-y:0-w:0-h:0), zOrder:0, pureAudio:0, streamType:0]";
    EXPECT_EQ(entriesOf({userNamed(std::string(1000, 'u')), userNamed("bob")}),
              " mixUser1:[userId:" + std::string(kEntryLimit - 18, 'u') + bob);
    VexaMixUserInternal user = userNamed("u");
    user.roomId = std::string(1000, 'r');
    EXPECT_EQ(entriesOf({user, userNamed("bob")}),
              " mixUser1:[userId:u, roomId:" + std::string(kEntryLimit - 28, 'r') + bob);
}

TEST(TranscodingConfigTest, ATruncatedEntryAtTheEndIsFollowedByNothing) {
    const std::string entries = entriesOf({alice(), userNamed(std::string(300, 'u'))});
    EXPECT_EQ(entries, entriesOf({alice()}) + " mixUser2:[userId:" + std::string(kEntryLimit - 18, 'u'));
}

TEST(TranscodingConfigTest, TheNamesOfAUserEndAtTheirFirstZeroByteAndKeepPercentSigns) {
    VexaMixUserInternal user = userNamed(std::string("100%s%n\0ice", 11));
    user.roomId = std::string("\0room", 5);
    EXPECT_EQ(entriesOf({user}),
              " mixUser1:[userId:100%s%n, roomId:, rect:(x:0-y:0-w:0-h:0), zOrder:0, pureAudio:0, streamType:0]");
}

TEST(TranscodingConfigTest, RenderingDoesNotChangeTheRecord) {
    VexaTranscodingConfigInternal config = portraitMix();
    config.mixUsersArray = {userNamed(std::string(400, 'u'))};
    EXPECT_EQ(config.to_string(), config.to_string());
    EXPECT_EQ(config.mixUsersArray[0].userId.size(), 400u);
}

}  // namespace
