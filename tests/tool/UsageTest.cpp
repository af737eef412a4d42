// Wrong usage of the tool: named, explained, and nothing sent.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "support/ChildProcess.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kSecret = "a-very-secret-text";

// None of the variables that the tool reads.
const std::map<std::string, std::string>& bareEnvironment() {
    static const auto& environment =
        *new std::map<std::string, std::string>{{"VEXALIVE_SDK_APP_ID", ""},  {"VEXALIVE_USER", ""},
                                                {"VEXALIVE_SIG", ""},         {"VEXALIVE_ROOM", ""},
                                                {"VEXALIVE_MAP_KEY", ""},     {"VEXALIVE_APP_ID", ""},
                                                {"VEXALIVE_BIZ_ID", ""},      {"VEXALIVE_CA_FILE", ""},
                                                {"VEXALIVE_PUSH_DOMAIN", ""}, {"VEXALIVE_SERVICE_HOST", "127.0.0.1:9"}};
    return environment;
}

struct Ran {
    int status;
    std::string output;
    std::string errors;
};

Ran run(std::vector<std::string> arguments, std::map<std::string, std::string> environment = {}) {
    arguments.insert(arguments.begin(), VEXALIVE_TOOL);
    environment.insert(bareEnvironment().begin(), bareEnvironment().end());
    ChildProcess tool(arguments, environment);
    const int status = tool.awaitExit();
    return {status, tool.output(), tool.errors()};
}

using Options = std::map<std::string, std::string>;

Options goodOptions() {
    return {{"--sdk-app-id", "1400000001"}, {"--user", "alice"},  {"--sig", kSecret},  {"--room", "4711"},
            {"--map-key", kSecret},         {"--app-id", "1250"}, {"--biz-id", "3891"}};
}

Ran runRelay(const Options& options, const std::string& url = "rtmp://cdn.example/live/main",
             const std::map<std::string, std::string>& environment = {}) {
    std::vector<std::string> arguments = {"relay", url};
    for (const auto& [option, value] : options) {
        arguments.push_back(option);
        arguments.push_back(value);
    }
    return run(arguments, environment);
}

void expectUsageError(const Ran& ran, const std::string& text) {
    EXPECT_EQ(ran.status, 2);
    EXPECT_EQ(ran.output, "");
    EXPECT_THAT(ran.errors, HasSubstr(text));
    EXPECT_THAT(ran.errors, Not(HasSubstr(kSecret)));
}

struct RelayOption {
    const char* option;
    const char* variable;
    const char* meaning;
};

void PrintTo(const RelayOption& option, std::ostream* out) {
    *out << option.option;
}

class EachRelayOption : public ::testing::TestWithParam<RelayOption> {};

TEST_P(EachRelayOption, IsNamedWithItsMeaningAndItsVariableWhereItIsMissing) {
    Options options = goodOptions();
    options.erase(GetParam().option);

    const Ran ran = runRelay(options);

    expectUsageError(ran, std::string("vexalive relay: ") + GetParam().option + " is missing: " + GetParam().meaning +
                              " (or " + GetParam().variable + ")");
}

TEST_P(EachRelayOption, IsNamedWhereItIsEmpty) {
    Options options = goodOptions();
    options[GetParam().option] = "";

    const Ran ran = runRelay(options);

    expectUsageError(ran, std::string(GetParam().option) + " is empty: must be " + GetParam().meaning);
}

INSTANTIATE_TEST_SUITE_P(
    Relay, EachRelayOption,
    ::testing::Values(RelayOption{"--sdk-app-id", "VEXALIVE_SDK_APP_ID", "the SDK application id, a positive integer"},
                      RelayOption{"--user", "VEXALIVE_USER", "the user who asks, a text"},
                      RelayOption{"--sig", "VEXALIVE_SIG", "the user's signature, a secret text"},
                      RelayOption{"--room", "VEXALIVE_ROOM", "the room that the user is in, a text"},
                      RelayOption{"--map-key", "VEXALIVE_MAP_KEY", "the room's private map key, a secret text"},
                      RelayOption{"--app-id", "VEXALIVE_APP_ID", "the CDN app id, an integer that is not 0"},
                      RelayOption{"--biz-id", "VEXALIVE_BIZ_ID", "the CDN biz id, an integer that is not 0"}),
    [](const auto& instance) {
        std::string name;
        for (const char c : std::string(instance.param.variable)) {
            name += c == '_' ? "" : std::string(1, c);
        }
        return name;
    });

struct WrongValue {
    const char* option;
    const char* value;
};

void PrintTo(const WrongValue& wrong, std::ostream* out) {
    *out << wrong.option << " " << wrong.value;
}

class EachWrongValue : public ::testing::TestWithParam<WrongValue> {};

TEST_P(EachWrongValue, IsShownWithTheRange) {
    Options options = goodOptions();
    options[GetParam().option] = GetParam().value;

    const Ran ran = runRelay(options);

    expectUsageError(ran, std::string(GetParam().option) + " is \"" + GetParam().value + "\": must be ");
    EXPECT_THAT(ran.errors, HasSubstr(" to 2147483647"));
}

INSTANTIATE_TEST_SUITE_P(Relay, EachWrongValue,
                         ::testing::Values(WrongValue{"--sdk-app-id", "0"}, WrongValue{"--sdk-app-id", "-1"},
                                           WrongValue{"--sdk-app-id", "2147483648"}, WrongValue{"--app-id", "0"},
                                           WrongValue{"--app-id", "12x"}, WrongValue{"--app-id", "-2147483649"},
                                           WrongValue{"--biz-id", "0"}, WrongValue{"--biz-id", " 1"},
                                           WrongValue{"--biz-id", "99999999999999999999"},
                                           WrongValue{"--biz-id", "1.5"}));

TEST(Usage, NamesTheVariableThatAWrongValueCameFrom) {
    Options options = goodOptions();
    options.erase("--biz-id");

    const Ran ran = runRelay(options, "rtmp://cdn.example/live", {{"VEXALIVE_BIZ_ID", "none"}});

    expectUsageError(ran, "--biz-id (from VEXALIVE_BIZ_ID) is \"none\": must be the CDN biz id");
}

TEST(Usage, AsksForAnAddress) {
    expectUsageError(run({"relay"}), "URL is missing: where the stream is relayed to");
}

TEST(Usage, WantsAnAddressWithAScheme) {
    for (const char* url : {"cdn.example/live", "://cdn.example", "rtmp://", "rt mp://cdn.example"}) {
        expectUsageError(runRelay(goodOptions(), url), std::string("URL is \"") + url + "\": must be an address");
    }
}

TEST(Usage, WantsAFileOfAuthoritiesThatCanBeRead) {
    Options options = goodOptions();
    options["--ca-file"] = "/nonexistent/ca.pem";

    expectUsageError(runRelay(options), "--ca-file is \"/nonexistent/ca.pem\": must be a file that can be read");
}

TEST(Usage, SuggestsTheOptionThatWasMeant) {
    expectUsageError(run({"relay", "rtmp://x/y", "--bizid", "1"}),
                     "there is no option --bizid; did you mean --biz-id?");
}

TEST(Usage, ShowsNoValueOfAMisspeltOption) {
    expectUsageError(run({"relay", "rtmp://x/y", "--sgi", kSecret}), "there is no option --sgi; did you mean --sig?");
    expectUsageError(run({"relay", "rtmp://x/y", std::string("--mapkey=") + kSecret}),
                     "there is no option --mapkey; did you mean --map-key?");
    expectUsageError(run({"relay", "rtmp://x/y", std::string("--sig") + kSecret}), "there is no option --sig...;");
    expectUsageError(run({"relay", "rtmp://x/y", kSecret}), "too many arguments, by 1");
}

TEST(Usage, NamesAnOptionThatLacksItsValue) {
    expectUsageError(run({"relay", "rtmp://x/y", "--user"}), "--user");
}

TEST(Usage, NamesAnOptionGivenTwice) {
    expectUsageError(run({"relay", "rtmp://x/y", "--sig", kSecret, "--sig", kSecret}), "--sig");
}

TEST(Usage, SuggestsTheCommandThatWasMeant) {
    expectUsageError(run({"relai"}), "vexalive: there is no command \"relai\"; did you mean relay?");
}

TEST(Usage, WithoutACommandTheHelpGoesToStandardError) {
    expectUsageError(run({}), "Commands:");
}

TEST(Usage, OfServeIsCheckedBeforeItListens) {
    expectUsageError(run({"serve", "--port", "65536"}), "--port is \"65536\": must be an integer from 0");
    expectUsageError(run({"serve", "--fault", "sttus=503"}), "did you mean status?");
    expectUsageError(run({"serve", "--fault", "status=1000"}), "--fault status=1000: ");
}

TEST(Help, OfEachCommandShowsAnExampleAndTheExitStatuses) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--help"}, {"relay", "--help"}, {"serve", "--help"}}) {
        const Ran ran = run(arguments);
        EXPECT_EQ(ran.status, 0);
        EXPECT_EQ(ran.errors, "");
        EXPECT_THAT(ran.output, HasSubstr("\nExample: "));
        EXPECT_THAT(ran.output, HasSubstr("\nExit status: "));
    }
}

TEST(Help, FitsATerminalOfEightyColumns) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--help"}, {"relay", "--help"}, {"serve", "--help"}}) {
        std::string text = run(arguments).output;
        while (!text.empty()) {
            const std::string line = text.substr(0, text.find('\n'));
            EXPECT_LE(line.size(), 80u) << line;
            text.erase(0, line.size() + 1);
        }
    }
}

TEST(Help, OfRelayTellsWhySecretsBelongIntoTheEnvironment) {
    const Ran ran = run({"relay", "--help"});
    EXPECT_THAT(ran.output, HasSubstr("A command line can be read by\nevery user of this machine"));
    EXPECT_THAT(ran.output, HasSubstr("VEXALIVE_SIG"));
}

TEST(Version, IsOneLine) {
    const Ran ran = run({"--version"});
    EXPECT_EQ(ran.status, 0);
    EXPECT_THAT(ran.output, ::testing::MatchesRegex("vexalive [0-9]+[.][0-9]+[.][0-9]+\n"));
}

}  // namespace
