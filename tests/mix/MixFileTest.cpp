#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "tools/mix/MixFile.h"

namespace vexalive {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Config = kstmedia::VexaTranscodingConfigInternal;

std::vector<std::string> errorsIn(std::string_view text) {
    const MixFileResult result = readMix(text);
    std::vector<std::string> errors;
    for (size_t i = 0; !result && i < result.error().size(); ++i) {
        errors.push_back(describe("m", result.error()[i]));
    }
    return errors;
}

std::string textOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// A file whose first line begins with these members, and which lacks nothing.
std::string with(const std::string& members) {
    return "{" + members + (members.empty() ? "" : ",") + "\"appId\":1,\"bizId\":2,\"mixUsersArray\":[]}";
}

// The same with one user, which begins the second line.
std::string withUser(const std::string& members) {
    return "{\"appId\":1,\"bizId\":2,\"mixUsersArray\":[\n{" + members + "}]}";
}

constexpr const char* kRect = "\"rect\":{\"x\":0,\"y\":0,\"w\":1,\"h\":1}";
constexpr const char* kInteger = "expected an integer from -2147483648 to 2147483647, found ";

// ---- What is read

TEST(MixFileTest, EveryFieldIsRead) {
    const MixFileResult config = readMix(R"({
        "mode": 1, "appId": 2, "bizId": -3, "videoWidth": 4, "videoHeight": 5, "videoBitrate": 6, "videoFramerate": 7,
        "videoGOP": 8, "audioSampleRate": 9, "audioBitrate": 10, "audioChannels": 11,
        "mixUsersArray": [
            {"userId": "al\"ice", "roomId": "\u00fc", "rect": {"x": -1, "y": 2, "w": 3, "h": 4}, "zOrder": 5,
             "pureAudio": false, "streamType": 2},
            {"pureAudio": true, "userId": "bob"}
        ]})");

    ASSERT_TRUE(config);
    EXPECT_EQ(
        config->to_string(),
        "mode:1, appId:2, bizId:-3, width:4, height:5, bitrate:6, fps:7, gop:8, audio_samplerate:9, "
        "audio_bitrate:10, audio_channel:11"
        " mixUser1:[userId:al\"ice, roomId:\xc3\xbc, rect:(x:-1-y:2-w:3-h:4), zOrder:5, pureAudio:0, streamType:2]"
        " mixUser2:[userId:bob, roomId:, rect:(x:0-y:0-w:0-h:0), zOrder:0, pureAudio:1, streamType:0]");
}

TEST(MixFileTest, FieldsLeftOutKeepTheRecordsDefaults) {
    const MixFileResult config = readMix(with(""));
    ASSERT_TRUE(config);
    Config expected;
    expected.appId = 1;
    expected.bizId = 2;
    EXPECT_EQ(config->to_string(), expected.to_string());
}

TEST(MixFileTest, IntegersAreReadInEveryNotation) {
    const auto read = [](const std::string& number) {
        const MixFileResult config = readMix(with("\"mode\":" + number));
        EXPECT_TRUE(config) << number;
        return config ? config->mode : 0;
    };
    EXPECT_EQ(read("2147483647"), std::numeric_limits<int32_t>::max());
    EXPECT_EQ(read("-2147483648"), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(read("-0"), 0);
    EXPECT_EQ(read("1280.0"), 1280);
    EXPECT_EQ(read("128e1"), 1280);
    EXPECT_EQ(read("12800E-1"), 1280);
}

TEST(MixFileTest, TheExamplesAreValid) {
    size_t examples = 0;
    for (const auto& entry : std::filesystem::directory_iterator(EXAMPLES)) {
        EXPECT_TRUE(readMixFile(entry.path())) << entry.path();
        ++examples;
    }
    EXPECT_EQ(examples, 7U);
}

// ---- Errors

struct ErrorCase {
    std::string text;
    std::string error;
};

void PrintTo(const ErrorCase& error, std::ostream* out) {
    *out << error.text.substr(0, 100);
}

class MixFileErrorTest : public testing::TestWithParam<ErrorCase> {};

TEST_P(MixFileErrorTest, IsReportedWithItsPosition) {
    EXPECT_THAT(errorsIn(GetParam().text), ElementsAre(GetParam().error));
}

INSTANTIATE_TEST_SUITE_P(
    Numbers, MixFileErrorTest,
    testing::Values(
        ErrorCase{with("\"videoWidth\":\"wide\""), std::string("m:1:15: field videoWidth: ") + kInteger + "\"wide\""},
        ErrorCase{with("\"videoWidth\": 1.5"), std::string("m:1:16: field videoWidth: ") + kInteger + "1.5"},
        ErrorCase{with("\"mode\":2147483648"), std::string("m:1:9: field mode: ") + kInteger + "2147483648"},
        ErrorCase{with("\"mode\":-2147483649"), std::string("m:1:9: field mode: ") + kInteger + "-2147483649"},
        ErrorCase{with("\"mode\":1e400"), std::string("m:1:9: ") + kInteger + "1e400"},
        ErrorCase{with("\"mode\":1e-400"), std::string("m:1:9: field mode: ") + kInteger + "1e-400"},
        ErrorCase{with("\"mode\":" + std::string(300, '9')),
                  std::string("m:1:9: field mode: ") + kInteger + std::string(40, '9') + "..."},
        ErrorCase{with("\"mode\":null"), std::string("m:1:9: field mode: ") + kInteger + "null"},
        ErrorCase{with("\"mode\":true"), std::string("m:1:9: field mode: ") + kInteger + "true"},
        ErrorCase{with("\"mode\":[[{}]]"), std::string("m:1:9: field mode: ") + kInteger + "a list"},
        ErrorCase{with("\"mode\":{\"a\":[1]}"), std::string("m:1:9: field mode: ") + kInteger + "an object"}));

INSTANTIATE_TEST_SUITE_P(
    Users, MixFileErrorTest,
    testing::Values(
        ErrorCase{"{\"appId\":1,\"bizId\":2,\"mixUsersArray\":{}}",
                  "m:1:38: field mixUsersArray: expected a list of objects, found an object"},
        ErrorCase{"{\"appId\":1,\"bizId\":2,\"mixUsersArray\":[7]}",
                  "m:1:39: field mixUsersArray[0]: expected an object with the fields of a mix user, found 7"},
        ErrorCase{withUser(std::string("\"userId\":5,") + kRect),
                  "m:2:11: field mixUsersArray[0].userId: expected a string, found 5"},
        ErrorCase{withUser(std::string("\"userId\":\"a\",\"pureAudio\":1,") + kRect),
                  "m:2:27: field mixUsersArray[0].pureAudio: expected true or false, found 1"},
        ErrorCase{withUser("\"userId\":\"a\",\"rect\":[0,0,1,1]"),
                  "m:2:22: field mixUsersArray[0].rect: expected an object with x, y, w and h, found a list"},
        ErrorCase{withUser("\"userId\":\"a\",\"rect\":{\"x\":0,\"y\":0,\n\"w\":\"wide\",\"h\":1}"),
                  std::string("m:3:5: field mixUsersArray[0].rect.w: ") + kInteger + "\"wide\""},
        ErrorCase{withUser("\"userId\":\"\xc3\xa4\xf0\x9f\x8e\x89\",\"zOrder\":\"\","
                           "\"pureAudio\":true"),
                  std::string("m:2:25: field mixUsersArray[0].zOrder: ") + kInteger + "\"\""},
        ErrorCase{
            withUser(std::string("\"userId\":\"\\udc00\",") + kRect),
            "m:2:11: field mixUsersArray[0].userId: expected a string without a lone surrogate, found \"\\udc00\""}));

INSTANTIATE_TEST_SUITE_P(
    Fields, MixFileErrorTest,
    testing::Values(ErrorCase{"{\"bizId\":2,\"mixUsersArray\":[]}", "m:1:1: field appId: is missing"},
                    ErrorCase{"\n {\"appId\":1,\"mixUsersArray\":[]}", "m:2:2: field bizId: is missing"},
                    ErrorCase{"{\"appId\":1,\"bizId\":2}", "m:1:1: field mixUsersArray: is missing"},
                    ErrorCase{withUser(kRect), "m:2:1: field mixUsersArray[0].userId: is missing"},
                    ErrorCase{withUser("\"userId\":\"a\""), "m:2:1: field mixUsersArray[0].rect: is missing"},
                    ErrorCase{withUser("\"userId\":\"a\",\"rect\":{\"x\":0,\"y\":0,\"h\":1}"),
                              "m:2:22: field mixUsersArray[0].rect.w: is missing"},
                    ErrorCase{withUser("\"userId\":\"a\",\"zorder\":{\"x\":[]},\"pureAudio\":true"),
                              "m:2:15: field mixUsersArray[0].zorder: unknown field; allowed are userId, roomId, "
                              "rect, zOrder, pureAudio and streamType"},
                    ErrorCase{withUser("\"userId\":\"a\",\"rect\":{\"x\":0,\"y\":0,\"w\":1,\"h\":1,\"\\u001b[2J" +
                                       std::string(60, 'k') + "\":null}"),
                              "m:2:47: field mixUsersArray[0].rect.\\u001b[2J" + std::string(31, 'k') +
                                  "...: unknown field; allowed are x, y, w and h"},
                    ErrorCase{"{\"appId\":1,\n\"bizId\":2,\"mixUsersArray\":[],\n  \"appId\":{\"a\":1}}",
                              "m:3:3: field appId: appears twice"},
                    ErrorCase{with("\"mode\":1,\"m\\u006fde\":2"), "m:1:11: field mode: appears twice"}));

INSTANTIATE_TEST_SUITE_P(
    NotAnObject, MixFileErrorTest,
    testing::Values(ErrorCase{"[]", "m:1:1: expected an object with the fields of a mix configuration, found a list"},
                    ErrorCase{" 7 ", "m:1:2: expected an object with the fields of a mix configuration, found 7"},
                    ErrorCase{"\"{}\"",
                              "m:1:1: expected an object with the fields of a mix configuration, found \"{}\""}));

INSTANTIATE_TEST_SUITE_P(
    NotJson, MixFileErrorTest,
    testing::Values(
        ErrorCase{"", "m:1:1: the file is empty"}, ErrorCase{" \n ", "m:2:2: the file is empty"},
        ErrorCase{"{\"mode\":1\n \"appId\":2}", "m:2:2: not JSON: expected \",\" or \"}\" after a field"},
        ErrorCase{"{\"mode\":1,}", "m:1:11: not JSON: expected the name of a field, in quotes"},
        ErrorCase{"{\"mode\" 1}", "m:1:9: not JSON: expected \":\" after the name of a field"},
        ErrorCase{"{mode:1}", "m:1:2: not JSON: expected the name of a field, in quotes"},
        ErrorCase{"{\"mode\":01}", "m:1:10: not JSON: expected \",\" or \"}\" after a field"},
        ErrorCase{with("") + " x", "m:1:42: not JSON: expected the end of the file"},
        ErrorCase{std::string("{\"appId\":1,\"bizId\":2,\"mixUsersArray\":[]}\0", 41), "m:1:41: not JSON: zero byte"},
        ErrorCase{"{\"mode\":1", "m:1:10: not JSON: expected \",\" or \"}\" after a field"},
        ErrorCase{"{\"mode\":\"a\n\"}",
                  "m:1:11: not JSON: invalid escape or control character in a string; write a line break as \\n"},
        ErrorCase{"{\"mode\":\"a\\q\"}",
                  "m:1:11: not JSON: invalid escape or control character in a string; write a line break as \\n"},
        ErrorCase{"{\"mode\":\"\xff\"}", "m:1:10: not JSON: a string is not UTF-8"},
        ErrorCase{"{\"mode\":\"\xed\xa0\x80\"}", "m:1:10: not JSON: a string is not UTF-8"},
        ErrorCase{"{\"mode\":\"\\ud800\"}", "m:1:10: not JSON: incomplete surrogate pair"},
        ErrorCase{"// comment\n{}", "m:1:1: not JSON: expected a value"},
        ErrorCase{"{\"mode\":[1 2]}", "m:1:12: not JSON: expected \",\" or \"]\" after an element"},
        ErrorCase{"{\"mode\":1.}", "m:1:11: not JSON: expected a digit"},
        ErrorCase{"{\"mode\":1e}", "m:1:11: not JSON: expected a digit"},
        ErrorCase{"{\"mode\":\"a", "m:1:11: not JSON: string without its closing quote"},
        ErrorCase{"{\"mode\":\"\\u12g4\"}", "m:1:10: not JSON: expected four hexadecimal digits after \"\\u\""},
        ErrorCase{std::string("{\"mode\":\0 1}", 13), "m:1:9: not JSON: expected a value"},
        ErrorCase{"\xef\xbb\xbf{}", "m:1:1: not JSON: byte order mark"}));

TEST(MixFileTest, SeveralErrorsAreReportedInTheOrderOfTheFile) {
    const std::string text =
        "{\n"
        "  \"appid\": 1,\n"
        "  \"videoWidth\": \"wide\",\n"
        "  \"mixUsersArray\": [\n"
        "    {\"userId\": \"a\", \"rect\": {\"x\": 0, \"y\": 0, \"w\": 0.5, \"h\": 1}},\n"
        "    {\"userId\": \"b\", \"zOrder\": null}\n"
        "  ]\n"
        "}\n";
    EXPECT_THAT(errorsIn(text),
                ElementsAre("m:1:1: field appId: is missing", "m:1:1: field bizId: is missing",
                            HasSubstr("m:2:3: field appid: unknown field"),
                            std::string("m:3:17: field videoWidth: ") + kInteger + "\"wide\"",
                            std::string("m:5:51: field mixUsersArray[0].rect.w: ") + kInteger + "0.5",
                            "m:6:5: field mixUsersArray[1].rect: is missing",
                            std::string("m:6:31: field mixUsersArray[1].zOrder: ") + kInteger + "null"));
}

TEST(MixFileTest, ASyntaxErrorIsReportedAlone) {
    EXPECT_THAT(errorsIn("{\"mode\":null,\"bizId\":2"), ElementsAre(HasSubstr("not JSON: expected")));
}

TEST(MixFileTest, LinesMayEndInCarriageReturns) {
    EXPECT_THAT(errorsIn("{\r\n\"appId\":1,\r\n\"bizId\":true,\r\n\"mixUsersArray\":[]\r\n}\r\n"),
                ElementsAre(std::string("m:3:9: field bizId: ") + kInteger + "true"));
}

TEST(MixFileTest, OfManyErrorsTheFirstAreReported) {
    std::string text = "{";
    for (int i = 0; i < 10000; ++i) {
        text += "\"x\":1,\n";
    }
    const std::vector<std::string> errors = errorsIn(text + "\"appId\":1,\"bizId\":2}");
    ASSERT_THAT(errors, SizeIs(kMaxMixFileErrors + 1));
    EXPECT_EQ(errors[0], "m:1:1: field mixUsersArray: is missing");
    EXPECT_THAT(errors[19], HasSubstr("m:19:1: field x: unknown field"));
    EXPECT_EQ(errors.back(), "m: and 9981 more errors");
}

TEST(MixFileTest, NestingIsLimited) {
    const auto nested = [](size_t lists, const std::string& end) {
        return with("\"mode\":" + std::string(lists, '[') + end);
    };
    EXPECT_THAT(errorsIn(nested(63, std::string(63, ']'))), ElementsAre(HasSubstr("field mode: expected")));
    EXPECT_THAT(errorsIn(nested(64, std::string(64, ']'))),
                ElementsAre("m:1:73: nested deeper than 64 objects and lists"));
    EXPECT_THAT(errorsIn("{\"mode\":" + std::string(1000000, '[')),
                ElementsAre("m:1:73: nested deeper than 64 objects and lists"));
    EXPECT_THAT(errorsIn(std::string(10000000, '[')), ElementsAre("m: is larger than 1048576 bytes"));
}

// ---- Any text

void expectValidErrors(const std::string& text) {
    const MixFileResult result = readMix(text);
    const size_t lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    if (result) {
        return;
    }
    size_t lastLine = 0;
    for (size_t i = 0; i < std::min(result.error().size(), kMaxMixFileErrors); ++i) {
        const MixFileError& error = result.error()[i];
        ASSERT_GE(error.line, std::max<size_t>(1, lastLine));
        ASSERT_LE(error.line, lines);
        ASSERT_GE(error.column, 1U);
        ASSERT_LE(error.column, text.size() + 1);
        ASSERT_FALSE(error.message.empty());
        lastLine = error.line;
    }
}

TEST(MixFileTest, EveryTruncationOfAFileIsAnError) {
    const std::string text = textOf(EXAMPLES "/auxiliary-stream.json");
    const size_t end = text.find_last_of('}');
    for (size_t length = 0; length <= end; ++length) {
        expectValidErrors(text.substr(0, length));
        EXPECT_FALSE(readMix(text.substr(0, length))) << length;
    }
    EXPECT_THAT(errorsIn(text), IsEmpty());
}

TEST(MixFileTest, AnyChangeOfAFileIsHandled) {
    const std::string text = textOf(EXAMPLES "/auxiliary-stream.json");
    const std::string bytes("\0\n\"\\{}[]:,0-.e\xff\xed\x80u", 18);
    std::mt19937 chance(7);
    for (int round = 0; round < 20000; ++round) {
        std::string changed = text;
        for (int change = 0; change < 3; ++change) {
            const size_t at = chance() % changed.size();
            switch (chance() % 3) {
                case 0:
                    changed[at] = bytes[chance() % bytes.size()];
                    break;
                case 1:
                    changed.erase(at, chance() % 20);
                    break;
                default:
                    changed.insert(at, changed.substr(chance() % changed.size(), chance() % 40));
            }
        }
        ASSERT_NO_FATAL_FAILURE(expectValidErrors(changed));
    }
}

// ---- Files

TEST(MixFileTest, AFileThatCannotBeReadIsAnError) {
    const auto errorOf = [](const std::string& path) {
        const MixFileResult result = readMixFile(path);
        return !result && result.error().size() == 1 ? describe(path, result.error()[0]) : "?";
    };
    EXPECT_EQ(errorOf("/no/such/file"), "/no/such/file: cannot be opened: No such file or directory");
    EXPECT_EQ(errorOf("/"), "/: cannot be read: Is a directory");
    EXPECT_EQ(errorOf(""), ": cannot be opened: No such file or directory");
}

TEST(MixFileTest, AFileIsAtMostAMebibyteLong) {
    const std::string path = testing::TempDir() + "mix_file_test_" + std::to_string(getpid()) + ".json";
    const std::string small = with("");
    const auto write = [&](size_t length) {
        std::ofstream(path, std::ios::binary) << small << std::string(length - small.size(), ' ');
        return readMixFile(path);
    };
    EXPECT_TRUE(write(1048576));
    const MixFileResult tooLarge = write(1048577);
    ASSERT_FALSE(tooLarge);
    ASSERT_THAT(tooLarge.error(), SizeIs(1));
    EXPECT_EQ(describe("m", tooLarge.error()[0]), "m: is larger than 1048576 bytes");
    std::remove(path.c_str());
}

}  // namespace vexalive
