#include "tools/mix/Preview.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "Com/LiveRequests.h"
#include "tools/mix/Area.h"
#include "tools/mix/MixLayers.h"

namespace vexalive {
namespace {

using Config = kstmedia::VexaTranscodingConfigInternal;
using User = kstmedia::VexaMixUserInternal;

// ---- Layout ---------------------------------------------------------------------------------------------------------

constexpr double kMargin = 32;
constexpr double kGap = 28;  // between the stage (the area with the canvas) and the list
constexpr double kListWidth = 392;
constexpr double kListX = kPreviewWidth - kMargin - kListWidth;
constexpr double kStageWidth = kListX - kGap - kMargin;
constexpr double kStageHeight = 620;
constexpr double kStagePadding = 18;
constexpr double kBottom = kPreviewMaxHeight - kMargin;
constexpr double kBadgeHeight = 20;  // a badge shows an image layer number
constexpr double kLineHeight = 16;   // for small text
constexpr double kEntryHeight = 84;
constexpr double kMinSide = 1.5;  // minimum width and height of a drawn rectangle

constexpr size_t kMaxDrawn = 40;                     // maximum number of drawn rectangles; the adapter accepts 17
constexpr Area kFallbackCanvas = {0, 0, 1280, 720};  // drawn if the canvas has no size

// ---- Colours --------------------------------------------------------------------------------------------------------

constexpr Colour kInk = 0x1f2933;
constexpr Colour kSoftInk = 0x616e7c;
constexpr Colour kWhite = 0xffffff;
constexpr Colour kStageColour = 0xf2f4f7;
constexpr Colour kStageLine = 0xd5dbe1;
constexpr Colour kCanvasColour = 0x000000;  // the "color" that the adapter sends
constexpr Colour kAudioColour = 0xe1e6eb;
constexpr Colour kRed = 0xb3001b;
constexpr Colour kRedTint = 0xfdecee;
constexpr Colour kAmber = 0x7a4f00;
constexpr Colour kGreen = 0x0b6b3a;
constexpr Colour kGreenTint = 0xe8f5ee;
// The colours are light enough for dark text, and neighbours differ clearly.
constexpr Colour kInputColours[] = {0xa9cbe8, 0xf4dca6, 0xb3d9b8, 0xecbcc0, 0xcdc3ea, 0xf3c7a8,
                                    0xa8d8d3, 0xddcfbb, 0xd6de9f, 0xb6c5ec, 0xe3bcdc, 0xc3ccd4};

constexpr TextStyle kTitle = {22, kInk, true};
constexpr TextStyle kHeading = {13, kInk, true};
constexpr TextStyle kPlain = {13, kInk};
constexpr TextStyle kSoft = {12, kSoftInk};
constexpr TextStyle kName = {14, kInk, true};
constexpr TextStyle kFact = {12, kInk};
constexpr TextStyle kSoftMono = {11, kSoftInk, false, true};
constexpr TextStyle kNumber = {12, kWhite, true};

constexpr const char* kDot = " \u00b7 ";
constexpr const char* kTimes = " \u00d7 ";

// ---- Text -----------------------------------------------------------------------------------------------------------

std::string joined(const std::vector<std::string>& parts, const char* separator) {
    std::string text;
    for (const std::string& part : parts) {
        text += (text.empty() ? "" : separator) + part;
    }
    return text;
}

std::string sizeText(int32_t width, int32_t height) {
    return std::to_string(width) + kTimes + std::to_string(height);
}

// Describes the settings of the output, then lists the settings that are left to the service.
std::string describeOutput(const Config& config, bool isPureAudio) {
    struct Setting {
        const char* before;
        const char* after;
        const char* name;
        int32_t value;
        bool isVideo;
    };
    const Setting settings[] = {
        {"", " fps", "frame rate", config.videoFramerate, true},
        {"", " kbit/s", "video bitrate", config.videoBitrate, true},
        {"key frame every ", " s", "key frames", config.videoGOP, true},
        {"audio ", " Hz", "audio sample rate", config.audioSampleRate, false},
        {"audio ", " kbit/s", "audio bitrate", config.audioBitrate, false},
        {"", config.audioChannels == 1 ? " audio channel" : " audio channels", "audio channels", config.audioChannels,
         false},
    };
    std::vector<std::string> parts = {isPureAudio ? std::string("Audio only, no canvas")
                                                  : "Canvas " + sizeText(config.videoWidth, config.videoHeight)};
    std::vector<std::string> defaults;
    for (const Setting& setting : settings) {
        if (setting.value != requests::kNotSet) {
            parts.push_back(setting.before + std::to_string(setting.value) + setting.after);
        } else if (!isPureAudio || !setting.isVideo) {
            defaults.emplace_back(setting.name);
        }
    }
    if (!defaults.empty()) {
        parts.push_back("left to the service: " + joined(defaults, ", "));
    }
    return joined(parts, kDot);
}

const char* streamName(const User& user) {
    return user.streamType == requests::kAuxiliaryStream ? "auxiliary stream" : "main stream";
}

// ---- Drawing --------------------------------------------------------------------------------------------------------

// Maps an area in canvas coordinates to the drawing.
struct View {
    Area area;
    double x;
    double y;
    double scale;

    Box on(const Area& part) const {
        return {x + static_cast<double>(part.left - area.left) * scale,
                y + static_cast<double>(part.top - area.top) * scale,
                std::max(kMinSide, static_cast<double>(part.width()) * scale),
                std::max(kMinSide, static_cast<double>(part.height()) * scale)};
    }
};

class Painter {
public:
    Painter(Drawing& drawing, const Config& config, const std::vector<MixDiagnostic>& diagnostics,
            const PreviewOptions& options)
        : mDrawing(drawing),
          mConfig(config),
          mDiagnostics(diagnostics),
          mOptions(options),
          mIsPureAudio(requests::isPureAudio(config.mixUsersArray)),
          mInputs(mixLayers(config, options.room)),
          mHasError(config.mixUsersArray.size()),
          mCanvas{0, 0, config.videoWidth, config.videoHeight},
          mHasCanvas(!mCanvas.isEmpty()) {
        if (!mHasCanvas) {
            mCanvas = kFallbackCanvas;
        }
        for (const MixDiagnostic& diagnostic : diagnostics) {
            if (diagnostic.severity == MixDiagnostic::kError && diagnostic.user) {
                mHasError[*diagnostic.user] = true;
            }
        }
        size_t videos = 0;
        for (const MixLayer& input : mInputs) {
            mColours.push_back(userOf(input).pureAudio ? kAudioColour
                                                       : kInputColours[videos++ % std::size(kInputColours)]);
        }
    }

    void paint() {
        const double top = paintHead();
        const double stageBottom = mIsPureAudio ? paintNoStage(top) : paintStage(top);
        const double listBottom = paintList(top);
        mDrawing.setHeight(std::max(paintDiagnostics(stageBottom), listBottom) + kMargin);
    }

private:
    const User& userOf(const MixLayer& input) const { return mConfig.mixUsersArray[input.index]; }

    const std::string& roomOf(const User& user) const { return user.roomId.empty() ? mOptions.room : user.roomId; }

    std::string about(const MixLayer& input) const {
        return "mixUsersArray[" + std::to_string(input.index) + "] " + userOf(input).userId + " of room " +
               roomOf(userOf(input));
    }

    // ---- Head: title, output, whether the adapter accepts it

    double paintHead() {
        const bool refused = isRefused(mDiagnostics);
        const std::string status = refused ? "\u2717 refused by the adapter" : "\u2713 accepted by the adapter";
        const TextStyle style = {14, refused ? kRed : kGreen, true};
        const double statusWidth = mDrawing.widthOf(status, style) + 28;
        const Box box = {kPreviewWidth - kMargin - statusWidth, kMargin - 4, statusWidth, 30};
        mDrawing.box("status", box, {refused ? kRedTint : kGreenTint, style.colour, 1, 15});
        mDrawing.text("status-text", box.x + 14, box.y + 20, status, style);

        const double width = kPreviewWidth - 2 * kMargin;
        double y = kMargin + 18;
        mDrawing.text("title", kMargin, y, mDrawing.fitted(mOptions.title, kTitle, width - statusWidth - kGap), kTitle);
        y += 8;
        for (const std::string& line : mDrawing.wrapped(describeOutput(mConfig, mIsPureAudio), kPlain, width)) {
            y += 20;
            mDrawing.text("output", kMargin, y, line, kPlain);
        }
        y += 20;
        const std::string output = "Output stream " +
                                   requests::streamId({mConfig.bizId, mOptions.room, mOptions.user}) + kDot + "app " +
                                   std::to_string(mConfig.appId) + kDot + "biz " + std::to_string(mConfig.bizId) +
                                   kDot + "requested by user " + mOptions.user + " in room " + mOptions.room;
        mDrawing.text("identity", kMargin, y, mDrawing.fitted(output, kSoft, width), kSoft);
        return y + 22;
    }

    // ---- Stage: the canvas and the rectangles on and around it

    double paintNoStage(double top) {
        const Box box = {kMargin, top, kStageWidth, 120};
        mDrawing.box("stage", box, {kStageColour, kStageLine});
        mDrawing.text("no-canvas", box.x + box.w / 2, box.y + box.h / 2 + 5,
                      mInputs.empty() ? "Nothing to mix" : "Audio only: the mix has no canvas", kName, Anchor::kMiddle);
        return box.bottom();
    }

    double paintStage(double top) {
        const View view = chooseView(top + kStagePadding);
        const Box stage = {kMargin, top, kStageWidth, view.on(view.area).h + 2 * kStagePadding};
        mDrawing.box("stage", stage, {kStageColour, kStageLine});
        mDrawing.box("canvas", view.on(mCanvas), {mHasCanvas ? kCanvasColour : kWhite, kInk});

        std::vector<const MixLayer*> drawn;  // the lowest layer first
        for (const MixLayer& input : mInputs) {
            if (drawn.size() < kMaxDrawn && !shownArea(input, view).isEmpty()) {
                drawn.push_back(&input);
            }
        }
        bool hasHatch = false;
        for (const MixLayer* input : drawn) {
            mDrawing.open("input", about(*input));
            hasHatch |= paintRectangle(view, *input);
            mDrawing.close();
        }
        std::vector<Area> covers;  // the areas of the higher layers
        for (auto input = drawn.rbegin(); input != drawn.rend(); ++input) {
            mDrawing.open("label", about(**input));
            paintLabel(view, **input, covers);
            mDrawing.close();
            covers.push_back(shownArea(**input, view));
        }
        return paintLegend(stage.bottom() + 14, hasHatch);
    }

    // Chooses a view of the canvas and of the inputs around it, with at most 30 % of the canvas's size on each side.
    View chooseView(double top) const {
        const int64_t sideways = std::max<int64_t>(1, mCanvas.width() * 3 / 10);
        const int64_t upright = std::max<int64_t>(1, mCanvas.height() * 3 / 10);
        const Area widest = {-sideways, -upright, mCanvas.right + sideways, mCanvas.bottom + upright};
        Area shown = mCanvas;
        for (const MixLayer& input : mInputs) {
            const Area area = intersection(Area::of(userOf(input).rect), widest);
            if (!userOf(input).pureAudio && !area.isEmpty()) {
                shown = {std::min(shown.left, area.left), std::min(shown.top, area.top),
                         std::max(shown.right, area.right), std::max(shown.bottom, area.bottom)};
            }
        }
        const double width = static_cast<double>(shown.width());
        const double scale =
            std::min((kStageWidth - 2 * kStagePadding) / width, kStageHeight / static_cast<double>(shown.height()));
        return {shown, kMargin + (kStageWidth - width * scale) / 2, top, scale};
    }

    // Returns the part of the input that the view contains; may be empty.
    Area shownArea(const MixLayer& input, const View& view) const {
        const Area area = Area::of(userOf(input).rect);
        return userOf(input).pureAudio || area.isEmpty() ? Area() : intersection(area, view.area);
    }

    // Draws an input. Returns whether a part of it lies outside the canvas; that part is hatched.
    bool paintRectangle(const View& view, const MixLayer& input) {
        const bool hasError = mHasError[input.index];
        const Area area = shownArea(input, view);
        const Area onCanvas = intersection(area, mCanvas);
        const bool isWithin = onCanvas == area;
        if (!isWithin) {
            mDrawing.box("off-canvas", view.on(area), {colourOf(input), hasError ? kRed : kSoftInk, 1, 0, true});
        }
        if (!onCanvas.isEmpty()) {
            mDrawing.box(hasError ? "on-canvas refused" : "on-canvas", view.on(onCanvas),
                         {colourOf(input), hasError ? kRed : kInk, hasError ? 3.0 : 1.0});
        }
        return !isWithin;
    }

    // Draws the label into the largest visible part of the input. Draws nothing if the image layer number does not fit.
    void paintLabel(const View& view, const MixLayer& input, const std::vector<Area>& covers) {
        const Area area = shownArea(input, view);
        const Area onCanvas = intersection(area, mCanvas);
        const auto space = [](const Box& box) { return std::min(box.w, 300.0) * std::min(box.h, 90.0); };
        Box box;
        for (const Area& part : visibleParts(onCanvas.isEmpty() ? area : onCanvas, covers)) {
            if (space(view.on(part)) > space(box) * 1.01) {
                box = view.on(part);
            }
        }
        const double badgeWidth = widthOfBadge(input);
        const double inset = std::min(8.0, std::min(box.w - badgeWidth, box.h - kBadgeHeight) / 2);
        if (inset < 2) {
            return;
        }
        paintBadge(box.x + inset, box.y + inset, std::to_string(input.imageLayer), badgeWidth);
        if (onCanvas.isEmpty()) {
            return;  // a label would be unreadable on the hatching
        }
        const User& user = userOf(input);
        double y = box.y + inset + 15;
        const double nameX = box.x + inset + badgeWidth + 7;
        mDrawing.text("user", nameX, y, mDrawing.fitted(user.userId, kName, box.right() - nameX - inset), kName);
        y += 5;
        const double width = box.w - 2 * inset;
        std::vector<std::string> facts = {streamName(user)};
        if (roomOf(user) != mOptions.room) {
            facts.push_back(mDrawing.fitted("room " + user.roomId, kFact, width));
        }
        for (const std::string& fact : facts) {
            if (y + kLineHeight + 4 <= box.bottom() && mDrawing.widthOf(fact, kFact) <= width) {
                y += kLineHeight;
                mDrawing.text("fact", box.x + inset, y, fact, kFact);
            }
        }
    }

    double widthOfBadge(const MixLayer& input) {
        return std::max(kBadgeHeight, mDrawing.widthOf(std::to_string(input.imageLayer), kNumber) + 12);
    }

    void paintBadge(double x, double y, const std::string& number, double width) {
        mDrawing.box("badge", {x, y, width, kBadgeHeight}, {kInk, kWhite, 1, kBadgeHeight / 2});
        mDrawing.text("number", x + width / 2, y + 14.5, number, kNumber, Anchor::kMiddle);
    }

    double paintLegend(double y, bool hasHatch) {
        double x = kMargin;
        const auto explain = [&](const std::string& text) {
            mDrawing.text("legend", x + 26, y + 11, text, kSoft);
            x += 26 + mDrawing.widthOf(text, kSoft) + 24;
        };
        const auto explainBox = [&](const BoxStyle& style, const std::string& text) {
            mDrawing.box("swatch", {x, y, 18, 14}, style);
            explain(text);
        };
        explainBox({mHasCanvas ? kCanvasColour : kWhite, kInk},
                   mHasCanvas ? "canvas, image layer 1" : "canvas without a size");
        if (hasHatch) {
            explainBox({kAudioColour, kSoftInk, 1, 0, true}, "outside the canvas: not shown");
        }
        if (std::find(mHasError.begin(), mHasError.end(), true) != mHasError.end()) {
            explainBox({kWhite, kRed, 2}, "refused");
        }
        paintBadge(x - 1, y - 3, "n", kBadgeHeight);
        explain("image layer that is sent");
        return y + 14;
    }

    // ---- List of inputs

    double paintList(double top) {
        double y = top;
        size_t listed = 0;
        for (const bool isAudio : {false, true}) {
            bool hasHeading = false;
            for (const MixLayer& input : mInputs) {
                if (userOf(input).pureAudio != isAudio || y + kEntryHeight + 2 * kGap > kBottom) {
                    continue;
                }
                if (!hasHeading) {
                    mDrawing.text("heading", kListX, y + 12,
                                  mIsPureAudio ? "In the order of sending"
                                  : isAudio    ? "Audio only, not on the canvas"
                                               : "On the canvas, lowest layer first",
                                  kHeading);
                    y += kGap;
                    hasHeading = true;
                }
                paintEntry(y, input);
                y += kEntryHeight;
                ++listed;
            }
        }
        if (listed < mInputs.size()) {
            mDrawing.text("more", kListX, y + 12, "and " + std::to_string(mInputs.size() - listed) + " more", kSoft);
            y += kGap;
        }
        return y - (kEntryHeight - kBadgeHeight - 3 * kLineHeight);
    }

    void paintEntry(double y, const MixLayer& input) {
        const User& user = userOf(input);
        const double x = kListX + 40;
        const double right = kListX + kListWidth;
        const bool hasError = mHasError[input.index];
        const double badgeWidth = widthOfBadge(input);

        mDrawing.open("entry", about(input));
        mDrawing.box("entry-badge", {kListX, y, badgeWidth, kBadgeHeight},
                     {colourOf(input), hasError ? kRed : kInk, hasError ? 2.0 : 1.0, 4});
        mDrawing.text("entry-number", kListX + badgeWidth / 2, y + 14.5, std::to_string(input.imageLayer),
                      {12, kInk, true}, Anchor::kMiddle);
        const std::string index = "[" + std::to_string(input.index) + "]";  // in mixUsersArray
        mDrawing.text("entry-index", right, y + 14.5, index, kSoftMono, Anchor::kRight);
        const double nameWidth = right - x - mDrawing.widthOf(index, kSoftMono) - 12;
        mDrawing.text("entry-user", x, y + 15, mDrawing.fitted(user.userId, kName, nameWidth), kName);
        y += kBadgeHeight;

        const auto line = [&](const char* what, const std::string& text, const TextStyle& style) {
            y += kLineHeight;
            mDrawing.text(what, x, y - 2, mDrawing.fitted(text, style, right - x), style);
        };
        const std::string layer = mIsPureAudio ? "" : "zOrder " + std::to_string(user.zOrder) + kDot;
        const std::string corner = std::to_string(user.rect.x) + ", " + std::to_string(user.rect.y);
        line("entry-stream", layer + streamName(user) + " of room " + roomOf(user), kSoft);
        line("entry-place", user.pureAudio ? "audio only" : sizeText(user.rect.w, user.rect.h) + " at " + corner,
             kSoft);
        line("entry-stream-id", input.streamId, kSoftMono);
        mDrawing.close();
    }

    Colour colourOf(const MixLayer& input) const { return mColours[static_cast<size_t>(&input - mInputs.data())]; }

    // ---- Diagnostics

    double paintDiagnostics(double y) {
        if (!mDiagnostics.empty()) {
            y += 16;
        }
        if (isRefused(mDiagnostics)) {
            y = paintParagraph(y, "refused-head", "",
                               "The adapter would send nothing and call onStartPublishStreamUrl with code " +
                                   std::to_string(requests::kInvalidMix.code) + ".",
                               {13, kRed, true});
        }
        size_t shown = 0;
        for (; shown < mDiagnostics.size() && y + 70 <= kBottom; ++shown) {
            const MixDiagnostic& diagnostic = mDiagnostics[shown];
            const bool isRefusal = diagnostic.severity == MixDiagnostic::kError;
            y = paintParagraph(y, isRefusal ? "refusal" : "warning", isRefusal ? "\u2717" : "\u26a0",
                               diagnostic.field + " " + diagnostic.message, {13, isRefusal ? kRed : kAmber});
        }
        if (shown < mDiagnostics.size()) {
            y = paintParagraph(y, "more", "", "and " + std::to_string(mDiagnostics.size() - shown) + " more", kSoft);
        }
        return y;
    }

    double paintParagraph(double y, const char* name, const std::string& sign, const std::string& text,
                          const TextStyle& style) {
        const double indent = sign.empty() ? 0 : 26;
        y += 4;
        mDrawing.text("sign", kMargin + 9, y + 14, sign, style, Anchor::kMiddle);
        for (const std::string& line : mDrawing.wrapped(text, style, kStageWidth - indent)) {
            y += 18;
            mDrawing.text(name, kMargin + indent, y - 4, line, style);
        }
        return y;
    }

    Drawing& mDrawing;
    const Config& mConfig;
    const std::vector<MixDiagnostic>& mDiagnostics;
    const PreviewOptions& mOptions;
    const bool mIsPureAudio;
    const std::vector<MixLayer> mInputs;
    std::vector<bool> mHasError;   // index: that of mixUsersArray
    std::vector<Colour> mColours;  // index: that of mInputs
    Area mCanvas;                  // kFallbackCanvas if the configured canvas has no size
    const bool mHasCanvas;
};

}  // namespace

std::unique_ptr<Drawing> drawPreview(const Config& config, const std::vector<MixDiagnostic>& diagnostics,
                                     const PreviewOptions& options) {
    auto drawing = std::make_unique<Drawing>(kPreviewWidth);
    Painter(*drawing, config, diagnostics, options).paint();
    return drawing;
}

}  // namespace vexalive
