#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/mix/MixTesting.h"
#include "tools/mix/MixFile.h"

namespace vexalive {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

std::vector<std::string> errorsOf(const std::string& path, const MixFileResult& result) {
    std::vector<std::string> errors;
    for (size_t i = 0; !result && i < result.error().size(); ++i) {
        errors.push_back(describe(path, result.error()[i]));
    }
    return errors;
}

std::vector<std::string> errorsIn(std::string_view text) {
    return errorsOf("m", readMix(text));
}

// A valid one-line file that begins with `members`.
std::string with(const std::string& members) {
    return "{" + members + (members.empty() ? "" : ",") + R"("appId":1,"bizId":2,"mixUsersArray":[]})";
}

// A file with one user, whose `members` begin on the second line.
std::string withUser(const std::string& members) {
    return R"({"appId":1,"bizId":2,"mixUsersArray":[)"
           "\n{" +
           members + "}]}";
}

const std::string kRect = "'rect':{'x':0,'y':0,'w':1,'h':1}";
const std::string kInteger = "expected an integer from -2147483648 to 2147483647, found ";

// ---- Fields

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

TEST(MixFileTest, OmittedFieldsHaveTheRecordsDefaults) {
    Config expected;
    expected.appId = 1;
    expected.bizId = 2;
    EXPECT_EQ(readMix(with("")).value().to_string(), expected.to_string());
}

TEST(MixFileTest, IntegersAreReadInEveryNotation) {
    const std::pair<const char*, int32_t> cases[] = {
        {"2147483647", INT32_MAX}, {"-2147483648", INT32_MIN}, {"-0", 0}, {"1280.0", 1280},
        {"128e1", 1280},           {"12800E-1", 1280}};
    for (const auto& [number, expected] : cases) {
        EXPECT_EQ(readMix(with(std::string("\"mode\":") + number)).value().mode, expected) << number;
    }
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

using ErrorCase = std::pair<std::string, std::string>;  // the file, and the only error that it must cause

// Replaces each ' by ". This keeps the JSON of the cases readable.
std::string quoted(std::string text) {
    std::replace(text.begin(), text.end(), '\'', '"');
    return text;
}

void expectErrors(const std::vector<ErrorCase>& cases) {
    for (const auto& [text, error] : cases) {
        EXPECT_THAT(errorsIn(quoted(text)), ElementsAre("m:" + quoted(error))) << text.substr(0, 100);
    }
}

TEST(MixFileTest, ANumberThatIsNoIntegerIsAnError) {
    expectErrors(
        {{with("'videoWidth':'wide'"), "1:15: field videoWidth: " + kInteger + "'wide'"},
         {with("'videoWidth': 1.5"), "1:16: field videoWidth: " + kInteger + "1.5"},
         {with("'mode':1e400"), "1:9: " + kInteger + "1e400"},
         {with("'mode':[[{}]]"), "1:9: field mode: " + kInteger + "a list"},
         {with("'mode':{'a':[1]}"), "1:9: field mode: " + kInteger + "an object"},
         {"{\r\n'appId':1,\r\n'bizId':true,\r\n'mixUsersArray':[]\r\n}\r\n", "3:9: field bizId: " + kInteger + "true"},
         {with("'mode':" + std::string(300, '9')), "1:9: field mode: " + kInteger + std::string(40, '9') + "..."}});
    for (const std::string value : {"2147483648", "-2147483649", "1e-400", "null", "true"}) {
        expectErrors({{with("'mode':" + value), "1:9: field mode: " + kInteger + value}});
    }
}

TEST(MixFileTest, AnInvalidUserIsAnError) {
    expectErrors({
        {"{'appId':1,'bizId':2,'mixUsersArray':{}}",
         "1:38: field mixUsersArray: expected a list of objects, found an object"},
        {"{'appId':1,'bizId':2,'mixUsersArray':[7]}",
         "1:39: field mixUsersArray[0]: expected an object with the fields of a mix user, found 7"},
        {withUser("'userId':5," + kRect), "2:11: field mixUsersArray[0].userId: expected a string, found 5"},
        {withUser("'userId':'a','pureAudio':1," + kRect),
         "2:27: field mixUsersArray[0].pureAudio: expected true or false, found 1"},
        {withUser("'userId':'a','rect':[0,0,1,1]"),
         "2:22: field mixUsersArray[0].rect: expected an object with x, y, w and h, found a list"},
        {withUser("'userId':'a','rect':{'x':0,'y':0,\n'w':'wide','h':1}"),
         "3:5: field mixUsersArray[0].rect.w: " + kInteger + "'wide'"},
        {withUser("'userId':'\xc3\xa4\xf0\x9f\x8e\x89','zOrder':'','pureAudio':true"),
         "2:25: field mixUsersArray[0].zOrder: " + kInteger + "''"},
        {withUser("'userId':'\\udc00'," + kRect),
         "2:11: field mixUsersArray[0].userId: expected a string without a lone surrogate, found '\\udc00'"},
    });
}

TEST(MixFileTest, AFieldThatIsMissingUnknownOrRepeatedIsAnError) {
    expectErrors({
        {"{'bizId':2,'mixUsersArray':[]}", "1:1: field appId: is missing"},
        {"\n {'appId':1,'mixUsersArray':[]}", "2:2: field bizId: is missing"},
        {"{'appId':1,'bizId':2}", "1:1: field mixUsersArray: is missing"},
        {withUser(kRect), "2:1: field mixUsersArray[0].userId: is missing"},
        {withUser("'userId':'a'"), "2:1: field mixUsersArray[0].rect: is missing"},
        {withUser("'userId':'a','rect':{'x':0,'y':0,'h':1}"), "2:22: field mixUsersArray[0].rect.w: is missing"},
        {withUser("'userId':'a','zorder':{'x':[]},'pureAudio':true"),
         "2:15: field mixUsersArray[0].zorder: unknown field; allowed are userId, roomId, rect, zOrder, pureAudio and "
         "streamType"},
        {withUser("'userId':'a','rect':{'x':0,'y':0,'w':1,'h':1,'\\u001b[2J" + std::string(60, 'k') + "':null}"),
         "2:47: field mixUsersArray[0].rect.\\u001b[2J" + std::string(31, 'k') +
             "...: unknown field; allowed are x, y, w and h"},
        {"{'appId':1,\n'bizId':2,'mixUsersArray':[],\n  'appId':{'a':1}}", "3:3: field appId: appears twice"},
        {with("'mode':1,'m\\u006fde':2"), "1:11: field mode: appears twice"},
    });
}

TEST(MixFileTest, AnythingButAJsonObjectIsAnError) {
    const std::string expected = "expected an object with the fields of a mix configuration, found ";
    expectErrors({{"[]", "1:1: " + expected + "a list"},
                  {" 7 ", "1:2: " + expected + "7"},
                  {"'{}'", "1:1: " + expected + "'{}'"},
                  {"", "1:1: the file is empty"},
                  {" \n ", "2:2: the file is empty"}});
    const std::string badString = "invalid escape or control character in a string; write a line break as \\n";
    const std::array<std::string, 3> cases[] = {
        {"{'mode':1\n 'appId':2}", "2:2", "expected ',' or '}' after a field"},
        {"{'mode':1,}", "1:11", "expected the name of a field, in quotes"},
        {"{'mode' 1}", "1:9", "expected ':' after the name of a field"},
        {"{mode:1}", "1:2", "expected the name of a field, in quotes"},
        {"{'mode':01}", "1:10", "expected ',' or '}' after a field"},
        {with("") + " x", "1:42", "expected the end of the file"},
        {with("") + std::string(1, '\0'), "1:41", "zero byte"},
        {"{'mode':1", "1:10", "expected ',' or '}' after a field"},
        {"{'mode':null,'bizId':2", "1:23", "expected ',' or '}' after a field"},  // a syntax error hides the wrong type
        {"{'mode':'a\n'}", "1:11", badString},
        {"{'mode':'a\\q'}", "1:11", badString},
        {"{'mode':'\xff'}", "1:10", "a string is not UTF-8"},
        {"{'mode':'\xed\xa0\x80'}", "1:10", "a string is not UTF-8"},
        {"{'mode':'\\ud800'}", "1:10", "incomplete surrogate pair"},
        {"// comment\n{}", "1:1", "expected a value"},
        {"{'mode':[1 2]}", "1:12", "expected ',' or ']' after an element"},
        {"{'mode':1.}", "1:11", "expected a digit"},
        {"{'mode':1e}", "1:11", "expected a digit"},
        {"{'mode':'a", "1:11", "string without its closing quote"},
        {"{'mode':'\\u12g4'}", "1:10", "expected four hexadecimal digits after '\\u'"},
        {std::string("{'mode':\0 1}", 12), "1:9", "expected a value"},
        {"\xef\xbb\xbf{}", "1:1", "byte order mark"},
    };
    for (const auto& [text, position, error] : cases) {
        expectErrors({{text, position + ": not JSON: " + error}});
    }
}

TEST(MixFileTest, SeveralErrorsAreReportedInTheOrderOfTheFile) {
    const std::string text = R"({
  "appid": 1,
  "videoWidth": "wide",
  "mixUsersArray": [
    {"userId": "a", "rect": {"x": 0, "y": 0, "w": 0.5, "h": 1}},
    {"userId": "b", "zOrder": null}
  ]
})";
    EXPECT_THAT(errorsIn(text), ElementsAre("m:1:1: field appId: is missing", "m:1:1: field bizId: is missing",
                                            HasSubstr("m:2:3: field appid: unknown field"),
                                            "m:3:17: field videoWidth: " + kInteger + "\"wide\"",
                                            "m:5:51: field mixUsersArray[0].rect.w: " + kInteger + "0.5",
                                            "m:6:5: field mixUsersArray[1].rect: is missing",
                                            "m:6:31: field mixUsersArray[1].zOrder: " + kInteger + "null"));
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
    EXPECT_THAT(errorsIn(std::string(8000000, '[')), ElementsAre("m: is larger than 1048576 bytes"));
}

// ---- Arbitrary files

void expectValidErrors(const std::string& text) {
    const MixFileResult result = readMix(text);
    const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    size_t lastLine = 1;
    for (size_t i = 0; !result && i < std::min(result.error().size(), kMaxMixFileErrors); ++i) {
        const MixFileError& error = result.error()[i];
        ASSERT_GE(error.line, lastLine);
        ASSERT_LE(error.line, lines);
        ASSERT_GE(error.column, 1U);
        ASSERT_LE(error.column, text.size() + 1);
        ASSERT_FALSE(error.message.empty());
        lastLine = error.line;
    }
}

TEST(MixFileTest, EveryTruncationOfAFileIsAnError) {
    const std::string text = contentOf(EXAMPLES "/auxiliary-stream.json");
    const size_t end = text.find_last_of('}');
    for (size_t length = 0; length <= end; ++length) {
        expectValidErrors(text.substr(0, length));
        EXPECT_FALSE(readMix(text.substr(0, length))) << length;
    }
    EXPECT_THAT(errorsIn(text), IsEmpty());
}

TEST(MixFileTest, ARandomlyChangedFileIsReadOrHasValidErrors) {
    const std::string text = contentOf(EXAMPLES "/auxiliary-stream.json");
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
    EXPECT_THAT(errorsOf("/no/such/file", readMixFile("/no/such/file")),
                ElementsAre("/no/such/file: cannot be opened: No such file or directory"));
    EXPECT_THAT(errorsOf("/", readMixFile("/")), ElementsAre("/: cannot be read: Is a directory"));
    EXPECT_THAT(errorsOf("", readMixFile("")), ElementsAre(": cannot be opened: No such file or directory"));
}

TEST(MixFileTest, AFileIsAtMostAMebibyteLong) {
    const std::string path = testing::TempDir() + "mix_file_test_" + std::to_string(getpid()) + ".json";
    const std::string small = with("");
    const auto write = [&](size_t length) {
        std::ofstream(path, std::ios::binary) << small << std::string(length - small.size(), ' ');
        return readMixFile(path);
    };
    EXPECT_TRUE(write(1048576));
    EXPECT_THAT(errorsOf("m", write(1048577)), ElementsAre("m: is larger than 1048576 bytes"));
    std::remove(path.c_str());
}

}  // namespace vexalive
