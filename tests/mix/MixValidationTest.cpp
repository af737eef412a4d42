#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "Com/LiveRequests.h"
#include "tests/mix/MixTesting.h"
#include "tools/mix/MixValidation.h"

namespace vexalive {

using testing::ElementsAre;
using testing::IsEmpty;

// The diagnostics as strings: "error: …" or "warning: …".
std::vector<std::string> diagnosed(const Config& config) {
    std::vector<std::string> lines;
    for (const MixDiagnostic& diagnostic : validateMix(config)) {
        lines.push_back((diagnostic.severity == MixDiagnostic::kError ? "error: " : "warning: ") +
                        describe(diagnostic));
    }
    return lines;
}

User fullScreen(const char* userId, int32_t zOrder) {
    return user(userId, zOrder, {0, 0, 1280, 720});
}

TEST(MixValidationTest, AValidMixHasNoDiagnostics) {
    User audioInFront = audioUser("b", 5);
    audioInFront.rect = {0, 0, 1280, 720};  // covers the canvas, but an audio input hides nothing
    const Config valid[] = {mix({user("a", 0), user("b", 16, {100, 0, 100, 100})}),
                            mix({audioUser("a", 99), audioUser("b", 99)}),  // without video, layers are not checked
                            mix({user("a", 1), audioInFront}),
                            mix({fullScreen("a", 0), user("left", 5, {0, 0, 640, 720})})};
    for (const Config& each : valid) {
        EXPECT_THAT(diagnosed(each), IsEmpty()) << each.to_string();
    }
}

TEST(MixValidationTest, NoIdMayBeZeroInAnyMix) {
    Config config = mix({audioUser("a")});
    config.appId = config.bizId = 0;
    EXPECT_THAT(diagnosed(config),
                ElementsAre("error: field appId is 0: must not be 0", "error: field bizId is 0: must not be 0"));
}

TEST(MixValidationTest, EachZeroOfAMixWithVideoIsRefused) {
    Config config;
    config.appId = config.bizId = 1;
    config.videoWidth = config.videoHeight = config.videoBitrate = config.videoFramerate = config.videoGOP = 0;
    config.audioSampleRate = config.audioBitrate = config.audioChannels = 0;
    config.mixUsersArray = {user("a", 1)};
    const std::string end = " is 0: must not be 0 in a mix with video";
    const std::string more = "; -1 leaves it to the service";
    EXPECT_THAT(diagnosed(config),
                ElementsAre("error: field videoWidth" + end, "error: field videoHeight" + end,
                            "error: field videoBitrate" + end + more, "error: field videoFramerate" + end + more,
                            "error: field videoGOP" + end + more, "error: field audioSampleRate" + end + more,
                            "error: field audioBitrate" + end + more, "error: field audioChannels" + end + more));
    config.mixUsersArray = {audioUser("a")};
    EXPECT_THAT(diagnosed(config), IsEmpty());
}

TEST(MixValidationTest, AMixWithoutInputsIsRefused) {
    EXPECT_THAT(diagnosed(mix({})), ElementsAre("error: field mixUsersArray is empty: must have at least one input"));
}

TEST(MixValidationTest, EveryInvalidLayerIsReported) {
    EXPECT_THAT(diagnosed(mix({user("a", 17), user("b", 3), user("c", -1), user("d", 3), user("e", 3)})),
                ElementsAre("error: field mixUsersArray[0].zOrder is 17: must be from 0 to 16",
                            "error: field mixUsersArray[2].zOrder is -1: must be from 0 to 16",
                            "error: field mixUsersArray[3].zOrder is 3, the same as that of mixUsersArray[1]",
                            "error: field mixUsersArray[4].zOrder is 3, the same as that of mixUsersArray[1]"));
}

TEST(MixValidationTest, AnInputOfAudioOccupiesALayerOfAMixWithVideo) {
    EXPECT_THAT(diagnosed(mix({user("a", 0), audioUser("b")})),
                ElementsAre("error: field mixUsersArray[1].zOrder is 0, the same as that of mixUsersArray[0]"));
}

TEST(MixValidationTest, RectanglesOutsideTheCanvasAreWarnedOf) {
    EXPECT_THAT(
        diagnosed(mix({user("a", 0, {1280, 0, 10, 10}), user("b", 1, {-5, 0, 10, 10}), user("c", 2, {0, 0, 0, 10}),
                       user("d", 3, {0, 0, 10, -1}), user("e", 4, {1270, 710, 10, 10})})),
        ElementsAre("warning: field mixUsersArray[0].rect lies outside the canvas",
                    "warning: field mixUsersArray[1].rect lies partly outside the canvas",
                    "warning: field mixUsersArray[2].rect has no area: its size is 0 x 10",
                    "warning: field mixUsersArray[3].rect has no area: its size is 10 x -1"));
}

TEST(MixValidationTest, AnInputThatHigherLayersHideTogetherIsWarnedOf) {
    EXPECT_THAT(diagnosed(mix({user("left", 5, {0, 0, 640, 720}), fullScreen("hidden", 1),
                               user("right", 6, {640, 0, 640, 720}), fullScreen("lowest", 0)})),
                ElementsAre("warning: field mixUsersArray[3].rect is hidden behind the layers above it",
                            "warning: field mixUsersArray[1].rect is hidden behind the layers above it"));
}

TEST(MixValidationTest, NegativeSizesAndSettingsAreSentAndWarnedOf) {
    Config config = mix({user("a", 1)});
    config.videoWidth = -1;
    config.videoGOP = -1;
    config.audioChannels = -2;
    EXPECT_THAT(
        diagnosed(config),
        ElementsAre("warning: field videoWidth is -1 and is sent as it is: the canvas needs a size",
                    "warning: field audioChannels is -2 and is sent as it is: only -1 leaves it to the service"));
}

TEST(MixValidationTest, NamesWithAnAmbiguousStreamIdAreWarnedOf) {
    User zero = user(std::string("a\0b", 3), 1);
    User longName = user(std::string(4000, 'u'), 2, {200, 0, 100, 100});
    longName.roomId = std::string(88, 'r');
    User longest = longName;  // one byte more than the 4094 bytes of room, user and stream that the id depends on
    longest.roomId.push_back('r');
    longest.zOrder = 3;
    longest.rect.x = 400;
    User aux = user("c", 4, {600, 0, 100, 100});
    User again = user("c", 5, {800, 0, 100, 100});
    aux.streamType = again.streamType = 2;
    User main = user("c", 6, {1000, 0, 100, 100});
    User unnamed = user("", 7, {0, 200, 100, 100});
    EXPECT_THAT(
        diagnosed(mix({zero, longName, longest, aux, again, main, unnamed})),
        ElementsAre("warning: field mixUsersArray[0].userId is cut at its zero character",
                    "warning: field mixUsersArray[2] roomId and userId are too long: the stream id depends on their "
                    "beginning only",
                    "warning: field mixUsersArray[4] is the same stream as mixUsersArray[3]",
                    "warning: field mixUsersArray[6].userId is empty"));
}

TEST(MixValidationTest, RefusesWhatTheAdapterRefuses) {
    std::mt19937 random(11);
    int refused = 0;
    for (int round = 0; round < 5000; ++round) {
        const Config config = randomMix(random);
        const bool isPureAudio = requests::isPureAudio(config.mixUsersArray);
        const bool isRefusedByAdapter =
            !requests::isComplete(config, isPureAudio) ||
            requests::checkMixUsers(config.mixUsersArray, isPureAudio).error != requests::MixUsersError::kNone;
        ASSERT_EQ(isRefused(validateMix(config)), isRefusedByAdapter) << config.to_string();
        refused += isRefusedByAdapter;
    }
    EXPECT_GT(refused, 1000);
    EXPECT_LT(refused, 4000);
}

}  // namespace vexalive
