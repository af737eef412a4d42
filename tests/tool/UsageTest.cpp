// Usage errors: each message names what is wrong, and nothing is sent.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <map>
#include <sstream>
#include <string>
#include <utility>
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

TEST(Usage, RequiresEachRelayOption) {
    const std::array<std::string, 3> cases[] = {
        {"--sdk-app-id", "VEXALIVE_SDK_APP_ID", "the SDK application id, a positive integer"},
        {"--user", "VEXALIVE_USER", "the id of the local user"},
        {"--sig", "VEXALIVE_SIG", "the user's signature, a secret"},
        {"--room", "VEXALIVE_ROOM", "the id of the room that the user has entered"},
        {"--map-key", "VEXALIVE_MAP_KEY", "the room's private map key, a secret"},
        {"--app-id", "VEXALIVE_APP_ID", "the CDN app id, an integer other than 0"},
        {"--biz-id", "VEXALIVE_BIZ_ID", "the CDN biz id, an integer other than 0"},
    };
    for (const auto& [option, variable, meaning] : cases) {
        Options options = goodOptions();
        options[option] = "";
        expectUsageError(runRelay(options), option + " is empty: must be " + meaning);
        options.erase(option);
        expectUsageError(runRelay(options),
                         "vexalive relay: " + option + " is missing: must be " + meaning + " (or " + variable + ")");
    }
}

TEST(Usage, ShowsAWrongNumberWithItsRange) {
    const std::pair<const char*, const char*> cases[] = {
        {"--sdk-app-id", "0"}, {"--sdk-app-id", "-1"}, {"--sdk-app-id", "2147483648"},
        {"--app-id", "0"},     {"--app-id", "12x"},    {"--app-id", "-2147483649"},
        {"--biz-id", "0"},     {"--biz-id", " 1"},     {"--biz-id", "99999999999999999999"},
        {"--biz-id", "1.5"},
    };
    for (const auto& [option, value] : cases) {
        Options options = goodOptions();
        options[option] = value;
        const Ran ran = runRelay(options);
        expectUsageError(ran, std::string(option) + " is \"" + value + "\": must be ");
        EXPECT_THAT(ran.errors, HasSubstr(" to 2147483647"));
    }
}

TEST(Usage, NamesTheVariableOfAWrongValue) {
    Options options = goodOptions();
    options.erase("--biz-id");

    const Ran ran = runRelay(options, "rtmp://cdn.example/live", {{"VEXALIVE_BIZ_ID", "none"}});

    expectUsageError(ran, "--biz-id (from VEXALIVE_BIZ_ID) is \"none\": must be the CDN biz id");
}

TEST(Usage, RequiresAnAddressWithAScheme) {
    expectUsageError(run({"relay"}), "URL is missing: the address to relay to");
    for (const char* url : {"cdn.example/live", "://cdn.example", "rtmp://", "rt mp://cdn.example"}) {
        expectUsageError(runRelay(goodOptions(), url), std::string("URL is \"") + url + "\": must be a URL");
    }
}

TEST(Usage, RequiresAReadableCaFile) {
    Options options = goodOptions();
    options["--ca-file"] = "/nonexistent/ca.pem";

    expectUsageError(runRelay(options), "--ca-file is \"/nonexistent/ca.pem\": must be a readable file");
}

TEST(Usage, NamesUnknownArgumentsButNoSecret) {
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"--bizid", "1"}, "unknown option --bizid; did you mean --biz-id?"},
        {{"--sgi", kSecret}, "unknown option --sgi; did you mean --sig?"},
        {{std::string("--mapkey=") + kSecret}, "unknown option --mapkey; did you mean --map-key?"},
        {{std::string("--sig") + kSecret}, "unknown option --sig...;"},
        {{kSecret}, "1 unexpected argument. Quote values that contain spaces."},
        {{"--user"}, "--user"},
        {{"--sig", kSecret, "--sig", kSecret}, "--sig"},
    };
    for (const auto& [extra, error] : cases) {
        std::vector<std::string> arguments = {"relay", "rtmp://x/y"};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        expectUsageError(run(arguments), error);
    }
    expectUsageError(run({"preview", "a.json", "b.json"}), "1 unexpected argument: b.json. Quote values");
    expectUsageError(run({"relai"}), "vexalive: unknown command \"relai\"; did you mean relay?");
}

TEST(Usage, WithoutACommandTheHelpGoesToStandardError) {
    expectUsageError(run({}), "Commands:");
}

TEST(Usage, OfServeIsCheckedBeforeItListens) {
    expectUsageError(run({"serve", "--port", "65536"}), "--port is \"65536\": must be an integer from 0");
    expectUsageError(run({"serve", "--fault", "sttus=503"}), "found \"sttus\", must be delay, status");
    expectUsageError(run({"serve", "--fault", "status=1000"}), "--fault status=1000: ");
}

TEST(Help, OfEachCommandHasAnExampleAndExitStatusesInEightyColumns) {
    for (const char* command : {"", "relay", "mix", "preview", "serve", "stream-id"}) {
        const Ran ran = *command ? run({command, "--help"}) : run({"--help"});
        EXPECT_EQ(ran.status, 0);
        EXPECT_EQ(ran.errors, "");
        EXPECT_THAT(ran.output, HasSubstr("\nExample:"));
        EXPECT_THAT(ran.output, HasSubstr("\nExit status: "));
        std::istringstream lines(ran.output);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), 80u) << line;
        }
    }
}

TEST(Help, OfRelayExplainsWhySecretsBelongIntoTheEnvironment) {
    const Ran ran = run({"relay", "--help"});
    EXPECT_THAT(ran.output, HasSubstr("Every user of this machine can\nread command lines: set VEXALIVE_SIG"));
}

TEST(Version, IsOneLine) {
    const Ran ran = run({"--version"});
    EXPECT_EQ(ran.status, 0);
    EXPECT_THAT(ran.output, ::testing::MatchesRegex("vexalive [0-9]+[.][0-9]+[.][0-9]+\n"));
}

}  // namespace
