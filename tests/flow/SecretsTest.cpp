// The user signature and the map key appear in addresses and nowhere else.

#include "FlowTest.h"

using ::testing::Each;
using ::testing::HasSubstr;

class SecretsTest : public FlowTest {};

// What was logged, reported, notified and sent as a body is checked for the secrets at the end of every test.
TEST_F(SecretsTest, SecretsAppearOnlyInAddresses) {
    mAdapter->updateUserInfo(0, kUserSig, "");
    startRelay();
    startMix();
    givenInRoom();
    respondTo(0, 1, "");
    respondTo(1, 0, "");
    VirtualTime::runUntilQuiet();
    respondToAll(0, "not json");
    begin(kRemoveRelay);
    respondToAll(1, "");
    begin(kCancelMix);
    respondToAll(404, R"({"transportError":"refused"})");
    startRelay(relay(""));
    startMix(mix({}));
    startMix(mix({user("bob", 99)}));
    mAdapter->startPublishStreamUrl(relay());
    mAdapter->startPublishStreamUrl(relay("rtmp://cdn.test/\"other\""));
    run();
    respondToAll(0, R"({"code":505,"message":"busy"})");
    reset();
    startMix(mix({audioUser("bob")}));
    begin(kCancelMix);
    respondToAll(0, R"({"ErrorCode":-1,"ErrorInfo":"down"})");

    EXPECT_GT(mPlatform.log.size(), 50u);
    EXPECT_GT(mPlatform.reports.size(), 8u);
    EXPECT_GT(notified().size(), 8u);
    EXPECT_THAT(requests(), Each(testing::Field(&FakePlatform::Request::url, HasSubstr(kUserSig))));
    EXPECT_THAT(requests(), Each(testing::Field(&FakePlatform::Request::url, HasSubstr(kMapKey))));
}
