#include <gmock/gmock.h>

#include <array>
#include <cmath>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Com/LiveRequests.h"
#include "tests/mix/MixTesting.h"
#include "tests/mix/SvgDocument.h"
#include "tools/mix/Preview.h"

namespace vexalive {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

std::unique_ptr<Drawing> drawn(const Config& config) {
    return drawPreview(config, validateMix(config), {"layout.json", "4711", "alice"});
}

SvgDocument preview(const Config& config) {
    SvgDocument document(drawn(config)->svg());
    EXPECT_EQ(document.error(), "");
    return document;
}

// x, y, width and height of an element, converted to the pixels of a canvas that is 1280 wide.
using Part = std::array<long, 4>;
std::vector<Part> parts(const SvgDocument& document, const char* kind) {
    const SvgElement canvas = document.ofKind("canvas").at(0);
    const double scale = 1280 / canvas.number("width");
    const auto pixels = [scale](double length) { return std::lround(length * scale); };
    std::vector<Part> found;
    for (const SvgElement& element : document.ofKind(kind)) {
        found.push_back({pixels(element.number("x") - canvas.number("x")),
                         pixels(element.number("y") - canvas.number("y")), pixels(element.number("width")),
                         pixels(element.number("height"))});
    }
    return found;
}

TEST(PreviewTest, RectanglesAreToScaleInTheOrderInWhichTheyAreSent) {
    const SvgDocument document = preview(mix({user("top", 9, {640, 360, 640, 360}), user("low", 2, {0, 0, 1280, 720}),
                                              user("middle", 5, {320, 0, 320, 180})}));

    EXPECT_THAT(parts(document, "on-canvas"),
                ElementsAre(Part{0, 0, 1280, 720}, Part{320, 0, 320, 180}, Part{640, 360, 640, 360}));
    EXPECT_THAT(parts(document, "canvas"), ElementsAre(Part{0, 0, 1280, 720}));
    EXPECT_THAT(document.texts("entry-user"), ElementsAre("low", "middle", "top"));
    EXPECT_THAT(document.texts("entry-number"), ElementsAre("2", "3", "4"));
    EXPECT_THAT(document.ofKind("hatch"), IsEmpty());
}

TEST(PreviewTest, ARectangleShowsItsUserAndStream) {
    User guest = user("bob", 3, {640, 0, 640, 720});
    guest.roomId = "4712";
    guest.streamType = 2;
    const SvgDocument document = preview(mix({user("alice", 1, {0, 0, 640, 720}), guest}));

    EXPECT_THAT(document.texts("user"), ElementsAre("bob", "alice"));
    EXPECT_THAT(document.texts("number"), ElementsAre("3", "2", "n" /* the legend's */));
    EXPECT_THAT(document.texts("fact"), ElementsAre("auxiliary stream", "room 4712", "main stream"));
    EXPECT_THAT(document.texts("entry-stream"), ElementsAre("zOrder 1 \u00b7 main stream of room 4711",
                                                            "zOrder 3 \u00b7 auxiliary stream of room 4712"));
    EXPECT_THAT(document.texts("entry-place"), ElementsAre("640 \u00d7 720 at 0, 0", "640 \u00d7 720 at 640, 0"));
    EXPECT_THAT(document.texts("entry-stream-id"), ElementsAre(requests::streamId(3891, "4711", "alice", true),
                                                               requests::streamId(3891, "4712", "bob", false)));
}

TEST(PreviewTest, TheHeadShowsTheOutput) {
    Config config = mix({user("a", 1)});
    config.videoGOP = -1;
    config.audioBitrate = -1;
    config.audioChannels = 1;
    const SvgDocument document = preview(config);

    EXPECT_THAT(document.texts("title"), ElementsAre("layout.json"));
    EXPECT_THAT(
        document.texts("output"),
        ElementsAre("Canvas 1280 \u00d7 720 \u00b7 20 fps \u00b7 1500 kbit/s \u00b7 audio 48000 Hz \u00b7 1 audio "
                    "channel \u00b7 left to the service: key frames, audio bitrate"));
    EXPECT_THAT(document.texts("identity"), ElementsAre(HasSubstr(requests::streamId(3891, "4711", "alice", true))));
    EXPECT_THAT(document.texts("status-text"), ElementsAre("\u2713 accepted by the adapter"));
    EXPECT_THAT(document.texts("refusal"), IsEmpty());
}

TEST(PreviewTest, ThePartOutsideTheCanvasIsHatched) {
    const SvgDocument document = preview(mix({user("a", 1, {1180, 100, 200, 100})}));

    EXPECT_THAT(parts(document, "on-canvas"), ElementsAre(Part{1180, 100, 100, 100}));
    EXPECT_THAT(parts(document, "off-canvas"), ElementsAre(Part{1180, 100, 200, 100}));
    EXPECT_THAT(document.texts("warning"), ElementsAre("mixUsersArray[0].rect lies partly outside the canvas"));
    const auto hatches = document.ofKind("hatch");
    ASSERT_THAT(hatches, SizeIs(2)) << "one outside of the canvas, one in the legend";
    EXPECT_EQ(hatches[0].attribute("fill"), "url(#hatch)");
}

TEST(PreviewTest, RefusedInputsAreRed) {
    Config config = mix({user("a", 1, {0, 0, 640, 720}), user("b", 1, {640, 0, 640, 720})});
    config.videoBitrate = 0;
    const SvgDocument document = preview(config);

    EXPECT_THAT(document.texts("status-text"), ElementsAre("\u2717 refused by the adapter"));
    EXPECT_THAT(document.texts("refusal"),
                ElementsAre("videoBitrate is 0: must not be 0 in a mix with video; -1 leaves it to the service",
                            "mixUsersArray[1].zOrder is 1, the same as that of mixUsersArray[0]"));
    for (const SvgElement& refusal : document.ofKind("refusal")) {
        EXPECT_EQ(refusal.attribute("fill"), "#b3001b");
    }
    ASSERT_THAT(document.ofKind("on-canvas refused"), SizeIs(1));
    EXPECT_EQ(document.ofKind("on-canvas refused")[0].attribute("stroke"), "#b3001b");
    EXPECT_THAT(document.ofKind("on-canvas"), SizeIs(1));
}

TEST(PreviewTest, AudioInputsAreListedBesideTheCanvas) {
    const SvgDocument document = preview(mix({user("a", 2), audioUser("carol", 1)}));

    EXPECT_THAT(document.ofKind("on-canvas"), SizeIs(1));
    EXPECT_THAT(document.texts("heading"),
                ElementsAre("On the canvas, lowest layer first", "Audio only, not on the canvas"));
    EXPECT_THAT(document.texts("entry-user"), ElementsAre("a", "carol"));
    EXPECT_THAT(document.texts("entry-number"), ElementsAre("3", "2"));
}

TEST(PreviewTest, AMixOfAudioHasNoCanvas) {
    const SvgDocument document = preview(mix({audioUser("b"), audioUser("a")}));

    EXPECT_THAT(document.ofKind("canvas"), IsEmpty());
    EXPECT_THAT(document.texts("entry-user"), ElementsAre("b", "a"));
    EXPECT_THAT(document.texts("entry-number"), ElementsAre("1", "2"));
    EXPECT_THAT(document.texts("entry-stream"), ElementsAre("main stream of room 4711", "main stream of room 4711"));
    EXPECT_THAT(document.texts("entry-place"), ElementsAre("audio only", "audio only"));
    EXPECT_THAT(document.texts("output"), ElementsAre(StartsWith("Audio only, no canvas")));
}

TEST(PreviewTest, ATinyRectangleIsOnlyInTheListAndOneBesideTheCanvasHasItsNumberOnTheHatching) {
    const SvgDocument document = preview(mix({user("tiny", 1, {400, 400, 4, 4}), user("large", 2, {0, 0, 300, 300}),
                                              user("beside", 3, {1300, 0, 200, 200})}));
    EXPECT_THAT(document.ofKind("on-canvas"), SizeIs(2));
    EXPECT_THAT(document.texts("user"), ElementsAre("large"));
    EXPECT_THAT(document.texts("number"), ElementsAre("4", "3", "n" /* the legend's */));
    EXPECT_THAT(document.texts("entry-user"), ElementsAre("tiny", "large", "beside"));
}

TEST(PreviewTest, ALabelIsWhereNoHigherLayerCoversIt) {
    const SvgDocument document =
        preview(mix({user("covered", 1), user("below", 2, {0, 0, 1280, 720}), user("above", 3, {0, 0, 1000, 700})}));
    EXPECT_THAT(document.texts("entry-user"), ElementsAre("covered", "below", "above"));
    ASSERT_THAT(document.texts("user"), ElementsAre("above", "below"));
    const SvgElement canvas = document.ofKind("canvas").at(0);
    EXPECT_GT(document.ofKind("user")[1].number("x"), canvas.number("x") + canvas.number("width") * 1000 / 1280);
}

TEST(PreviewTest, ACanvasWithoutASizeIsReportedAndTheInputsAreDrawn) {
    Config config = mix({user("a", 1, {0, 0, 2000, 2000})});
    config.videoWidth = -1;
    const SvgDocument document = preview(config);
    EXPECT_THAT(document.texts("legend"), Contains("canvas without a size"));
    EXPECT_THAT(document.texts("output"), ElementsAre(StartsWith("Canvas -1 \u00d7 720")));
    EXPECT_THAT(document.ofKind("on-canvas"), SizeIs(1));
}

TEST(PreviewTest, TheSameMixGivesTheSameBytes) {
    std::mt19937 random(3);
    for (int round = 0; round < 20; ++round) {
        const Config config = randomMix(random);
        const auto first = drawn(config);
        const auto second = drawn(config);
        EXPECT_EQ(first->svg(), second->svg());
        EXPECT_EQ(first->svg(), first->svg());
        EXPECT_EQ(first->png(), second->png());
    }
}

// ---- Arbitrary configurations

// Expects elements within the page, labels within their rectangle, and no overlap with the list of inputs.
void expectWithinBounds(const SvgDocument& document) {
    const SvgElement& page = document.elements().at(0);
    ASSERT_LE(page.number("width"), kPreviewWidth);
    ASSERT_LE(page.number("height"), kPreviewMaxHeight);
    const auto entries = document.ofKind("entry-badge");
    const double listLeft = entries.empty() ? kPreviewWidth : entries.back().number("x");
    const std::set<std::string> besideTheList = {"refusal", "warning", "legend", "refused-head"};
    // The left and right edge of each input's rectangle on the canvas, by the title of its `<g>` element.
    std::map<std::string, std::pair<double, double>> inputEdges;
    for (const SvgElement& element : document.elements()) {
        if (element.name != "rect" && element.name != "text") {
            continue;
        }
        const std::string kind = element.kind();
        const double left = element.number("x");
        const double right = left + element.number("width") + element.number("textLength");
        for (const char* attribute : {"x", "y", "width", "height"}) {
            ASSERT_GE(element.number(attribute), 0.0) << attribute << " of " << kind << element.text;
        }
        ASSERT_LE(right, kPreviewWidth) << kind << element.text;
        ASSERT_LE(element.number("y") + element.number("height"), page.number("height")) << kind << element.text;
        if (kind == "on-canvas" || kind == "on-canvas refused") {
            inputEdges[element.groups.back()] = {left, right};
        } else if (besideTheList.count(kind) != 0) {
            ASSERT_LT(right, listLeft) << element.text;
        } else if (!element.groups.empty() && (kind == "user" || kind == "fact")) {
            ASSERT_EQ(inputEdges.count(element.groups.back()), 1U);
            ASSERT_GE(left, inputEdges[element.groups.back()].first) << element.text;
            ASSERT_LE(right, inputEdges[element.groups.back()].second) << element.text;
        }
    }
}

TEST(PreviewTest, RandomMixesStayWithinTheBoundsOfTheDrawing) {
    std::mt19937 random(5);
    for (int round = 0; round < 150; ++round) {
        const Config config = randomMix(random);
        SCOPED_TRACE(config.to_string());
        ASSERT_NO_FATAL_FAILURE(expectWithinBounds(preview(config)));
    }
}

TEST(PreviewTest, CanvasesOfExtremeSizesStayWithinTheBoundsOfTheDrawing) {
    constexpr int32_t kHighest = 2147483647;
    for (const auto& [width, height] : {std::pair(kHighest, 1), std::pair(1, kHighest), std::pair(kHighest, kHighest),
                                        std::pair(1, 1), std::pair(0, 0), std::pair(-kHighest - 1, -kHighest - 1)}) {
        Config config = mix({user("all", 0, {-kHighest - 1, -kHighest - 1, kHighest, kHighest}),
                             user("far", 1, {kHighest, kHighest, kHighest, kHighest}), user("near", 2, {0, 0, 1, 1})});
        config.videoWidth = width;
        config.videoHeight = height;
        ASSERT_NO_FATAL_FAILURE(expectWithinBounds(preview(config)));
        EXPECT_THAT(drawn(config)->png(), StartsWith("\x89PNG"));
    }
}

TEST(PreviewTest, VeryManyInputsAreCounted) {
    std::vector<User> users;
    for (int i = 0; i < 5000; ++i) {
        users.push_back(user("user", i, {i, i, 50, 50}));
    }
    const SvgDocument document = preview(mix(users));
    ASSERT_NO_FATAL_FAILURE(expectWithinBounds(document));
    EXPECT_THAT(document.texts("entry-user"), SizeIs(17));
    EXPECT_THAT(document.texts("more"), Contains("and 4983 more"));
    EXPECT_EQ(document.ofKind("on-canvas").size() + document.ofKind("on-canvas refused").size(), 40U);
}

TEST(PreviewTest, AsManyInputsAsTheAdapterAcceptsAreAllListed) {
    std::vector<User> users = {audioUser("audio")};
    for (int layer = 1; layer <= 16; ++layer) {
        users.push_back(user("user" + std::to_string(layer), layer, {layer * 70, 0, 70, 720}));
    }
    Config config = mix(users);
    config.videoBitrate = config.videoFramerate = config.videoGOP = -1;
    config.audioSampleRate = config.audioBitrate = config.audioChannels = -1;
    const SvgDocument document = preview(config);
    ASSERT_NO_FATAL_FAILURE(expectWithinBounds(document));
    EXPECT_THAT(document.texts("entry-user"), SizeIs(17));
    EXPECT_THAT(document.texts("number"), SizeIs(17)) << "16 inputs and the legend";
    EXPECT_THAT(document.texts("more"), IsEmpty());
}

TEST(PreviewTest, LongNamesAreCutToTheirWidth) {
    User guest = user(std::string(5000, 'w'), 1, {0, 0, 640, 720});
    guest.roomId = std::string(5000, 'r');
    const SvgDocument document = preview(mix({guest}));
    EXPECT_THAT(document.texts("user"), ElementsAre(testing::EndsWith("\u2026")));
    EXPECT_THAT(document.texts("fact"), ElementsAre("main stream", testing::EndsWith("\u2026")));
    EXPECT_THAT(document.texts("entry-stream"), ElementsAre(testing::EndsWith("\u2026")));
}

TEST(PreviewTest, ThePngHasTheSizeOfTheSvg) {
    const auto drawing = drawn(mix({user("a", 1)}));
    const std::string png = drawing->png();
    ASSERT_THAT(png, StartsWith("\x89PNG\r\n\x1a\n"));
    const auto height = static_cast<unsigned>(std::ceil(drawing->height()));
    const std::string size{
        0, 0, 5, 0, 0, 0, static_cast<char>(height >> 8), static_cast<char>(height)};  // 1280 = 5 * 256
    EXPECT_EQ(png.substr(16, 8), size);
}

}  // namespace vexalive
