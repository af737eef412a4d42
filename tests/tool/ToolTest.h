// The `vexalive` tool as a child process, against a service in this one.

#ifndef VEXALIVE_TESTS_TOOL_TOOL_TEST_H
#define VEXALIVE_TESTS_TOOL_TOOL_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
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

inline constexpr const char* kSig = "secret-signature";
inline constexpr const char* kMapKey = "secret-map-key";

class ToolTest : public ::testing::Test {
protected:
    // `command`: the arguments of every run.
    explicit ToolTest(std::vector<std::string> command) : mArguments(std::move(command)) {
        std::string pattern = ::testing::TempDir() + "vexalive-tool-XXXXXX";
        mFolder = mkdtemp(pattern.data());
        vexalive::LiveServiceOptions options;
        options.stateFolder = mFolder;
        mService = std::make_unique<vexalive::LiveService>(options);
    }
    ~ToolTest() override {
        if (mTool) {
            EXPECT_THAT(mTool->output() + mTool->errors(), ::testing::Not(::testing::HasSubstr(kSig)));
            EXPECT_THAT(mTool->output() + mTool->errors(), ::testing::Not(::testing::HasSubstr(kMapKey)));
        }
        mTool.reset();
        mService.reset();
        std::filesystem::remove_all(mFolder);
    }

    void SetUp() override { ASSERT_TRUE(mService->start()); }

    std::map<std::string, std::string> environment() const {
        return {{"VEXALIVE_SERVICE_HOST", mService->address()},
                {"VEXALIVE_CA_FILE", mService->caFile()},
                {"VEXALIVE_SDK_APP_ID", "1400000001"},
                {"VEXALIVE_USER", "alice"},
                {"VEXALIVE_SIG", kSig},
                {"VEXALIVE_ROOM", "4711"},
                {"VEXALIVE_MAP_KEY", kMapKey},
                {"VEXALIVE_APP_ID", "1250"},
                {"VEXALIVE_BIZ_ID", "3891"},
                {"VEXALIVE_PUSH_DOMAIN", ""},
                {"TERM", "xterm"}};
    }

    // `fault` as after --fault.
    void injectFault(const std::string& fault) {
        const auto parsed = vexalive::parseFaultOption(fault);
        ASSERT_TRUE(parsed && mService->inject(*parsed)) << fault;
    }

    nlohmann::json state() const { return nlohmann::json::parse(mService->stateJson()); }
    size_t relaysRunning() const { return state().at("relays").size(); }

    // Starts the tool with further arguments. `variables` override environment().
    ChildProcess& start(const std::vector<std::string>& arguments = {},
                        std::map<std::string, std::string> variables = {},
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
            at = found + text.size() - 1;  // two texts may share a line break
        }
    }

    std::vector<std::string> mArguments;
    std::unique_ptr<ChildProcess> mTool;
    std::string mFolder;
    std::unique_ptr<vexalive::LiveService> mService;
};

// The lines of `--json`.
inline std::vector<nlohmann::json> objects(const std::string& output) {
    std::vector<nlohmann::json> result;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        result.push_back(nlohmann::json::parse(line));
    }
    return result;
}

// The events of `--json`. Expects in each line the documented fields of its event, "event" and "time", and no other.
inline std::vector<std::string> checkedEvents(const std::string& output,
                                              const std::map<std::string, std::set<std::string>>& documented) {
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
