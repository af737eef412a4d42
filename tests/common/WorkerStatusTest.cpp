#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "common/WorkerStatus.h"

using namespace vexalive;
using nlohmann::json;

namespace {

json stream(const std::string& state, const std::string& error, uint64_t number) {
    return {{"state", state},       {"error", error},        {"bytes", number},
            {"frames", number + 1}, {"dropped", number + 2}, {"reconnects", number + 3}};
}

json sample() {
    json input = stream("reconnecting", "no data", 10);
    input["stream_id"] = "7_ab";
    json status = stream("running", "", 1);
    status["inputs"] = json::array({input});
    return status;
}

}  // namespace

TEST(WorkerStatusJson, IsReadAsItIsWritten) {
    const std::optional<WorkerStatus> status = parseWorkerStatus(sample());
    ASSERT_TRUE(status);
    EXPECT_EQ(WorkerState::kRunning, status->output.state);
    EXPECT_EQ(3u, status->output.dropped);
    ASSERT_EQ(1u, status->inputs.size());
    EXPECT_EQ("7_ab", status->inputs[0].streamId);
    EXPECT_EQ(WorkerState::kReconnecting, status->inputs[0].stream.state);
    EXPECT_EQ("no data", status->inputs[0].stream.error);
    EXPECT_EQ(13u, status->inputs[0].stream.reconnects);
    EXPECT_EQ(sample(), json(toJson(*status)));
}

TEST(WorkerStatusJson, IsMalformedWhereAValueIsMissingOrOfAnotherType) {
    const json whole = sample();
    for (const auto& item : whole.items()) {
        json status = whole;
        status.erase(item.key());
        EXPECT_FALSE(parseWorkerStatus(status)) << "without " << item.key();
    }
    const std::pair<const char*, json> wrong[] = {{"/state", "sleeping"},
                                                  {"/state", 1},
                                                  {"/error", 1},
                                                  {"/inputs", 7},
                                                  {"/inputs/0", "x"},
                                                  {"/inputs/0/state", "?"},
                                                  {"/inputs/0/stream_id", 1}};
    for (const auto& [path, value] : wrong) {
        json status = sample();
        status[json::json_pointer(path)] = value;
        EXPECT_FALSE(parseWorkerStatus(status)) << path << " = " << value;
    }
    EXPECT_FALSE(parseWorkerStatus("running"));
}

TEST(WorkerStatusJson, IsBounded) {
    json status = sample();
    status["error"] = std::string(499, 'x') + "é";
    status["bytes"] = -1;
    EXPECT_EQ(std::string(499, 'x'), parseWorkerStatus(status)->output.error);
    EXPECT_EQ(0u, parseWorkerStatus(status)->output.bytes);
    status["inputs"] = json::array();
    for (int i = 0; i < 33; ++i) {
        status["inputs"].push_back(sample()["inputs"][0]);
    }
    EXPECT_FALSE(parseWorkerStatus(status));
    status["inputs"].erase(0);
    EXPECT_TRUE(parseWorkerStatus(status));
}
