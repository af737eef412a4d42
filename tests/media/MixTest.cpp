// What the mix of the local service shows and plays, by the pixels, tones and packets that a subscriber gets.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <random>

#include "MediaTesting.h"

namespace mediatesting {
namespace {

constexpr Rgb kBackground{0x20, 0x40, 0x60};
constexpr Rgb kPlaceholder{0x2b, 0x2b, 0x2b};
constexpr double kFrame = 0.05;      // seconds
constexpr int kHalfASecond = 10;     // frames
constexpr double kRounding = 0.002;  // RTMP counts milliseconds

// What the output is asked to be.
struct Output {
    int width;
    int height;
    int frameRate;
    int bitrate;  // kbit/s
    int gop;      // seconds
    int sampleRate;
    int channels;
};

json asked(json body, const Output& output) {
    json& canvas = body["input_stream_list"][0]["layout_params"];
    if (canvas["input_type"] == 3) {
        canvas["image_width"] = output.width;
        canvas["image_height"] = output.height;
    }
    json& wish = body["output_param"];
    wish["output_stream_frame_rate"] = output.frameRate;
    wish["output_stream_bitrate"] = output.bitrate;
    wish["output_stream_gop"] = output.gop;
    wish["output_audio_sample_rate"] = output.sampleRate;
    wish["output_audio_channels"] = output.channels;
    return body;
}

// Measures two groups of pictures, from the second key frame of the output's size on: the encoder has settled by then.
// The first `passed` pictures do not count.
void expectOutput(const FrameWatch& watch, const Output& output, size_t passed = 0) {
    std::vector<FrameWatch::Picture> pictures;
    std::vector<size_t> keys;
    ASSERT_TRUE(eventually([&] {
        pictures.clear();
        keys.clear();
        const std::vector<FrameWatch::Picture> all = watch.pictures();
        for (size_t i = passed; i < all.size(); ++i) {
            const FrameWatch::Picture& picture = all[i];
            if (picture.width == output.width && picture.height == output.height) {
                if (picture.isKey) {
                    keys.push_back(pictures.size());
                }
                pictures.push_back(picture);
            }
        }
        return keys.size() >= 4;
    })) << pictures.size()
        << " pictures of that size";
    for (const size_t group : {size_t{1}, size_t{2}}) {
        EXPECT_EQ(keys[group + 1] - keys[group], static_cast<size_t>(output.gop * output.frameRate));
    }
    const double begin = pictures[keys[1]].time;
    const double end = pictures[keys[3]].time;
    EXPECT_NEAR(end - begin, 2 * output.gop, 2 * kRounding);
    double bits = 0;
    for (size_t i = keys[1]; i < keys[3]; ++i) {
        bits += 8 * pictures[i].bytes;
    }
    EXPECT_NEAR(bits / 1000 / (end - begin), output.bitrate, output.bitrate / 4);

    std::vector<double> sounds;
    double samples = 0;
    for (const FrameWatch::Sound& sound : watch.sounds()) {
        if (sound.time >= begin && sound.time <= end) {
            EXPECT_EQ(sound.channels, output.channels);
            samples += sound.samples;
            sounds.push_back(sound.time);
        }
    }
    ASSERT_GT(sounds.size(), 2U);
    const double perPiece = samples / static_cast<double>(sounds.size());
    EXPECT_NEAR(perPiece * static_cast<double>(sounds.size() - 1) / (sounds.back() - sounds.front()), output.sampleRate,
                output.sampleRate / 50);
}

template <class Frame>
double longestGap(const std::vector<Frame>& frames) {
    double longest = 0;
    for (size_t i = 1; i < frames.size(); ++i) {
        EXPECT_GE(frames[i].time, frames[i - 1].time);
        longest = std::max(longest, frames[i].time - frames[i - 1].time);
    }
    return longest;
}

class Mix : public testing::Test {
protected:
    void start(const std::vector<Place>& places) {
        ASSERT_EQ(desk.ask(mixBody(places)), 0);
        ASSERT_TRUE(eventually([this] { return desk.mix()["media"]["state"] == "running"; })) << desk.mix();
    }
    std::unique_ptr<Program> member(int number, const std::string& colour, int tone = 0) {
        return publish(desk.memberUrl(number), {colour, tone});
    }
    bool inputComesToBe(size_t place, const std::string& state) {
        return eventually([&] { return desk.mix()["media"]["inputs"][place]["state"] == state; });
    }

    Desk desk;
};

TEST_F(Mix, EachInputFillsItsRectangleAndTheHigherLayerCoversTheLower) {
    const auto alice = member(1, "red");
    const auto bob = member(2, "lime");
    const auto carol = member(3, "blue");
    start({{1, 20, 20, 300, 320}, {2, 320, 20, 300, 320}, {3, 240, 100, 160, 160}});
    const Viewer viewer(desk.mixUrl(), 640, 360);
    EXPECT_TRUE(viewer.comesToSee({{30, 30, kRed},  // the corners of each rectangle
                                   {310, 30, kRed},
                                   {30, 330, kRed},
                                   {330, 30, kLime},
                                   {610, 330, kLime},
                                   {250, 110, kBlue},  // above both
                                   {390, 250, kBlue},
                                   {320, 180, kBlue},
                                   {230, 180, kRed},  // just beside it
                                   {410, 180, kLime},
                                   {8, 8, kBackground},  // outside of all
                                   {632, 352, kBackground}}));
}

TEST_F(Mix, RectanglesMayLieBeyondTheEdgesOfTheCanvas) {
    const auto alice = member(1, "red");
    const auto bob = member(2, "lime");
    const auto carol = member(3, "blue");
    start({{1, -160, -90, 320, 180}, {2, 480, 270, 4000, 4000}, {3, 700, 0, 100, 100}});
    const Viewer viewer(desk.mixUrl(), 640, 360);
    EXPECT_TRUE(viewer.comesToSee({{4, 4, kRed},
                                   {150, 80, kRed},
                                   {170, 80, kBackground},
                                   {150, 100, kBackground},
                                   {490, 280, kLime},
                                   {635, 355, kLime},
                                   {470, 300, kBackground},
                                   {635, 20, kBackground}}));
}

TEST_F(Mix, AnUpdateIsSeenWholeWithinHalfASecond) {
    const auto alice = member(1, "red");
    const auto bob = member(2, "lime");
    start({{1, 0, 0, 320, 360}, {2, 320, 0, 320, 360}});
    Viewer viewer(desk.mixUrl(), 640, 360);
    const std::vector<Spot> before = {{10, 180, kRed}, {310, 260, kRed}, {630, 180, kLime}, {500, 260, kLime}};
    const std::vector<Spot> after = {{10, 180, kLime}, {310, 260, kLime}, {630, 180, kLime}, {500, 260, kRed}};
    ASSERT_TRUE(viewer.comesToSee(before));

    viewer.expectChange(before, after);
    const int asked = viewer.frames();
    ASSERT_EQ(desk.ask(mixBody({{2, 0, 0, 640, 360}, {1, 400, 200, 200, 120}})), 0);
    ASSERT_TRUE(viewer.comesToSee(after));
    EXPECT_LE(viewer.changedAt() - asked, kHalfASecond);
    EXPECT_EQ(viewer.torn(), 0);
}

TEST_F(Mix, AHundredRandomUpdatesLeaveNoGapAndOneConnection) {
    const auto alice = member(1, "red", 440);
    const auto bob = member(2, "lime", 660);
    const auto carol = member(3, "blue", 880);
    start({{1, 0, 0, 640, 360}});
    const PacketWatch packets(desk.mixUrl());
    ASSERT_TRUE(eventually([&] { return packets.times("video").size() > 20; }));

    std::mt19937 random(7);
    const auto from = [&random](int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); };
    std::vector<Place> places;
    for (int update = 0; update < 100; ++update) {
        const size_t seen = packets.times("video").size();
        places.clear();
        for (int number = 1; number <= 3; ++number) {
            if (from(0, 3) != 0) {
                places.push_back(
                    {number, from(-100, 500), from(-100, 300), from(1, 640), from(1, 360), from(0, 4) == 0});
            }
        }
        places.push_back({4, 0, 0, 64, 36});  // of whom nothing comes
        std::shuffle(places.begin(), places.end(), random);
        ASSERT_EQ(desk.ask(mixBody(places)), 0);
        // The updates go on with the picture: two to four frames apart.
        const size_t next = seen + static_cast<size_t>(from(2, 4));
        ASSERT_TRUE(eventually([&] { return packets.times("video").size() >= next; }));
    }
    EXPECT_GT(packets.times("video").size(), 200U);
    EXPECT_LE(packets.longestGap("video"), 2 * kFrame + kRounding);
    EXPECT_FALSE(packets.goesBack("video"));
    EXPECT_FALSE(packets.goesBack("audio"));
    EXPECT_FALSE(packets.hasEnded());
    EXPECT_EQ(desk.mix()["media"]["reconnects"], 0);
    EXPECT_EQ(desk.mix()["media"]["restarts"], 0);
    EXPECT_EQ(desk.mix()["media"]["state"], "running");
}

TEST_F(Mix, EachToneIsHeardExactlyWhileItsInputIsInTheMix) {
    const auto alice = member(1, "red", 440);
    const auto bob = member(2, "lime", 660);
    const auto carol = member(3, "blue", 880);
    start({{1, 0, 0, 320, 180}, {2, 320, 0, 320, 180}});
    const Hearer hearer(desk.mixUrl());
    EXPECT_TRUE(hearer.comesToHear({440, 660}));
    ASSERT_EQ(desk.ask(mixBody({{1, 0, 0, 320, 180}, {2, 320, 0, 320, 180}, {3, 0, 180, 320, 180, true}})), 0);
    EXPECT_TRUE(hearer.comesToHear({440, 660, 880}));
    ASSERT_EQ(desk.ask(mixBody({{3, 0, 180, 320, 180}})), 0);
    EXPECT_TRUE(hearer.comesToHear({880}));
    ASSERT_EQ(desk.ask(mixBody({{1, 0, 0, 320, 180}, {3, 0, 180, 320, 180}})), 0);
    EXPECT_TRUE(hearer.comesToHear({440, 880}));
}

TEST_F(Mix, AnInputThatIsOnlyHeardShowsNothing) {
    const auto alice = member(1, "red", 440);
    const auto bob = member(2, "lime", 660);
    start({{1, 0, 0, 640, 360}, {2, 0, 0, 640, 360, true}});
    const Viewer viewer(desk.mixUrl(), 640, 360);
    const Hearer hearer(desk.mixUrl());
    EXPECT_TRUE(viewer.comesToSee({{320, 180, kRed}, {10, 10, kRed}}));
    EXPECT_TRUE(hearer.comesToHear({440, 660}));
    EXPECT_TRUE(viewer.sees({{320, 180, kRed}}));
}

TEST_F(Mix, AMixOfSoundAloneHasNoPicture) {
    const auto alice = publish(desk.memberUrl(1), {"", 440});
    const auto bob = member(2, "lime", 660);
    start({{1, 0, 0, 0, 0, true}, {2, 0, 0, 0, 0, true}});
    const Hearer hearer(desk.mixUrl());
    const PacketWatch packets(desk.mixUrl());
    EXPECT_TRUE(hearer.comesToHear({440, 660}));
    EXPECT_TRUE(eventually([&] { return packets.times("audio").size() > 20; }));
    EXPECT_EQ(packets.times("video").size(), 0U);
}

TEST_F(Mix, AnAbsentInputShowsAQuietPlaceholderUntilItComes) {
    const auto alice = member(1, "red", 440);
    start({{1, 0, 0, 320, 360}, {2, 320, 0, 320, 360}});
    const Viewer viewer(desk.mixUrl(), 640, 360);
    ASSERT_TRUE(viewer.comesToSee({{160, 180, kRed}}));
    const Rgb placeholder = viewer.at(480, 180);
    EXPECT_FALSE(placeholder.isNear(kBackground)) << placeholder;
    EXPECT_LT(placeholder.r + placeholder.g + placeholder.b, 3 * 80) << placeholder;
    EXPECT_TRUE(eventually([this] { return desk.mix()["media"]["inputs"][1]["error"] != ""; }));

    const auto bob = member(2, "lime", 660);
    EXPECT_TRUE(viewer.comesToSee({{160, 180, kRed}, {480, 180, kLime}}));
    EXPECT_TRUE(inputComesToBe(1, "running"));
    EXPECT_EQ(desk.mix()["media"]["inputs"][1]["error"], "");
}

TEST_F(Mix, AnInputThatIsKilledIsReplacedAndComesBackInAnotherSize) {
    const auto alice = member(1, "red", 440);
    auto bob = member(2, "lime", 660);
    start({{1, 0, 0, 320, 360}, {2, 320, 0, 320, 360}});
    const Viewer viewer(desk.mixUrl(), 640, 360);
    const PacketWatch packets(desk.mixUrl());
    ASSERT_TRUE(viewer.comesToSee({{160, 180, kRed}, {480, 180, kLime}}));

    bob.reset();
    EXPECT_TRUE(eventually([&] { return !viewer.sees({{480, 180, kLime}}); }));
    EXPECT_TRUE(inputComesToBe(1, "reconnecting"));
    EXPECT_TRUE(viewer.sees({{160, 180, kRed}}));

    bob = publish(desk.memberUrl(2), {"blue", 660, 320, 240, 15});
    EXPECT_TRUE(viewer.comesToSee({{160, 180, kRed}, {330, 10, kBlue}, {630, 350, kBlue}}));
    EXPECT_TRUE(inputComesToBe(1, "running"));
    EXPECT_LE(packets.longestGap("video"), 2 * kFrame + kRounding);
    EXPECT_FALSE(packets.hasEnded());
    EXPECT_EQ(desk.mix()["media"]["reconnects"], 0);
}

TEST_F(Mix, AnInputThatFreezesIsReplacedUntilItGoesOn) {
    const auto alice = member(1, "red", 440);
    const auto bob = member(2, "lime", 660);
    start({{1, 0, 0, 320, 360}, {2, 320, 0, 320, 360}});
    const Viewer viewer(desk.mixUrl(), 640, 360);
    const PacketWatch packets(desk.mixUrl());
    ASSERT_TRUE(viewer.comesToSee({{160, 180, kRed}, {480, 180, kLime}}));

    ::kill(bob->pid(), SIGSTOP);
    EXPECT_TRUE(viewer.comesToSee({{160, 180, kRed}, {480, 180, kPlaceholder}}));
    EXPECT_TRUE(inputComesToBe(1, "reconnecting"));
    EXPECT_EQ(desk.mix()["media"]["inputs"][1]["error"], "nothing comes from " + streamIdOf(2));
    EXPECT_EQ(desk.mix()["media"]["state"], "running");
    ::kill(bob->pid(), SIGCONT);
    EXPECT_TRUE(viewer.comesToSee({{160, 180, kRed}, {480, 180, kLime}}));
    EXPECT_TRUE(inputComesToBe(1, "running"));
    EXPECT_EQ(desk.mix()["media"]["inputs"][1]["reconnects"], 0);
    EXPECT_LE(packets.longestGap("video"), 2 * kFrame + kRounding);
}

TEST_F(Mix, TheOutputIsWhatItsSettingsSayAndBecomesAnotherOnTheSameConnection) {
    const std::vector<Place> places = {{1, 0, 0, 320, 180}};
    const Output first{426, 240, 25, 500, 1, 44100, 1};
    const Output second{640, 360, 15, 900, 1, 32000, 2};
    const auto alice = publish(desk.memberUrl(1), {"gray", 440, 320, 180, 25, 3000});
    ASSERT_EQ(desk.ask(asked(mixBody(places), first)), 0);
    ASSERT_TRUE(inputComesToBe(0, "running"));
    ASSERT_TRUE(eventually([this] { return desk.mix()["media"]["state"] == "running"; })) << desk.mix();
    const FrameWatch watch(desk.mixUrl());
    const Hearer hearer(desk.mixUrl());
    expectOutput(watch, first);
    EXPECT_TRUE(hearer.comesToHear({440}));

    ASSERT_EQ(desk.ask(asked(mixBody(places), second)), 0);
    expectOutput(watch, second);
    EXPECT_TRUE(hearer.comesToHear({440}));
    Output third = second;
    third.frameRate = 25;
    ASSERT_EQ(desk.ask(asked(mixBody(places), third)), 0);
    size_t passed = 0;  // pictures at the rate of before
    ASSERT_TRUE(eventually([&] {
        const auto pictures = watch.pictures();
        passed = pictures.size();
        return pictures[passed - 1].time - pictures[passed - 2].time < 1.0 / third.frameRate + kRounding;
    }));
    expectOutput(watch, third, passed);
    EXPECT_LE(longestGap(watch.pictures()), 2.0 / second.frameRate + kRounding);

    ASSERT_EQ(desk.ask(asked(mixBody({{1, 0, 0, 0, 0, true}}), third)), 0);
    const auto hasSoundAlone = [&watch] { return watch.sounds().back().time > watch.pictures().back().time + 1; };
    EXPECT_TRUE(eventually(hasSoundAlone));
    const size_t seen = watch.pictures().size();
    ASSERT_EQ(desk.ask(asked(mixBody(places), first)), 0);
    EXPECT_TRUE(eventually([&] { return watch.pictures().size() > seen + 15; }));
    EXPECT_EQ(watch.pictures().back().width, first.width);
    EXPECT_LE(longestGap(watch.sounds()), 0.1);
    EXPECT_FALSE(watch.hasEnded());
    EXPECT_EQ(desk.mix()["media"]["reconnects"], 0);
}

TEST_F(Mix, ACancelEndsTheStreamAndItsProcess) {
    const auto alice = member(1, "red");
    start({{1, 0, 0, 640, 360}});
    const Viewer viewer(desk.mixUrl(), 640, 360);
    ASSERT_TRUE(viewer.comesToSee({{320, 180, kRed}}));
    ASSERT_EQ(Desk::children("vexalive-media").size(), 1U);
    ASSERT_EQ(desk.ask(cancelBody()), 0);
    EXPECT_TRUE(eventually([&] { return viewer.hasEnded(); }));
    EXPECT_TRUE(eventually([] { return Desk::children("vexalive-media").empty(); }));
    EXPECT_TRUE(eventually([this] { return desk.mix()["media"]["state"] == "stopped"; })) << desk.mix();
}

TEST_F(Mix, AWorkerThatIsKilledIsStartedAgainWithItsLatestLayout) {
    const auto alice = member(1, "red");
    const auto bob = member(2, "lime");
    start({{1, 0, 0, 640, 360}});
    ASSERT_EQ(desk.ask(mixBody({{2, 0, 0, 640, 360}})), 0);
    const std::vector<pid_t> workers = Desk::children("vexalive-media");
    ASSERT_EQ(workers.size(), 1U);
    ::kill(workers[0], SIGKILL);
    ASSERT_TRUE(eventually([this] { return desk.mix()["media"]["restarts"] == 1; })) << desk.mix();
    const Viewer viewer(desk.mixUrl(), 640, 360);
    EXPECT_TRUE(viewer.comesToSee({{320, 180, kLime}}));
}

TEST_F(Mix, AnOriginThatIsKilledComesBackAndTheMixWithIt) {
    auto alice = member(1, "red");
    start({{1, 0, 0, 640, 360}});
    const std::vector<pid_t> origins = Desk::children("nginx");
    ASSERT_EQ(origins.size(), 1U);
    ::kill(origins[0], SIGKILL);
    ASSERT_TRUE(eventually([this] { return desk.state()["service"]["origin"]["restarts"] == 1; })) << desk.state();
    ASSERT_TRUE(eventually([this] { return desk.state()["service"]["origin"]["state"] == "running"; }));
    alice = member(1, "blue");
    ASSERT_TRUE(eventually([this] { return desk.mix()["media"]["reconnects"] > 0; })) << desk.mix();
    ASSERT_TRUE(eventually([this] { return desk.mix()["media"]["state"] == "running"; })) << desk.mix();
    const Viewer viewer(desk.mixUrl(), 640, 360);
    EXPECT_TRUE(viewer.comesToSee({{320, 180, kBlue}}));
    EXPECT_EQ(desk.mix()["media"]["restarts"], 0);
}

TEST_F(Mix, ASnapshotShowsThePictureOfTheOutput) {
    const auto alice = member(1, "red");
    const auto bob = member(2, "lime");
    start({{1, 0, 0, 320, 360}, {2, 320, 0, 320, 360}});
    ASSERT_TRUE(inputComesToBe(0, "running") && inputComesToBe(1, "running"));
    const servicetesting::TemporaryFolder folder;
    const std::string file = folder.path() + "/snapshot.jpg";
    EXPECT_TRUE(eventually([&] {
        servicetesting::writeAll(file, desk.get("/snapshot?mix=" + streamIdOf(1)));
        const Viewer picture(file, 640, 360);
        return eventually([&] { return picture.hasEnded(); }) && picture.sees({{160, 180, kRed}, {480, 180, kLime}});
    }));
    EXPECT_NE(desk.get("/snapshot?mix=" + streamIdOf(9)).find("message"), std::string::npos);
}

}  // namespace
}  // namespace mediatesting
