// Usage errors: each message names the wrong argument, and no request is sent.

#include <array>

#include "ToolTest.h"

namespace {

constexpr const char* kSecret = "a-very-secret-text";

Variables goodOptions() {
    return {{"--sdk-app-id", "1400000001"}, {"--user", "alice"},  {"--sig", kSecret},  {"--room", "4711"},
            {"--map-key", kSecret},         {"--app-id", "1250"}, {"--biz-id", "3891"}};
}

ToolResult runRelay(const Variables& options, const std::string& url = "rtmp://cdn.example/live/main",
                    const Variables& environment = {}) {
    std::vector<std::string> arguments = {"relay", url};
    for (const auto& [option, value] : options) {
        arguments.insert(arguments.end(), {option, value});
    }
    return runTool(arguments, environment);
}

void expectUsageError(const ToolResult& result, const std::string& text) {
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, HasSubstr(text));
    EXPECT_THAT(result.errors, Not(HasSubstr(kSecret)));
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
        Variables options = goodOptions();
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
        Variables options = goodOptions();
        options[option] = value;
        const ToolResult result = runRelay(options);
        expectUsageError(result, std::string(option) + " is \"" + value + "\": must be ");
        EXPECT_THAT(result.errors, HasSubstr(" to 2147483647"));
    }
}

TEST(Usage, ShowsAWrongUrlFileOrVariable) {
    for (const char* url : {"cdn.example/live", "://cdn.example", "rtmp://", "rt mp://cdn.example"}) {
        expectUsageError(runRelay(goodOptions(), url), std::string("URL is \"") + url + "\": must be a URL");
    }
    Variables options = goodOptions();
    options["--ca-file"] = "/nonexistent/ca.pem";
    expectUsageError(runRelay(options), "--ca-file is \"/nonexistent/ca.pem\": must be a readable file");
    options = goodOptions();
    options.erase("--biz-id");
    expectUsageError(runRelay(options, "rtmp://cdn.example/live", {{"VEXALIVE_BIZ_ID", "none"}}),
                     "--biz-id (from VEXALIVE_BIZ_ID) is \"none\": must be the CDN biz id");
}

TEST(Usage, ShowsWhatIsWrongButNoSecret) {
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{}, "Commands:"},
        {{"relai"}, "vexalive: unknown command \"relai\"; did you mean relay?"},
        {{"relay"}, "URL is missing: the address to relay to"},
        {{"relay", "rtmp://x/y", "--bizid", "1"}, "unknown option --bizid; did you mean --biz-id?"},
        {{"relay", "rtmp://x/y", "--sgi", kSecret}, "unknown option --sgi; did you mean --sig?"},
        {{"relay", "rtmp://x/y", std::string("--mapkey=") + kSecret}, "unknown option --mapkey; did you mean"},
        {{"relay", "rtmp://x/y", std::string("--sig") + kSecret}, "unknown option --sig...;"},
        {{"relay", "rtmp://x/y", kSecret}, "1 unexpected argument. Quote values that contain spaces."},
        {{"relay", "rtmp://x/y", "--user"}, "--user"},
        {{"relay", "rtmp://x/y", "--sig", kSecret, "--sig", kSecret}, "--sig"},
        {{"mix", "m.json", "--relay", "cdn.example"}, "vexalive mix: --relay is \"cdn.example\": must be a URL with"},
        {{"mix", "m.json", "--watch", "--detach"}, "--watch and --detach exclude each other"},
        {{"preview", "a.json", "b.json"}, "1 unexpected argument: b.json. Quote values"},
        {{"serve", "--port", "65536"}, "--port is \"65536\": must be an integer from 0"},
        {{"serve", "--console-port", "http"}, "--console-port is \"http\": must be an integer from 0"},
        {{"serve", "--fault", "sttus=503"}, "found \"sttus\", must be delay, status"},
        {{"serve", "--fault", "status=1000"}, "--fault status=1000: "},
        {{"serve", "--origin", "rtmp://127.0.0.1:1"}, "--origin needs --media"},
        {{"stream-id", "--biz-id", "1", "--room", "r"}, "--user is missing"},
        {{"stream-id", "--biz-id", "0", "--room", "r", "--user", "u"}, "--biz-id is \"0\""},
    };
    for (const auto& [arguments, error] : cases) {
        expectUsageError(runTool(arguments), error);
    }
}

TEST(Help, EachCommandShowsAnExampleAndExitStatusesInEightyColumns) {
    for (const char* command : {"", "relay", "mix", "preview", "serve", "stream-id"}) {
        const ToolResult result = *command ? runTool({command, "--help"}) : runTool({"--help"});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.errors, "");
        EXPECT_THAT(result.output, HasSubstr("\nExample:"));
        EXPECT_THAT(result.output, HasSubstr("\nExit status: "));
        EXPECT_THAT(result.output, Not(::testing::ContainsRegex("[^\n]{81}")));
    }
}

TEST(Help, RelayExplainsWhySecretsBelongInTheEnvironment) {
    EXPECT_THAT(runTool({"relay", "--help"}).output,
                HasSubstr("Every user of this machine can\nread command lines: set VEXALIVE_SIG"));
}

TEST(Version, IsOneLine) {
    const ToolResult result = runTool({"--version"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, ::testing::MatchesRegex("vexalive [0-9]+[.][0-9]+[.][0-9]+\n"));
}

}  // namespace
