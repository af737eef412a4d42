// Where the relay of the local service carries a stream, and what it makes of faults on either side.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "MediaTesting.h"

namespace mediatesting {
namespace {

class Relay : public testing::Test {
protected:
    std::string cdn(const std::string& name) const { return desk.origin() + "/cdn/" + name; }
    bool comesToBe(const std::string& state, size_t place = 0) {
        return eventually([&] { return desk.relay(place)["media"]["state"] == state; });
    }
    bool comesToRun(size_t place = 0) { return comesToBe("running", place); }
    std::string error(size_t place = 0) const { return desk.relay(place)["media"]["error"]; }

    Desk desk;
};

// Of all workers.
long residentKibibytes() {
    long sum = 0;
    for (const pid_t pid : Desk::children("vexalive-media")) {
        std::ifstream file("/proc/" + std::to_string(pid) + "/status");
        for (std::string line; std::getline(file, line);) {
            sum += line.rfind("VmRSS:", 0) == 0 ? std::atol(line.c_str() + 6) : 0;
        }
    }
    return sum;
}

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

// The pause is longer than servers keep a publisher that sends nothing. Another publisher freezes meanwhile.
TEST_F(Relay, ARelayOutlivesAPauseOfItsSource) {
    constexpr std::chrono::seconds kPause{11};
    auto alice = publish(desk.memberUrl(1), {"red", 440});
    const auto bob = publish(desk.memberUrl(2), {"blue", 660});
    ASSERT_EQ(desk.ask(relayBody(1, cdn("alice"))), 0);
    ASSERT_EQ(desk.ask(relayBody(2, cdn("bob"))), 0);
    ASSERT_TRUE(comesToRun(0) && comesToRun(1)) << desk.state();
    const Viewer viewer(cdn("alice"), 640, 360);
    const PacketWatch packets(cdn("alice"));
    const PacketWatch packetsOfBob(cdn("bob"));
    ASSERT_TRUE(viewer.comesToSee({{320, 180, kRed}}));
    ASSERT_TRUE(eventually([&] { return packets.times("video").size() > 20; }));
    ASSERT_TRUE(eventually([&] { return packetsOfBob.times("video").size() > 20; }));

    alice.reset();
    const auto left = std::chrono::steady_clock::now();
    ASSERT_TRUE(eventually([this] { return desk.relay()["media"]["inputs"][0]["state"] == "reconnecting"; }));
    ::kill(bob->pid(), SIGSTOP);
    EXPECT_TRUE(comesToBe("reconnecting", 1)) << desk.relay(1);
    EXPECT_EQ(error(1), "nothing comes from " + streamIdOf(2));
    const size_t seenOfBob = packetsOfBob.times("video").size();
    ::kill(bob->pid(), SIGCONT);
    EXPECT_TRUE(comesToRun(1)) << desk.relay(1);
    EXPECT_TRUE(eventually([&] { return packetsOfBob.times("video").size() > seenOfBob + 20; }));

    std::this_thread::sleep_until(left + kPause);
    const size_t seen = packets.times("video").size();
    EXPECT_EQ(desk.relay()["media"]["state"], "reconnecting");
    EXPECT_EQ(error(), "its publisher has left");
    alice = publish(desk.memberUrl(1), {"lime", 440});
    EXPECT_TRUE(viewer.comesToSee({{320, 180, kLime}}));
    EXPECT_TRUE(comesToRun());
    EXPECT_TRUE(eventually([&] { return packets.times("video").size() > seen + 20; }));
    EXPECT_GT(packets.longestGap("video"), 10);  // as long as it was
    for (const PacketWatch* each : {&packets, &packetsOfBob}) {
        EXPECT_FALSE(each->hasEnded());
        EXPECT_FALSE(each->goesBack("video"));
        EXPECT_FALSE(each->goesBack("audio"));
    }
    for (const size_t place : {size_t{0}, size_t{1}}) {
        EXPECT_EQ(desk.relay(place)["media"]["reconnects"], 0);  // of the destination
        EXPECT_EQ(desk.relay(place)["media"]["restarts"], 0);
    }
}

TEST_F(Relay, ADestinationThatIsKilledIsReachedAgainWhenItIsBack) {
    OtherServer elsewhere;
    const auto alice = publish(desk.memberUrl(1), {"red", 440});
    ASSERT_EQ(desk.ask(relayBody(1, elsewhere.url("alice"))), 0);
    ASSERT_TRUE(comesToRun()) << desk.relay();
    const PacketWatch before(elsewhere.url("alice"));
    ASSERT_TRUE(eventually([&] { return before.times("video").size() > 20 && !before.times("audio").empty(); }));

    elsewhere.signal(SIGKILL);
    EXPECT_TRUE(comesToBe("reconnecting")) << desk.relay();
    EXPECT_NE(error(), "");
    EXPECT_TRUE(eventually([&] { return before.hasEnded(); }));
    elsewhere.start();
    ASSERT_TRUE(comesToRun()) << desk.relay();
    EXPECT_EQ(error(), "");
    const Viewer viewer(elsewhere.url("alice"), 640, 360);
    const PacketWatch after(elsewhere.url("alice"));
    EXPECT_TRUE(viewer.comesToSee({{320, 180, kRed}}));
    ASSERT_TRUE(eventually([&] { return after.times("video").size() > 20 && !after.times("audio").empty(); }));
    for (const char* kind : {"video", "audio"}) {
        EXPECT_GT(after.times(kind).front(), before.times(kind).back()) << kind;
        EXPECT_FALSE(after.goesBack(kind));
    }
    EXPECT_GT(desk.relay()["media"]["reconnects"], 0);
    EXPECT_EQ(desk.relay()["media"]["restarts"], 0);
}

TEST_F(Relay, ADestinationThatTakesNothingLosesFramesAndDisturbsNoOther) {
    constexpr int kHeavy = 30'000;          // kbit/s; soon fills what may wait
    constexpr long kMaxGrowth = 10 * 1024;  // KiB
    constexpr int kDropped = 60;            // frames, of far more bytes than that
    OtherServer slow;
    const auto alice = publish(desk.memberUrl(1), {"red", 440, 640, 360, 20, kHeavy});
    ASSERT_EQ(desk.ask(relayBody(1, slow.url("alice"))), 0);
    const auto bob = publish(desk.memberUrl(2), {"lime", 660});
    ASSERT_EQ(desk.ask(relayBody(2, cdn("bob"))), 0);
    ASSERT_TRUE(comesToRun(0) && comesToRun(1)) << desk.state();
    const PacketWatch packets(slow.url("alice"));
    const PacketWatch packetsOfBob(cdn("bob"));
    ASSERT_TRUE(eventually([&] { return packets.times("video").size() > 20; }));
    const long memory = residentKibibytes();

    slow.signal(SIGSTOP);
    EXPECT_TRUE(eventually([this] { return desk.relay()["media"]["dropped"] > kDropped; })) << desk.relay();
    EXPECT_LT(residentKibibytes(), memory + kMaxGrowth);
    EXPECT_TRUE(comesToBe("reconnecting")) << desk.relay();
    EXPECT_EQ(error(), "it takes nothing any more");
    slow.signal(SIGCONT);
    EXPECT_TRUE(comesToRun()) << desk.relay();
    const size_t seen = packets.times("video").size();
    EXPECT_TRUE(eventually([&] { return packets.times("video").size() > seen + 20; }));
    EXPECT_FALSE(packets.goesBack("video"));
    EXPECT_FALSE(packets.goesBack("audio"));

    EXPECT_LE(packetsOfBob.longestGap("video"), 0.2);
    EXPECT_EQ(desk.relay(1)["media"]["dropped"], 0);
    EXPECT_EQ(desk.relay(1)["media"]["state"], "running");
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
