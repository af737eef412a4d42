// The mix of the local service, checked by the pixels, tones and packets that viewers receive.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "MediaTesting.h"

namespace mediatesting {
namespace {

constexpr Rgb kBackground{0x20, 0x40, 0x60};
constexpr Rgb kPlaceholder{0x2b, 0x2b, 0x2b};
constexpr double kFrame = 0.05;      // seconds
constexpr int kHalfASecond = 10;     // frames
constexpr double kRounding = 0.002;  // seconds; RTMP rounds timestamps to milliseconds

struct OutputSettings {
    int width;
    int height;
    int frameRate;
    int bitrate;  // kbit/s
    int gop;      // seconds
    int sampleRate;
    int channels;
};

json withOutput(json body, const OutputSettings& output) {
    json& canvas = body["input_stream_list"][0]["layout_params"];
    if (canvas["input_type"] == 3) {
        canvas["image_width"] = output.width;
        canvas["image_height"] = output.height;
    }
    body["output_param"].update({{"output_stream_frame_rate", output.frameRate},
                                 {"output_stream_bitrate", output.bitrate},
                                 {"output_stream_gop", output.gop},
                                 {"output_audio_sample_rate", output.sampleRate},
                                 {"output_audio_channels", output.channels}});
    return body;
}

// Checks two GOPs of the output. They begin at the second key frame of the expected size, because the encoder has then
// reached its rate. Ignores the first `skipped` frames.
void expectOutput(const Probe& probe, const OutputSettings& output, size_t skipped = 0) {
    std::vector<Probe::Record> frames;
    std::vector<size_t> keys;
    ASSERT_TRUE(pollUntil([&] {
        frames.clear();
        keys.clear();
        const std::vector<Probe::Record> all = probe.video();
        for (size_t i = skipped; i < all.size(); ++i) {
            if (all[i].width == output.width && all[i].height == output.height) {
                if (all[i].isKey) {
                    keys.push_back(frames.size());
                }
                frames.push_back(all[i]);
            }
        }
        return keys.size() >= 4;
    })) << frames.size()
        << " frames of that size";
    for (const size_t group : {size_t{1}, size_t{2}}) {
        EXPECT_EQ(keys[group + 1] - keys[group], static_cast<size_t>(output.gop * output.frameRate));
    }
    const double begin = frames[keys[1]].time;
    const double end = frames[keys[3]].time;
    EXPECT_NEAR(end - begin, 2 * output.gop, 2 * kRounding);
    double bits = 0;
    for (size_t i = keys[1]; i < keys[3]; ++i) {
        bits += 8 * frames[i].bytes;
    }
    EXPECT_NEAR(bits / 1000 / (end - begin), output.bitrate, output.bitrate / 4);

    std::vector<double> times;
    double samples = 0;
    for (const Probe::Record& audio : probe.audio()) {
        if (audio.time >= begin && audio.time <= end) {
            EXPECT_EQ(audio.channels, output.channels);
            samples += audio.samples;
            times.push_back(audio.time);
        }
    }
    ASSERT_GT(times.size(), 2U);
    const double perFrame = samples / static_cast<double>(times.size());
    EXPECT_NEAR(perFrame * static_cast<double>(times.size() - 1) / (times.back() - times.front()), output.sampleRate,
                output.sampleRate / 50);
}

class Mix : public testing::Test {
protected:
    std::unique_ptr<Program> member(int number, const std::string& colour, int tone = 0) {
        return publish(service.memberUrl(number), {colour, tone});
    }
    void update(const std::vector<Input>& inputs) { ASSERT_EQ(service.post(mixBody(inputs)), 0); }
    void start(const std::vector<Input>& inputs) {
        update(inputs);
        ASSERT_TRUE(service.mixReaches("running")) << service.mix();
    }
    // Alice in the left half, Bob in the right.
    void startHalves(int tone = 0) {
        alice = member(1, "red", tone);
        bob = member(2, "lime", tone == 0 ? 0 : 660);
        start({{1, 0, 0, 320, 360}, {2, 320, 0, 320, 360}});
    }
    void expectNoReconnect(const Probe& probe) {
        EXPECT_FALSE(probe.hasEnded());
        EXPECT_EQ(service.mix()["reconnects"], 0);
        EXPECT_EQ(service.mix()["restarts"], 0);
    }

    LocalService service;
    std::unique_ptr<Program> alice;
    std::unique_ptr<Program> bob;
    std::unique_ptr<Program> carol;
};

TEST_F(Mix, EachInputFillsItsRectangleAndTheHigherLayerCoversTheLower) {
    alice = member(1, "red");
    bob = member(2, "lime");
    carol = member(3, "blue");
    start({{1, 20, 20, 300, 320}, {2, 320, 20, 300, 320}, {3, 240, 100, 160, 160}});
    const Viewer viewer(service.mixUrl());
    EXPECT_TRUE(viewer.comesToShow({{30, 30, kRed},  // corners of the lower rectangles
                                    {310, 30, kRed},
                                    {30, 330, kRed},
                                    {330, 30, kLime},
                                    {610, 330, kLime},
                                    {250, 110, kBlue},  // the higher layer, over both
                                    {390, 250, kBlue},
                                    {320, 180, kBlue},
                                    {230, 180, kRed},  // just beside the higher layer
                                    {410, 180, kLime},
                                    {8, 8, kBackground},  // outside of all rectangles
                                    {632, 352, kBackground}}));
}

TEST_F(Mix, AnUpdateIsShownWholeWithinHalfASecond) {
    startHalves();
    Viewer viewer(service.mixUrl());
    const std::vector<Pixel> before = {{10, 180, kRed}, {310, 260, kRed}, {630, 180, kLime}, {500, 260, kLime}};
    const std::vector<Pixel> after = {{10, 180, kLime}, {310, 260, kLime}, {630, 180, kLime}, {500, 260, kRed}};
    ASSERT_TRUE(viewer.comesToShow(before));

    viewer.expectChange(before, after);
    const int requested = viewer.frames();
    update({{2, 0, 0, 640, 360}, {1, 400, 200, 200, 120}});
    ASSERT_TRUE(viewer.comesToShow(after));
    EXPECT_LE(viewer.firstChanged() - requested, kHalfASecond);
    EXPECT_EQ(viewer.torn(), 0);
}

TEST_F(Mix, AHundredRandomUpdatesLeaveNoGapAndOneConnection) {
    alice = member(1, "red", 440);
    bob = member(2, "lime", 660);
    carol = member(3, "blue", 880);
    start({{1, 0, 0, 640, 360}});
    const Probe packets(service.mixUrl());
    ASSERT_TRUE(packets.awaitVideo(21));
    RandomLayouts layouts(7);
    for (int each = 0; each < 100; ++each) {
        const size_t received = packets.video().size();
        ASSERT_NO_FATAL_FAILURE(update(layouts.next(3)));
        ASSERT_TRUE(packets.awaitVideo(received + static_cast<size_t>(layouts.between(2, 4))));
    }
    EXPECT_GT(packets.video().size(), 200U);
    EXPECT_LE(packets.longestVideoGap(), 2 * kFrame + kRounding);
    EXPECT_TRUE(packets.isMonotonic());
    expectNoReconnect(packets);
    EXPECT_EQ(service.mix()["state"], "running");
}

TEST_F(Mix, EachToneIsInTheOutputWhileItsInputIsInTheMixAndAnAudioOnlyInputShowsNothing) {
    startHalves(440);
    carol = member(3, "blue", 880);
    const Listener listener(service.mixUrl());
    const Viewer viewer(service.mixUrl());
    const std::vector<Pixel> halves = {{10, 10, kRed}, {310, 350, kRed}, {480, 180, kLime}};
    EXPECT_TRUE(listener.comesToDetect({440, 660}));
    EXPECT_TRUE(viewer.comesToShow(halves));
    update({{1, 0, 0, 320, 360}, {2, 320, 0, 320, 360}, {3, 0, 0, 640, 360, true}});
    EXPECT_TRUE(listener.comesToDetect({440, 660, 880}));
    EXPECT_TRUE(viewer.shows(halves));
    update({{3, 0, 180, 320, 180}});
    EXPECT_TRUE(listener.comesToDetect({880}));
    update({{1, 0, 0, 320, 180}, {3, 0, 180, 320, 180}});
    EXPECT_TRUE(listener.comesToDetect({440, 880}));
}

TEST_F(Mix, AMixOfAudioAloneHasNoVideo) {
    alice = publish(service.memberUrl(1), {"", 440});
    bob = member(2, "lime", 660);
    start({{1, 0, 0, 0, 0, true}, {2, 0, 0, 0, 0, true}});
    const Probe packets(service.mixUrl());
    EXPECT_TRUE(Listener(service.mixUrl()).comesToDetect({440, 660}));
    EXPECT_TRUE(pollUntil([&] { return packets.audio().size() > 20; }));
    EXPECT_TRUE(packets.video().empty());
}

TEST_F(Mix, AnAbsentInputShowsAPlaceholderUntilItIsPublished) {
    alice = member(1, "red", 440);
    start({{1, 0, 0, 320, 360}, {2, 320, 0, 320, 360}});
    const Viewer viewer(service.mixUrl());
    ASSERT_TRUE(viewer.comesToShow({{160, 180, kRed}, {480, 180, kPlaceholder}}));
    EXPECT_TRUE(pollUntil([this] { return service.mix()["inputs"][1]["error"] != nlohmann::json(""); }));

    bob = member(2, "lime", 660);
    EXPECT_TRUE(viewer.comesToShow({{160, 180, kRed}, {480, 180, kLime}}));
    EXPECT_TRUE(service.inputReaches(1, "running"));
    EXPECT_EQ(service.mix()["inputs"][1]["error"], "");
}

TEST_F(Mix, AnInputThatIsKilledIsReplacedAndComesBackInAnotherSize) {
    startHalves(440);
    const Viewer viewer(service.mixUrl());
    const Probe packets(service.mixUrl());
    ASSERT_TRUE(viewer.comesToShow({{160, 180, kRed}, {480, 180, kLime}}));

    bob.reset();
    EXPECT_TRUE(pollUntil([&] { return !viewer.shows({{480, 180, kLime}}); }));
    EXPECT_TRUE(service.inputReaches(1, "reconnecting"));
    EXPECT_TRUE(viewer.shows({{160, 180, kRed}}));

    bob = publish(service.memberUrl(2), {"blue", 660, 320, 240, 15});
    EXPECT_TRUE(viewer.comesToShow({{160, 180, kRed}, {330, 10, kBlue}, {630, 350, kBlue}}));
    EXPECT_TRUE(service.inputReaches(1, "running"));
    EXPECT_LE(packets.longestVideoGap(), 2 * kFrame + kRounding);
    expectNoReconnect(packets);
}

TEST_F(Mix, AnInputThatFreezesIsReplacedUntilItResumes) {
    startHalves(440);
    const Viewer viewer(service.mixUrl());
    const Probe packets(service.mixUrl());
    ASSERT_TRUE(viewer.comesToShow({{160, 180, kRed}, {480, 180, kLime}}));

    bob->signal(SIGSTOP);
    EXPECT_TRUE(viewer.comesToShow({{160, 180, kRed}, {480, 180, kPlaceholder}}));
    EXPECT_TRUE(service.inputReaches(1, "reconnecting"));
    EXPECT_EQ(service.mix()["inputs"][1]["error"], "no media from " + streamIdOf(2));
    EXPECT_EQ(service.mix()["state"], "running");
    bob->signal(SIGCONT);
    EXPECT_TRUE(viewer.comesToShow({{160, 180, kRed}, {480, 180, kLime}}));
    EXPECT_TRUE(service.inputReaches(1, "running"));
    EXPECT_EQ(service.mix()["inputs"][1]["reconnects"], 0);
    EXPECT_LE(packets.longestVideoGap(), 2 * kFrame + kRounding);
}

TEST_F(Mix, TheOutputFollowsItsSettingsOnOneConnection) {
    const std::vector<Input> inputs = {{1, 0, 0, 320, 180}};
    const OutputSettings first{426, 240, 25, 500, 1, 44100, 1};
    const OutputSettings second{640, 360, 15, 900, 1, 32000, 2};
    OutputSettings third = second;
    third.frameRate = 25;
    alice = publish(service.memberUrl(1), {"gray", 440, 320, 180, 25, 3000});
    ASSERT_EQ(service.post(withOutput(mixBody(inputs), first)), 0);
    ASSERT_TRUE(service.inputReaches(0, "running"));
    ASSERT_TRUE(service.mixReaches("running")) << service.mix();
    const Probe probe(service.mixUrl(), Probe::kFrames);
    const Listener listener(service.mixUrl());
    expectOutput(probe, first);
    EXPECT_TRUE(listener.comesToDetect({440}));

    ASSERT_EQ(service.post(withOutput(mixBody(inputs), second)), 0);
    expectOutput(probe, second);
    EXPECT_TRUE(listener.comesToDetect({440}));
    ASSERT_EQ(service.post(withOutput(mixBody(inputs), third)), 0);
    size_t skipped = 0;  // frames until the new frame rate begins
    ASSERT_TRUE(pollUntil([&] {
        const auto frames = probe.video();
        skipped = frames.size();
        return frames[skipped - 1].time - frames[skipped - 2].time < 1.0 / third.frameRate + kRounding;
    }));
    expectOutput(probe, third, skipped);
    EXPECT_LE(probe.longestVideoGap(), 2.0 / second.frameRate + kRounding);

    ASSERT_EQ(service.post(withOutput(mixBody({{1, 0, 0, 0, 0, true}}), third)), 0);
    EXPECT_TRUE(pollUntil([&] { return probe.audio().back().time > probe.video().back().time + 1; }));
    const size_t received = probe.video().size();
    ASSERT_EQ(service.post(withOutput(mixBody(inputs), first)), 0);
    EXPECT_TRUE(probe.awaitVideo(received + 16));
    EXPECT_EQ(probe.video().back().width, first.width);
    EXPECT_LE(Probe::longestGap(probe.audio()), 0.1);
    EXPECT_TRUE(probe.isMonotonic());
    expectNoReconnect(probe);
}

TEST_F(Mix, ACancelEndsTheStreamAndItsProcess) {
    alice = member(1, "red");
    start({{1, 0, 0, 640, 360}});
    const Viewer viewer(service.mixUrl());
    ASSERT_TRUE(viewer.comesToShow({{320, 180, kRed}}));
    ASSERT_EQ(LocalService::children("vexalive-media").size(), 1U);
    ASSERT_EQ(service.post(servicetesting::cancelMixBody()), 0);
    EXPECT_TRUE(pollUntil([&] { return viewer.hasEnded(); }));
    EXPECT_TRUE(pollUntil([] { return LocalService::children("vexalive-media").empty(); }));
    EXPECT_TRUE(service.mixReaches("stopped")) << service.mix();
}

TEST_F(Mix, AWorkerThatIsKilledIsRestartedWithItsLatestLayout) {
    alice = member(1, "red");
    bob = member(2, "lime");
    start({{1, 0, 0, 640, 360}});
    update({{2, 0, 0, 640, 360}});
    const std::vector<pid_t> workers = LocalService::children("vexalive-media");
    ASSERT_EQ(workers.size(), 1U);
    ::kill(workers[0], SIGKILL);
    ASSERT_TRUE(pollUntil([this] { return service.mix()["restarts"] == 1; })) << service.mix();
    EXPECT_TRUE(Viewer(service.mixUrl()).comesToShow({{320, 180, kLime}}));
}

TEST_F(Mix, AnOriginThatIsKilledComesBackAndTheMixWithIt) {
    alice = member(1, "red");
    start({{1, 0, 0, 640, 360}});
    const std::vector<pid_t> origins = LocalService::children("nginx");
    ASSERT_EQ(origins.size(), 1U);
    ::kill(origins[0], SIGKILL);
    ASSERT_TRUE(pollUntil([this] {
        json origin = service.state()["service"]["origin"];
        return origin["restarts"] == 1 && origin["state"] == "running";
    })) << service.state();
    alice = member(1, "blue");
    ASSERT_TRUE(pollUntil([this] { return service.mix()["reconnects"] > 0; })) << service.mix();
    ASSERT_TRUE(service.mixReaches("running")) << service.mix();
    EXPECT_TRUE(Viewer(service.mixUrl()).comesToShow({{320, 180, kBlue}}));
    EXPECT_EQ(service.mix()["restarts"], 0);
}

TEST_F(Mix, ASnapshotShowsTheOutput) {
    startHalves();
    ASSERT_TRUE(service.inputReaches(0, "running") && service.inputReaches(1, "running"));
    const servicetesting::TemporaryFolder folder;
    const std::string file = folder.path() + "/snapshot.jpg";
    EXPECT_TRUE(pollUntil([&] {
        servicetesting::writeAll(file, service.get("/snapshot?mix=" + streamIdOf(1)));
        const Viewer image(file);
        return pollUntil([&] { return image.hasEnded(); }) && image.shows({{160, 180, kRed}, {480, 180, kLime}});
    }));
    EXPECT_NE(service.get("/snapshot?mix=" + streamIdOf(9)).find("message"), std::string::npos);
}

}  // namespace
}  // namespace mediatesting
