// Runs the `vexalive` tool as a child process. The service runs in the process of the test.

#ifndef VEXALIVE_TESTS_TOOL_TOOL_TEST_H
#define VEXALIVE_TESTS_TOOL_TOOL_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "service/Fault.h"
#include "service/LiveService.h"
#include "support/ChildProcess.h"
#include "support/Poll.h"
#include "support/ServiceTesting.h"

inline constexpr const char* kSig = "secret-signature";
inline constexpr const char* kMapKey = "secret-map-key";

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using Variables = std::map<std::string, std::string>;

struct ToolResult {
    int status;
    std::string output;
    std::string errors;
};

// Runs the tool to its end. Of the VEXALIVE_ variables, the tool gets only those in `environment`; the default service
// is a port that refuses connections.
inline ToolResult runTool(std::vector<std::string> arguments, Variables environment = {}) {
    for (const char* name :
         {"SDK_APP_ID", "USER", "SIG", "ROOM", "MAP_KEY", "APP_ID", "BIZ_ID", "CA_FILE", "PUSH_DOMAIN"}) {
        environment.emplace(std::string("VEXALIVE_") + name, "");
    }
    environment.emplace("VEXALIVE_SERVICE_HOST", "127.0.0.1:9");
    arguments.insert(arguments.begin(), VEXALIVE_TOOL);
    ChildProcess tool(arguments, environment);
    const int status = tool.awaitExit();
    return {status, tool.output(), tool.errors()};
}

// Starts a service for each test.
class ToolTest : public ::testing::Test {
protected:
    // `command`: the first arguments of every run.
    explicit ToolTest(std::vector<std::string> command) : mArguments(std::move(command)) {}
    ~ToolTest() override {
        for (const char* secret : {kSig, kMapKey}) {
            EXPECT_THAT(mTool ? mTool->output() + mTool->errors() : "", Not(HasSubstr(secret)));
        }
    }

    Variables environment() {
        return {{"VEXALIVE_SERVICE_HOST", mService->address()},
                {"VEXALIVE_CA_FILE", mService->caFile()},
                {"VEXALIVE_SDK_APP_ID", "1400000001"},
                {"VEXALIVE_USER", "alice"},
                {"VEXALIVE_SIG", kSig},
                {"VEXALIVE_ROOM", "4711"},
                {"VEXALIVE_MAP_KEY", kMapKey},
                {"VEXALIVE_APP_ID", "1250"},
                {"VEXALIVE_BIZ_ID", "3891"},
                {"VEXALIVE_PUSH_DOMAIN", servicetesting::kSuffix},
                {"TERM", "xterm"}};
    }

    // `fault`: in the format of the option --fault.
    void injectFault(const std::string& fault) {
        const auto parsed = vexalive::parseFaultOption(fault);
        ASSERT_TRUE(parsed && mService->inject(*parsed)) << fault;
    }

    nlohmann::json state() const { return mService.state(); }
    size_t relaysRunning() const { return state().at("relays").size(); }

    // Starts the tool; `arguments` follow the command. `variables` override environment().
    ChildProcess& start(const std::vector<std::string>& arguments = {}, Variables variables = {},
                        ChildProcess::Output output = ChildProcess::kPipes) {
        std::vector<std::string> all = {VEXALIVE_TOOL};
        all.insert(all.end(), mArguments.begin(), mArguments.end());
        all.insert(all.end(), arguments.begin(), arguments.end());
        const auto defaults = environment();
        variables.insert(defaults.begin(), defaults.end());
        mTool = std::make_unique<ChildProcess>(all, variables, output);
        return *mTool;
    }

    void expectInOrder(const std::vector<std::string>& texts) const {
        size_t at = 0;
        for (const std::string& text : texts) {
            const size_t found = mTool->output().find(text, at);
            ASSERT_NE(found, std::string::npos) << text << " is missing after\n" << mTool->output().substr(at);
            at = found + text.size() - 1;  // the line break at the end may also begin the next string
        }
    }

    std::vector<std::string> mArguments;
    const servicetesting::TemporaryFolder mFolder;
    servicetesting::RunningService mService;
    std::unique_ptr<ChildProcess> mTool;
};

// The output of `--json`: one object for each line.
inline std::vector<nlohmann::json> objects(const std::string& output) {
    std::vector<nlohmann::json> result;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        result.push_back(nlohmann::json::parse(line));
    }
    return result;
}

using Fields = std::map<std::string, std::set<std::string>>;

// The documented fields of each event that relays and mixes have in common, together with `more`.
inline Fields taskFields(Fields more) {
    more.insert(
        {{"attempt", {"task", "request", "attempt", "of", "interface", "bytes"}},
         {"response",
          {"task", "request", "attempt", "of", "returnCode", "meaning", "httpStatus", "code", "message",
           "milliseconds"}},
         {"retry", {"task", "request", "attempt", "of", "waitMilliseconds"}},
         {"outcome", {"task", "request", "success", "attempts", "outcome", "listener"}},
         {"report", {"task", "request", "sdkAppId", "roomUser", "reportType", "reportEvent", "information", "detail"}},
         {"holding", {"task"}},
         {"stopping", {"task", "why"}},
         {"end", {"exitStatus"}}});
    return more;
}

// Returns the events in the output of `--json`. Expects each line to have exactly the documented fields of its event,
// "event" and "time".
inline std::vector<std::string> checkedEvents(const std::string& output, const Fields& documented) {
    std::vector<std::string> events;
    for (const nlohmann::json& object : objects(output)) {
        events.push_back(object.at("event"));
        std::set<std::string> fields = documented.at(events.back());
        fields.insert({"event", "time"});
        std::set<std::string> found;
        for (const auto& field : object.items()) {
            found.insert(field.key());
        }
        EXPECT_EQ(found, fields) << object;
    }
    return events;
}

#endif
