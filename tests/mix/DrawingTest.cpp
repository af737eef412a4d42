#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "tests/mix/SvgDocument.h"
#include "tools/mix/Drawing.h"

namespace vexalive {

using testing::DoubleNear;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class DrawingTest : public testing::Test {
protected:
    static constexpr TextStyle kStyle = {14, 0x000000};
    static constexpr const char* kDots = "\u2026";
    Drawing mDrawing{400};
};

TEST_F(DrawingTest, AStringThatFitsIsUnchangedAndOneWithoutSpaceIsOmitted) {
    EXPECT_EQ(mDrawing.fitted("alice", kStyle, 200), "alice");
    EXPECT_EQ(mDrawing.fitted("", kStyle, 0), "");
    EXPECT_EQ(mDrawing.fitted("alice", kStyle, 5), "");
    EXPECT_EQ(mDrawing.fitted("alice", kStyle, -100), "");
}

TEST_F(DrawingTest, AStringThatIsTooLongIsCutAndFits) {
    for (double width = 30; width < 200; width += 7) {
        const std::string text = mDrawing.fitted("a rather long name of a user", kStyle, width);
        EXPECT_LE(mDrawing.widthOf(text, kStyle), width);
        EXPECT_THAT(text, testing::EndsWith(kDots));
    }
}

TEST_F(DrawingTest, ACutFallsBetweenTwoCharacters) {
    const std::string name = "\u00fc\u00fc\u00fc\u00fc\u00fc\u00fc\u00fc\u00fc";
    const std::string text = mDrawing.fitted(name, kStyle, 40);
    const std::string shown = text.substr(0, text.size() - std::string(kDots).size());
    EXPECT_EQ(shown.size() % 2, 0U);
    EXPECT_EQ(name.compare(0, shown.size(), shown), 0);
}

TEST_F(DrawingTest, AVeryLongStringIsCutAtAnyWidth) {
    EXPECT_LT(mDrawing.fitted(std::string(5000, 'i'), kStyle, 1e9).size(), 400U);
}

TEST_F(DrawingTest, LinesBreakAtBlanks) {
    const double width = mDrawing.widthOf("one two", kStyle) + 1;
    EXPECT_THAT(mDrawing.wrapped("one two three", kStyle, width), ElementsAre("one two", "three"));
    EXPECT_THAT(mDrawing.wrapped("", kStyle, width), IsEmpty());
}

TEST_F(DrawingTest, AStringIsAnchoredAtItsLeftEndItsMiddleOrItsRightEnd) {
    const double width = mDrawing.widthOf("alice", kStyle);
    mDrawing.text("t", 100, 20, "alice", kStyle);
    mDrawing.text("t", 100, 20, "alice", kStyle, Anchor::kMiddle);
    mDrawing.text("t", 100, 20, "alice", kStyle, Anchor::kRight);
    std::vector<double> lefts;
    for (const SvgElement& text : SvgDocument(mDrawing.svg()).ofKind("t")) {
        EXPECT_NEAR(text.number("textLength"), width, 0.01);
        lefts.push_back(text.number("x"));
    }
    EXPECT_THAT(lefts, ElementsAre(100, DoubleNear(100 - width / 2, 0.01), DoubleNear(100 - width, 0.01)));
}

TEST_F(DrawingTest, AStringIsEscapedAndCharactersThatXmlForbidsOrThatChangeTheDirectionAreReplaced) {
    const std::string scripts = "\u05e9\u05dc\u05d5\u05dd \u7528\u6237 \U0001f389";
    const std::pair<std::string, std::string> cases[] = {
        {"</text><script>\"&'", "</text><script>\"&'"},
        {scripts, scripts},
        {{"\x01|\0|\n|\x7f|\xff|\u202e|\u2066|\uffff|end", 25},
         "\ufffd|\ufffd|\ufffd|\ufffd|\ufffd|\ufffd|\ufffd|\ufffd|end"}};
    for (const auto& [text, shown] : cases) {
        mDrawing.text("t", 0, 20, text, kStyle);
        EXPECT_EQ(SvgDocument(mDrawing.svg()).texts("t").back(), shown);
    }
}

TEST_F(DrawingTest, AnEmptyPageIsAnImage) {
    mDrawing.setHeight(1);
    EXPECT_THAT(mDrawing.svg(), HasSubstr("viewBox=\"0 0 400 1\""));
    EXPECT_THAT(mDrawing.png(), testing::StartsWith("\x89PNG\r\n"));
}

TEST_F(DrawingTest, AnImageThatIsTooLargeIsEmpty) {
    mDrawing.setHeight(1e6);  // pixels; cairo's limit for an image is 32767
    EXPECT_EQ(mDrawing.png(), "");
}

}  // namespace vexalive
