// The relay of the local service: the stream that it carries, and faults of its source or destination.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <thread>

#include "MediaTesting.h"

namespace mediatesting {
namespace {

class Relay : public testing::Test {
protected:
    std::string cdn(const std::string& name) const { return service.origin() + "/cdn/" + name; }
    void add(int member, const std::string& destination) { ASSERT_EQ(service.post(relayOf(member, destination)), 0); }
    // Publishes a member's stream, starts its relay, and waits until the relay runs.
    void start(int member, const TestStream& stream, const std::string& destination) {
        (member == 1 ? alice : bob) = publish(service.memberUrl(member), stream);
        add(member, destination);
        ASSERT_TRUE(service.relayReaches("running", static_cast<size_t>(member - 1))) << service.state();
    }
    std::string error(size_t index = 0) const { return service.relay(index)["error"]; }

    LocalService service;
    std::unique_ptr<Program> alice;
    std::unique_ptr<Program> bob;
};

long residentKibibytes() {
    long sum = 0;
    for (const pid_t pid : LocalService::children("vexalive-media")) {
        sum += processField(pid, "VmRSS");
    }
    return sum;
}

bool awaitBoth(const Probe& packets) {
    return pollUntil([&] { return packets.video().size() > 20 && !packets.audio().empty(); });
}

TEST_F(Relay, CarriesTheStreamUnchanged) {
    start(1, {"red", 440}, cdn("alice"));
    const Viewer viewer(cdn("alice"));
    EXPECT_TRUE(viewer.comesToShow({{320, 180, kRed}}));
    EXPECT_TRUE(Listener(cdn("alice")).comesToDetect({440}));
    EXPECT_GT(service.relay()["frames"], 0);
    EXPECT_EQ(service.relay()["dropped"], 0);

    ASSERT_EQ(service.post(servicetesting::removalOf(1)), 0);
    EXPECT_TRUE(pollUntil([&] { return viewer.hasEnded(); }));
    EXPECT_TRUE(pollUntil([] { return LocalService::children("vexalive-media").empty(); }));
}

// The pause is longer than the time after which servers drop a publisher that sends nothing. During the pause, the
// publisher of a second relay freezes.
TEST_F(Relay, OutlivesAPauseOfItsSource) {
    constexpr std::chrono::seconds kPause{11};
    start(1, {"red", 440}, cdn("alice"));
    start(2, {"blue", 660}, cdn("bob"));
    const Viewer viewer(cdn("alice"));
    const Probe packets(cdn("alice"));
    const Probe packetsOfBob(cdn("bob"));
    ASSERT_TRUE(viewer.comesToShow({{320, 180, kRed}}));
    ASSERT_TRUE(packets.awaitVideo(21) && packetsOfBob.awaitVideo(21));

    alice.reset();
    const auto pauseBegan = std::chrono::steady_clock::now();
    ASSERT_TRUE(pollUntil([this] { return service.relay()["inputs"][0]["state"] == "reconnecting"; }));
    bob->signal(SIGSTOP);
    EXPECT_TRUE(service.relayReaches("reconnecting", 1)) << service.relay(1);
    EXPECT_EQ(error(1), "no media from " + streamIdOf(2));
    const size_t receivedOfBob = packetsOfBob.video().size();
    bob->signal(SIGCONT);
    EXPECT_TRUE(service.relayReaches("running", 1)) << service.relay(1);
    EXPECT_TRUE(packetsOfBob.awaitVideo(receivedOfBob + 21));

    std::this_thread::sleep_until(pauseBegan + kPause);
    const size_t received = packets.video().size();
    EXPECT_EQ(service.relay()["state"], "reconnecting");
    EXPECT_EQ(error(), "its publisher has disconnected");
    alice = publish(service.memberUrl(1), {"lime", 440});
    EXPECT_TRUE(viewer.comesToShow({{320, 180, kLime}}));
    EXPECT_TRUE(service.relayReaches("running"));
    EXPECT_TRUE(packets.awaitVideo(received + 21));
    EXPECT_GT(packets.longestVideoGap(), 10);  // seconds: the output has a pause of the same length
    for (const Probe* each : {&packets, &packetsOfBob}) {
        EXPECT_FALSE(each->hasEnded());
        EXPECT_TRUE(each->isMonotonic());
    }
    for (const size_t index : {size_t{0}, size_t{1}}) {
        EXPECT_EQ(service.relay(index)["reconnects"], 0);  // counts the connections to the destination
        EXPECT_EQ(service.relay(index)["restarts"], 0);
    }
}

TEST_F(Relay, ReconnectsToADestinationThatWasKilled) {
    ExternalServer server;
    start(1, {"red", 440}, server.url("alice"));
    const Probe before(server.url("alice"));
    ASSERT_TRUE(awaitBoth(before));

    server.signal(SIGKILL);
    EXPECT_TRUE(service.relayReaches("reconnecting")) << service.relay();
    EXPECT_NE(error(), "");
    EXPECT_TRUE(pollUntil([&] { return before.hasEnded(); }));
    server.start();
    ASSERT_TRUE(service.relayReaches("running")) << service.relay();
    EXPECT_EQ(error(), "");
    const Viewer viewer(server.url("alice"));
    const Probe after(server.url("alice"));
    EXPECT_TRUE(viewer.comesToShow({{320, 180, kRed}}));
    ASSERT_TRUE(awaitBoth(after));
    EXPECT_GT(after.video().front().time, before.video().back().time);
    EXPECT_GT(after.audio().front().time, before.audio().back().time);
    EXPECT_TRUE(after.isMonotonic());
    EXPECT_GT(service.relay()["reconnects"], 0);
    EXPECT_EQ(service.relay()["restarts"], 0);
}

TEST_F(Relay, ADestinationThatReadsNothingLosesFramesAndDisturbsNoOtherRelay) {
    constexpr int kHeavy = 30'000;          // kbit/s; soon fills the queue
    constexpr long kMaxGrowth = 10 * 1024;  // KiB of memory
    constexpr int kDropped = 60;            // frames; together far larger than kMaxGrowth
    ExternalServer slow;
    start(1, {"red", 440, 640, 360, 20, kHeavy}, slow.url("alice"));
    start(2, {"lime", 660}, cdn("bob"));
    const Probe packets(slow.url("alice"));
    const Probe packetsOfBob(cdn("bob"));
    ASSERT_TRUE(packets.awaitVideo(21));
    const long memory = residentKibibytes();

    slow.signal(SIGSTOP);
    EXPECT_TRUE(pollUntil([this] { return service.relay()["dropped"] > kDropped; })) << service.relay();
    EXPECT_LT(residentKibibytes(), memory + kMaxGrowth);
    EXPECT_TRUE(service.relayReaches("reconnecting")) << service.relay();
    EXPECT_EQ(error(), "it accepts no more data");
    slow.signal(SIGCONT);
    EXPECT_TRUE(service.relayReaches("running")) << service.relay();
    EXPECT_TRUE(packets.awaitVideo(packets.video().size() + 21));
    EXPECT_TRUE(packets.isMonotonic());

    EXPECT_LE(packetsOfBob.longestVideoGap(), 0.2);
    EXPECT_EQ(service.relay(1)["dropped"], 0);
    EXPECT_EQ(service.relay(1)["state"], "running");
}

TEST_F(Relay, ADestinationThatIsAbsentDisturbsNoOtherRelay) {
    alice = publish(service.memberUrl(1), {"red", 440});
    add(1, "rtmp://127.0.0.1:9/cdn/nobody");
    bob = publish(service.memberUrl(2), {"lime", 660});
    add(2, cdn("bob"));
    const Probe packets(cdn("bob"));
    EXPECT_TRUE(Viewer(cdn("bob")).comesToShow({{320, 180, kLime}}));
    ASSERT_TRUE(pollUntil([this] { return service.relay()["reconnects"] > 1; })) << service.relay();
    EXPECT_EQ(service.relay()["state"], "reconnecting");
    EXPECT_NE(error(), "");
    EXPECT_TRUE(packets.awaitVideo(41));
    EXPECT_LE(packets.longestVideoGap(), 0.2);

    add(1, cdn("alice"));  // gives the same relay another destination
    EXPECT_TRUE(service.relayReaches("running")) << service.relay();
    EXPECT_TRUE(Viewer(cdn("alice")).comesToShow({{320, 180, kRed}}));
}

}  // namespace
}  // namespace mediatesting
