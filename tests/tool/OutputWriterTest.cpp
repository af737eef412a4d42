#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "tools/OutputWriter.h"

namespace {

using namespace vexalive;
using ::testing::HasSubstr;
using ::testing::Not;

struct File : std::unique_ptr<FILE, decltype(&std::fclose)> {
    File() : unique_ptr(std::tmpfile(), &std::fclose) {}
    std::string text() const {
        std::string all(static_cast<size_t>(std::ftell(get())), '\0');
        std::rewind(get());
        all.resize(std::fread(all.data(), 1, all.size(), get()));
        std::fseek(get(), 0, SEEK_END);
        return all;
    }
};

class OutputWriterTest : public ::testing::Test {
protected:
    std::unique_ptr<OutputWriter> writer(OutputFormat format) {
        Secrets secrets;
        secrets.add("hush-hush");
        return makeOutputWriter(format, secrets, mOut.get(), mErr.get());
    }

    static OutputEntry entry(const std::string& text) {
        OutputEntry entry;
        entry.fields = {{"event", "test"}, {"value", text}};
        entry.text = text;
        return entry;
    }
    static OutputEntry transient(const std::string& text, std::optional<std::chrono::milliseconds> countdown = {}) {
        OutputEntry result = entry(text);
        result.transient = true;
        result.countdown = countdown;
        return result;
    }

    File mOut;
    File mErr;
};

TEST_F(OutputWriterTest, PlainWritesALineForEachEntryWithItsDetails) {
    OutputEntry withDetails = entry("one");
    withDetails.details = {"more", "and more"};
    const auto plain = writer(OutputFormat::kPlain);

    plain->write(withDetails);
    plain->write(transient("two", std::chrono::milliseconds(1500)));
    plain->write(entry(""));
    plain->write(entry("a\x1b]0;title\x07|b\nc"));

    EXPECT_EQ(mOut.text(), "one\n  more\n  and more\ntwo in 2 s\na\\x1b]0;title\\x07|b\\x0ac\n");
    EXPECT_EQ(plain->redrawInterval(), std::nullopt);
}

TEST_F(OutputWriterTest, JsonWritesTheFieldsAndTheTimeOfAnyText) {
    const auto json = writer(OutputFormat::kJson);

    json->write(entry("line\nbreak \xff"));
    json->write(entry(""));

    const std::string text = mOut.text();
    const auto first = nlohmann::json::parse(text.substr(0, text.find('\n')));
    EXPECT_EQ(first.at("value"), "line\nbreak \uFFFD");
    EXPECT_THAT(first.at("time").get<std::string>(), ::testing::MatchesRegex("....-..-..T..:..:..[.]...Z"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
}

TEST_F(OutputWriterTest, TheTerminalErasesATransientEntry) {
    auto terminal = writer(OutputFormat::kTerminal);
    terminal->write(transient("waiting"));
    EXPECT_EQ(mOut.text(), "\rwaiting\x1b[K");
    EXPECT_NE(terminal->redrawInterval(), std::nullopt);

    terminal->write(entry("done"));
    EXPECT_EQ(mOut.text(), "\rwaiting\x1b[K\r\x1b[Kdone\n");
    EXPECT_EQ(terminal->redrawInterval(), std::nullopt);

    terminal->write(transient("idle"));
    terminal.reset();
    EXPECT_EQ(mOut.text(), "\rwaiting\x1b[K\r\x1b[Kdone\n\ridle\x1b[K\r\x1b[K");
}

TEST_F(OutputWriterTest, TheTerminalIsRedrawnOnlyAfterAChange) {
    const auto terminal = writer(OutputFormat::kTerminal);
    terminal->write(transient("next", std::chrono::milliseconds(100000)));
    const std::string before = mOut.text();

    terminal->redraw();

    EXPECT_EQ(mOut.text(), before);
}

TEST_F(OutputWriterTest, TheTransientLineIsCutToTheDefaultWidth) {
    const auto terminal = writer(OutputFormat::kTerminal);
    terminal->write(transient(std::string(200, 'x')));

    EXPECT_EQ(mOut.text(), "\r" + std::string(76, 'x') + "...\x1b[K");
}

TEST_F(OutputWriterTest, LogLinesAppearAboveTheTransientLine) {
    const auto terminal = writer(OutputFormat::kTerminal);
    terminal->write(transient("waiting"));
    terminal->writeLog("a log line");

    EXPECT_EQ(mErr.text(), "a log line\n");
    EXPECT_EQ(mOut.text(), "\rwaiting\x1b[K\r\x1b[K\rwaiting\x1b[K");
}

TEST_F(OutputWriterTest, NoFormatShowsASecret) {
    for (const OutputFormat format : {OutputFormat::kPlain, OutputFormat::kTerminal, OutputFormat::kJson}) {
        const auto output = writer(format);
        OutputEntry secret = entry("text hush-hush");
        secret.details = {std::string(992, ' ') + "hush-hush"};  // cut in the middle of the secret
        secret.fields["nested"] = {{"list", {"hush-hush"}}};
        output->write(secret);
        secret.transient = true;
        output->write(secret);
        output->writeLog("log hush-hush");
    }
    EXPECT_THAT(mOut.text() + mErr.text(), Not(HasSubstr("hush")));
    EXPECT_THAT(mOut.text(), HasSubstr("text [hidden]"));
    EXPECT_THAT(mErr.text(), HasSubstr("log [hidden]"));
}

TEST_F(OutputWriterTest, IsBrokenAfterAFailedWrite) {
    const std::unique_ptr<FILE, decltype(&std::fclose)> full(std::fopen("/dev/full", "w"), &std::fclose);
    ASSERT_NE(full, nullptr);
    const auto plain = makeOutputWriter(OutputFormat::kPlain, Secrets(), full.get(), mErr.get());
    EXPECT_FALSE(plain->isBroken());
    plain->write(entry("text"));
    EXPECT_TRUE(plain->isBroken());
}

}  // namespace
