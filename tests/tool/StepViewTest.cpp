#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "tools/StepView.h"

namespace {

using namespace vexalive;
using ::testing::HasSubstr;
using ::testing::Not;

// What was written to a file that stays in memory.
class MemoryFile {
public:
    MemoryFile() : mFile(open_memstream(&mText, &mSize)) {}
    ~MemoryFile() {
        std::fclose(mFile);
        std::free(mText);
    }
    FILE* file() { return mFile; }
    std::string text() {
        std::fflush(mFile);
        return std::string(mText, mSize);
    }

private:
    char* mText = nullptr;
    size_t mSize = 0;
    FILE* mFile;
};

class StepViewTest : public ::testing::Test {
protected:
    std::unique_ptr<StepView> view(Form form) {
        Secrets secrets;
        secrets.add("hush-hush");
        return makeStepView(form, secrets, mOut.file(), mErr.file());
    }

    static Step step(const std::string& text) {
        Step step;
        step.fields = {{"event", "test"}, {"value", text}};
        step.text = text;
        return step;
    }
    static Step passing(const std::string& text, std::optional<std::chrono::milliseconds> wait = std::nullopt) {
        Step passing = step(text);
        passing.passing = true;
        passing.wait = wait;
        return passing;
    }

    MemoryFile mOut;
    MemoryFile mErr;
};

TEST_F(StepViewTest, PlainWritesALineForEachStepWithItsDetails) {
    Step withDetails = step("one");
    withDetails.details = {"more", "and more"};
    const auto plain = view(Form::kPlain);

    plain->show(withDetails);
    plain->show(passing("two", std::chrono::milliseconds(1500)));
    plain->show(step(""));

    EXPECT_EQ(mOut.text(), "one\n  more\n  and more\ntwo in 2 s\n");
    EXPECT_EQ(plain->redrawInterval(), std::nullopt);
}

TEST_F(StepViewTest, JsonWritesTheFieldsAndTheTimeWhateverTheTextHolds) {
    const auto json = view(Form::kJson);

    json->show(step("line\nbreak \xff"));
    json->show(step(""));

    const std::string text = mOut.text();
    const auto first = nlohmann::json::parse(text.substr(0, text.find('\n')));
    EXPECT_EQ(first.at("value"), "line\nbreak \uFFFD");
    EXPECT_THAT(first.at("time").get<std::string>(), ::testing::MatchesRegex("....-..-..T..:..:..[.]...Z"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
}

TEST_F(StepViewTest, LiveKeepsAPassingStepInOneLineAndErasesItInTheEnd) {
    auto live = view(Form::kLive);
    live->show(passing("waiting"));
    EXPECT_EQ(mOut.text(), "\rwaiting\x1b[K");
    EXPECT_NE(live->redrawInterval(), std::nullopt);

    live->show(step("done"));
    EXPECT_EQ(mOut.text(), "\rwaiting\x1b[K\r\x1b[Kdone\n");
    EXPECT_EQ(live->redrawInterval(), std::nullopt);

    live->show(passing("idle"));
    live.reset();
    EXPECT_EQ(mOut.text(), "\rwaiting\x1b[K\r\x1b[Kdone\n\ridle\x1b[K\r\x1b[K");
}

TEST_F(StepViewTest, LiveWritesNothingWhereNothingChanged) {
    const auto live = view(Form::kLive);
    live->show(passing("next", std::chrono::milliseconds(100000)));
    const std::string before = mOut.text();

    live->redraw();

    EXPECT_EQ(mOut.text(), before);
}

TEST_F(StepViewTest, LiveCutsThePassingLineToTheWidthOfTheTerminal) {
    const auto live = view(Form::kLive);  // of unknown width
    live->show(passing(std::string(200, 'x')));

    EXPECT_EQ(mOut.text(), "\r" + std::string(76, 'x') + "...\x1b[K");
}

TEST_F(StepViewTest, LivePutsLogLinesAboveThePassingLine) {
    const auto live = view(Form::kLive);
    live->show(passing("waiting"));
    live->log("a log line");

    EXPECT_EQ(mErr.text(), "a log line\n");
    EXPECT_EQ(mOut.text(), "\rwaiting\x1b[K\r\x1b[K\rwaiting\x1b[K");
}

TEST_F(StepViewTest, NoFormShowsASecret) {
    for (const Form form : {Form::kPlain, Form::kLive, Form::kJson}) {
        const auto shown = view(form);
        Step secret = step("text hush-hush");
        secret.details = {std::string(995, ' ') + "hush-hush"};  // cutting must not save it from being found
        secret.fields["nested"] = {{"list", {"hush-hush"}}};
        shown->show(secret);
        secret.passing = true;
        shown->show(secret);
        shown->log("log hush-hush");
    }
    EXPECT_THAT(mOut.text() + mErr.text(), Not(HasSubstr("hush")));
    EXPECT_THAT(mOut.text(), HasSubstr("text [hidden]"));
    EXPECT_THAT(mErr.text(), HasSubstr("log [hidden]"));
}

TEST_F(StepViewTest, LinesForPeopleHoldNoControlCharacters) {
    const auto plain = view(Form::kPlain);
    plain->show(
        step("a\x1b]0;title\x07"
             "b\nc"));

    EXPECT_EQ(mOut.text(),
              "a\\x1b]0;title\\x07"
              "b\\x0ac\n");
}

TEST_F(StepViewTest, KnowsWhenItsReaderIsGone) {
    FILE* full = std::fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    {
        const auto plain = makeStepView(Form::kPlain, Secrets(), full, mErr.file());
        EXPECT_FALSE(plain->isBroken());
        plain->show(step("text"));
        EXPECT_TRUE(plain->isBroken());
    }
    std::fclose(full);
}

}  // namespace
