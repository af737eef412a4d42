#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "tests/mix/MixTesting.h"
#include "tools/mix/MixJudgement.h"
#include "tools/mix/SentMix.h"

namespace vexalive {

using testing::ElementsAre;
using testing::IsEmpty;

// "refused: field ... is ...", "warning: ...".
std::vector<std::string> judged(const Config& config) {
    std::vector<std::string> told;
    for (const MixRemark& remark : judgeMix(config)) {
        told.push_back((remark.kind == MixRemark::kRefusal ? "refused: " : "warning: ") + describe(remark));
    }
    return told;
}

User fullScreen(const char* userId, int32_t zOrder) {
    return user(userId, zOrder, {0, 0, 1280, 720});
}

TEST(MixJudgementTest, ASoundMixHasNoRemarks) {
    EXPECT_THAT(judged(mix({user("a", 0), user("b", 16, {100, 0, 100, 100})})), IsEmpty());
    EXPECT_THAT(judged(mix({audioUser("a"), audioUser("b")})), IsEmpty());
}

TEST(MixJudgementTest, NoIdMayBeZeroInAnyMix) {
    Config config = mix({audioUser("a")});
    config.appId = config.bizId = 0;
    EXPECT_THAT(judged(config), ElementsAre("refused: field appId is 0, which no id can be",
                                            "refused: field bizId is 0, which no id can be"));
}

TEST(MixJudgementTest, EachZeroOfAMixWithVideoIsRefused) {
    Config config;
    config.appId = config.bizId = 1;
    config.videoWidth = config.videoHeight = config.videoBitrate = config.videoFramerate = config.videoGOP = 0;
    config.audioSampleRate = config.audioBitrate = config.audioChannels = 0;
    config.mixUsersArray = {user("a", 1)};
    const std::string end = " is 0, which a mix with video cannot have";
    const std::string more = "; -1 leaves it to the service";
    EXPECT_THAT(judged(config),
                ElementsAre("refused: field videoWidth" + end, "refused: field videoHeight" + end,
                            "refused: field videoBitrate" + end + more, "refused: field videoFramerate" + end + more,
                            "refused: field videoGOP" + end + more, "refused: field audioSampleRate" + end + more,
                            "refused: field audioBitrate" + end + more, "refused: field audioChannels" + end + more));
    config.mixUsersArray = {audioUser("a")};
    EXPECT_THAT(judged(config), IsEmpty());
}

TEST(MixJudgementTest, AMixOfNobodyIsRefused) {
    EXPECT_THAT(judged(mix({})), ElementsAre("refused: field mixUsersArray is empty: a mix has at least one input"));
}

TEST(MixJudgementTest, AllLayersAtFaultAreNamed) {
    EXPECT_THAT(judged(mix({user("a", 17), user("b", 3), user("c", -1), user("d", 3), user("e", 3)})),
                ElementsAre("refused: field mixUsersArray[0].zOrder is 17: must be from 0 to 16",
                            "refused: field mixUsersArray[2].zOrder is -1: must be from 0 to 16",
                            "refused: field mixUsersArray[3].zOrder is 3, which mixUsersArray[1] has already",
                            "refused: field mixUsersArray[4].zOrder is 3, which mixUsersArray[1] has already"));
}

TEST(MixJudgementTest, LayersOfAMixOfAudioAreFree) {
    User first = audioUser("a");
    User second = audioUser("b");
    first.zOrder = second.zOrder = 99;
    EXPECT_THAT(judged(mix({first, second})), IsEmpty());
}

TEST(MixJudgementTest, AnInputOfAudioTakesALayerOfAMixWithVideo) {
    EXPECT_THAT(judged(mix({user("a", 0), audioUser("b")})),
                ElementsAre("refused: field mixUsersArray[1].zOrder is 0, which mixUsersArray[0] has already"));
}

TEST(MixJudgementTest, PlacesOffTheCanvasAreWarnedOf) {
    EXPECT_THAT(judged(mix({user("a", 0, {1280, 0, 10, 10}), user("b", 1, {-5, 0, 10, 10}), user("c", 2, {0, 0, 0, 10}),
                            user("d", 3, {0, 0, 10, -1}), user("e", 4, {1270, 710, 10, 10})})),
                ElementsAre("warning: field mixUsersArray[0].rect lies off the canvas",
                            "warning: field mixUsersArray[1].rect lies partly off the canvas",
                            "warning: field mixUsersArray[2].rect has no area: its size is 0 x 10",
                            "warning: field mixUsersArray[3].rect has no area: its size is 10 x -1"));
}

TEST(MixJudgementTest, AnInputThatHigherLayersHideTogetherIsWarnedOf) {
    EXPECT_THAT(judged(mix({user("left", 5, {0, 0, 640, 720}), fullScreen("hidden", 1),
                            user("right", 6, {640, 0, 640, 720}), fullScreen("lowest", 0)})),
                ElementsAre("warning: field mixUsersArray[3].rect is hidden behind the layers above it",
                            "warning: field mixUsersArray[1].rect is hidden behind the layers above it"));
    EXPECT_THAT(judged(mix({fullScreen("a", 0), user("left", 5, {0, 0, 640, 720})})), IsEmpty());
}

TEST(MixJudgementTest, AnInputOfAudioHidesNobody) {
    User audio = audioUser("b");
    audio.zOrder = 5;
    audio.rect = {0, 0, 1280, 720};
    EXPECT_THAT(judged(mix({user("a", 1), audio})), IsEmpty());
}

TEST(MixJudgementTest, NegativeSizesAndSettingsAreSentAndWarnedOf) {
    Config config = mix({user("a", 1)});
    config.videoWidth = -1;
    config.videoGOP = -1;
    config.audioChannels = -2;
    EXPECT_THAT(judged(config),
                ElementsAre("warning: field videoWidth is -1 and is sent so: the size of the canvas cannot be left to "
                            "the service",
                            "warning: field audioChannels is -2 and is sent so: only -1 leaves it to the service"));
}

TEST(MixJudgementTest, NamesThatAStreamIdDoesNotTellApartAreWarnedOf) {
    User zero = user(std::string("a\0b", 3), 1);
    User longName = user(std::string(4000, 'u'), 2, {200, 0, 100, 100});
    longName.roomId = std::string(88, 'r');
    User longest = longName;  // 4094 bytes of room, user and stream are the most that count
    longest.roomId.push_back('r');
    longest.zOrder = 3;
    longest.rect.x = 400;
    User aux = user("c", 4, {600, 0, 100, 100});
    User again = user("c", 5, {800, 0, 100, 100});
    aux.streamType = again.streamType = 2;
    User main = user("c", 6, {1000, 0, 100, 100});
    User nobody = user("", 7, {0, 200, 100, 100});
    EXPECT_THAT(judged(mix({zero, longName, longest, aux, again, main, nobody})),
                ElementsAre("warning: field mixUsersArray[0].userId has a zero character, at which it ends",
                            "warning: field mixUsersArray[2] roomId and userId are so long that the stream id counts "
                            "only their beginning",
                            "warning: field mixUsersArray[4] is the same stream as mixUsersArray[3]",
                            "warning: field mixUsersArray[6].userId is empty"));
}

TEST(SentMixTest, AStreamIdIsTheBizIdAndADigest) {
    // The digest of room7_bob_main, and of room7_bob_aux.
    EXPECT_EQ(streamId(8888, "room7", "bob", false), "8888_b2d700c9449aa7a1002cd7ceaceabdca");
    EXPECT_EQ(streamId(-1, "room7", "bob", true), "-1_ce6e4df164874a065e29aa850597c657");
}

}  // namespace vexalive
