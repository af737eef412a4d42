// The inputs of a mix: which lists are accepted, and their order.

#include <limits>

#include "FlowTest.h"

using kstmedia::VexaMixUserInternal;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

class MixInputTest : public FlowTest {
protected:
    static constexpr int kLowest = std::numeric_limits<int>::min();
    static constexpr int kHighest = std::numeric_limits<int>::max();

    void SetUp() override { givenInRoom(); }

    // A user with video for each layer. For layers below 100, x is ten times the layer.
    static std::vector<VexaMixUserInternal> usersWithLayers(const std::vector<int>& layers) {
        std::vector<VexaMixUserInternal> users;
        for (const int layer : layers) {
            users.push_back(user("user" + std::to_string(layer), layer));
            users.back().rect.x = layer % 100 * 10;
        }
        return users;
    }

    static std::vector<VexaMixUserInternal> audioUsers(const std::vector<int>& layers) {
        std::vector<VexaMixUserInternal> users = usersWithLayers(layers);
        for (VexaMixUserInternal& user : users) {
            user.pureAudio = true;
        }
        return users;
    }

    void expectRefused(const std::vector<VexaMixUserInternal>& users, const std::string& line) {
        clearRecords();
        startMix(mix(users));
        EXPECT_THAT(log(),
                    ElementsAre(Logged{2, "operator()", "bPureAudio:" + std::string(users.empty() ? "1" : "0")},
                                Logged{4, "checkMixConfig", line},
                                Logged{4, "operator()",
                                       "error: checkMixConfig ret invalid cnt:" + std::to_string(users.size())}));
        EXPECT_THAT(notified(), ElementsAre(Call{"startRelay", -3324, "mixUsersArray is invalid"}));
        EXPECT_THAT(reports(), ElementsAre(Reported{31, mix(users).to_string(), "mixUsersArray is invalid"}));
        EXPECT_THAT(mPlatform.order, ElementsAre("startRelay", "report 31"));
    }

    void expectAccepted(const std::vector<VexaMixUserInternal>& users) {
        clearRecords();
        startMix(mix(users));
        EXPECT_THAT(requests(), SizeIs(1));
        EXPECT_THAT(notified(), IsEmpty());
        EXPECT_THAT(log(), Not(Contains(testing::Field(&Logged::level, 4))));
    }

    // The x of each sent input's rectangle. It identifies the input.
    std::vector<int> sentPositions() const {
        const std::string& sent = body(0);
        const std::string key = "\"location_x\":";
        std::vector<int> positions;
        for (size_t at = sent.find(key); at != std::string::npos; at = sent.find(key, at + 1)) {
            positions.push_back(std::stoi(sent.substr(at + key.size())));
        }
        return positions;
    }
};

TEST_F(MixInputTest, EmptyListCountsAsPureAudioAndIsRefused) {
    expectRefused({}, "error: config or config.mixUser can't be null");
}

TEST_F(MixInputTest, LayersZeroToSixteenAreAcceptedThoughTheMessageSaysOne) {
    expectAccepted(usersWithLayers({0}));
    expectAccepted(usersWithLayers({16}));
    expectAccepted(usersWithLayers({0, 1}));
    expectAccepted(usersWithLayers({16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0}));
}

TEST_F(MixInputTest, NothingButLayersAndAudioFlagsIsChecked) {
    VexaMixUserInternal unnamed = user("", 1);
    unnamed.rect = {-1, -2, 0, -3};
    unnamed.streamType = -9;
    expectAccepted({unnamed, user("bob", 2), user("bob", 3)});
}

TEST_F(MixInputTest, LayerOutOfRangeIsRefusedAndShownWithItsSign) {
    for (const int layer : {17, 18, 1000, -1, -17, kHighest, kLowest}) {
        expectRefused(usersWithLayers({layer}),
                      "error : zOrder invalid!zOrder = " + std::to_string(layer) + ".must between 1 and 16!");
    }
}

TEST_F(MixInputTest, LayerGivenTwiceIsRefused) {
    expectRefused(usersWithLayers({1, 1}), "error : zOrder can't be the same! zOrder = 1");
    expectRefused(usersWithLayers({0, 5, 0}), "error : zOrder can't be the same! zOrder = 0");
    expectRefused(usersWithLayers({16, 2, 3, 16}), "error : zOrder can't be the same! zOrder = 16");
}

TEST_F(MixInputTest, FirstFailingInputEndsTheCheck) {
    expectRefused(usersWithLayers({1, 17, 1}), "error : zOrder invalid!zOrder = 17.must between 1 and 16!");
    expectRefused(usersWithLayers({4, 4, 17, -1}), "error : zOrder can't be the same! zOrder = 4");
}

TEST_F(MixInputTest, LayersOfAPureAudioMixAreNotChecked) {
    expectAccepted(audioUsers({1, 1, 17, -1}));
    EXPECT_EQ(log().at(0).text, "bPureAudio:1");
}

TEST_F(MixInputTest, OneInputWithVideoMakesAMixWithVideo) {
    std::vector<VexaMixUserInternal> users = usersWithLayers({1, 1});
    users[0].pureAudio = true;
    expectRefused(users, "error : zOrder can't be the same! zOrder = 1");
    users[0].pureAudio = false;
    users[1].pureAudio = true;
    expectRefused(users, "error : zOrder can't be the same! zOrder = 1");
}

TEST_F(MixInputTest, InputsWithVideoAreSentInAscendingLayers) {
    startMix(mix(usersWithLayers({9, 3, 16, 0, 12, 1, 15, 7, 2, 14, 5, 11, 4, 10, 6, 13, 8})));

    EXPECT_THAT(sentPositions(),
                ElementsAre(0 /* canvas */, 0, 10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110, 120, 130, 140, 150, 160));
}

TEST_F(MixInputTest, InputsOfAPureAudioMixAreSentInTheCallersOrder) {
    startMix(mix(audioUsers({3, 1, 2})));

    EXPECT_THAT(sentPositions(), ElementsAre(30, 10, 20));
}

TEST_F(MixInputTest, OrderingComparesLayersAsSignedNumbers) {
    EXPECT_TRUE(LiveTranscodingAdapterSortFun(user("a", 1), user("b", 2)));
    EXPECT_FALSE(LiveTranscodingAdapterSortFun(user("a", 2), user("b", 1)));
    EXPECT_FALSE(LiveTranscodingAdapterSortFun(user("a", 2), user("b", 2)));
    EXPECT_TRUE(LiveTranscodingAdapterSortFun(user("a", -1), user("b", 0)));
    EXPECT_TRUE(LiveTranscodingAdapterSortFun(user("a", kLowest), user("b", kHighest)));
}
