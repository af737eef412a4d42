// Where the relay of the local service carries a stream, and what it makes of faults on either side.

#include <gtest/gtest.h>
#include <signal.h>

#include "MediaTesting.h"

namespace mediatesting {
namespace {

class Relay : public testing::Test {
protected:
    std::string cdn(const std::string& name) const { return desk.origin() + "/cdn/" + name; }
    bool comesToRun() {
        return eventually([this] { return desk.relay()["media"]["state"] == "running"; });
    }

    Desk desk;
};

TEST_F(Relay, AStreamIsCarriedToTheAddressAsItStands) {
    const auto alice = publish(desk.memberUrl(1), {"red", 440});
    ASSERT_EQ(desk.ask(relayBody(1, cdn("alice"))), 0);
    ASSERT_TRUE(comesToRun()) << desk.relay();
    const Viewer viewer(cdn("alice"), 640, 360);
    const Hearer hearer(cdn("alice"));
    EXPECT_TRUE(viewer.comesToSee({{320, 180, kRed}}));
    EXPECT_TRUE(hearer.comesToHear({440}));
    EXPECT_GT(desk.relay()["media"]["frames"], 0);
    EXPECT_EQ(desk.relay()["media"]["dropped"], 0);

    ASSERT_EQ(desk.ask(removeBody(1)), 0);
    EXPECT_TRUE(eventually([&] { return viewer.hasEnded(); }));
    EXPECT_TRUE(eventually([] { return Desk::children("vexalive-media").empty(); }));
}

TEST_F(Relay, ARelayOutlivesTheRestartOfItsSource) {
    auto alice = publish(desk.memberUrl(1), {"red", 440});
    ASSERT_EQ(desk.ask(relayBody(1, cdn("alice"))), 0);
    ASSERT_TRUE(comesToRun()) << desk.relay();
    const Viewer viewer(cdn("alice"), 640, 360);
    const PacketWatch packets(cdn("alice"));
    ASSERT_TRUE(viewer.comesToSee({{320, 180, kRed}}));
    ASSERT_TRUE(eventually([&] { return packets.times("video").size() > 20; }));

    alice.reset();
    ASSERT_TRUE(eventually([this] { return desk.relay()["media"]["inputs"][0]["state"] == "reconnecting"; }));
    alice = publish(desk.memberUrl(1), {"lime", 440});
    EXPECT_TRUE(viewer.comesToSee({{320, 180, kLime}}));
    EXPECT_TRUE(comesToRun());
    const size_t seen = packets.times("video").size();
    EXPECT_TRUE(eventually([&] { return packets.times("video").size() > seen + 20; }));
    EXPECT_FALSE(packets.hasEnded());
    EXPECT_FALSE(packets.goesBack("video"));
    EXPECT_FALSE(packets.goesBack("audio"));
    EXPECT_EQ(desk.relay()["media"]["reconnects"], 0);  // of the destination
    EXPECT_EQ(desk.relay()["media"]["restarts"], 0);
}

TEST_F(Relay, ADestinationThatIsGoneDisturbsNoOther) {
    const auto alice = publish(desk.memberUrl(1), {"red", 440});
    const auto bob = publish(desk.memberUrl(2), {"lime", 660});
    ASSERT_EQ(desk.ask(relayBody(1, "rtmp://127.0.0.1:9/cdn/nobody")), 0);
    ASSERT_EQ(desk.ask(relayBody(2, cdn("bob"))), 0);
    const Viewer viewer(cdn("bob"), 640, 360);
    const PacketWatch packets(cdn("bob"));
    EXPECT_TRUE(viewer.comesToSee({{320, 180, kLime}}));
    ASSERT_TRUE(eventually([this] { return desk.relay()["media"]["reconnects"] > 1; })) << desk.relay();
    EXPECT_EQ(desk.relay()["media"]["state"], "reconnecting");
    EXPECT_FALSE(desk.relay()["media"]["error"].get<std::string>().empty());
    EXPECT_TRUE(eventually([&] { return packets.times("video").size() > 40; }));
    EXPECT_LE(packets.longestGap("video"), 0.2);

    ASSERT_EQ(desk.ask(relayBody(1, cdn("alice"))), 0);  // moved to where someone listens
    EXPECT_TRUE(comesToRun()) << desk.relay();
    const Viewer moved(cdn("alice"), 640, 360);
    EXPECT_TRUE(moved.comesToSee({{320, 180, kRed}}));
}

TEST_F(Relay, OnlyRtmpIsCarried) {
    EXPECT_NE(desk.ask(relayBody(1, "srt://127.0.0.1:9000/alice")), 0);
    EXPECT_TRUE(desk.relay().is_null());
    EXPECT_EQ(desk.ask(relayBody(1, cdn("alice"))), 0);
}

}  // namespace
}  // namespace mediatesting
