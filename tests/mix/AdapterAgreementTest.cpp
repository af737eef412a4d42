// What the tool says of a mix, against what the adapter does with it.

#include <gmock/gmock.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "Com/LiveTranscodingAdapter.h"
#include "FakePlatform.h"
#include "VirtualTime.h"
#include "tests/mix/MixTesting.h"
#include "tools/mix/MixJudgement.h"
#include "tools/mix/SentMix.h"

namespace vexalive {

class Listener : public ILiveTrancodingDelegate {
public:
    void onStartPublishStreamUrl(int errCode, std::string) override { refusals += errCode == -3324; }
    void onStopPublishStreamUrl(int, std::string) override { ++others; }
    void onSetLiveMixTranscoding(int, std::string) override { ++others; }
    void onStopLiveMixTranscoding(int, std::string) override { ++others; }

    int refusals = 0;
    int others = 0;
};

TEST(AdapterAgreementTest, TheAdapterRefusesAndSendsWhatTheToolSaysItDoes) {
    const auto listener = std::make_shared<Listener>();
    const auto adapter = std::make_shared<LiveTranscodingAdapter>();
    adapter->setLiveTranscodingDelegate(listener);
    adapter->updateUserInfo(1400000001, "signature", "alice");
    adapter->updateEnterRoomInfo("4711", "key");
    VirtualTime::runDue();

    std::mt19937 chance(11);
    int refused = 0;
    int sent = 0;
    for (int round = 0; round < 5000; ++round) {
        const Config config = randomMix(chance);
        SCOPED_TRACE(config.to_string());
        FakePlatform::instance().reset();
        *listener = Listener();

        adapter->setLiveMixTranscoding(config);
        VirtualTime::runDue();

        const auto& requests = FakePlatform::instance().requests;
        if (isRefused(judgeMix(config))) {
            ++refused;
            ASSERT_EQ(listener->refusals, 1);
            ASSERT_TRUE(requests.empty());
            continue;
        }
        ++sent;
        ASSERT_EQ(listener->refusals + listener->others, 0);
        ASSERT_EQ(requests.size(), 1U);
        const auto body = nlohmann::json::parse(requests[0].body);
        ASSERT_EQ(body["output_param"]["output_stream_id"], streamId(config.bizId, "4711", "alice", false));
        auto bodyInputs = body["input_stream_list"];
        ASSERT_EQ(bodyInputs[0]["input_stream_id"] == "canvas1", !isAudioOnly(config));
        if (!isAudioOnly(config)) {
            bodyInputs.erase(0);
        }
        const std::vector<SentInput> inputs = sentInputs(config, "4711");
        ASSERT_EQ(bodyInputs.size(), inputs.size());
        for (size_t i = 0; i < inputs.size(); ++i) {
            ASSERT_EQ(bodyInputs[i]["input_stream_id"], inputs[i].streamId);
            ASSERT_EQ(bodyInputs[i]["layout_params"]["image_layer"], inputs[i].imageLayer);
            ASSERT_EQ(bodyInputs[i]["layout_params"]["location_x"], config.mixUsersArray[inputs[i].index].rect.x);
        }
    }
    EXPECT_GT(refused, 1000);
    EXPECT_GT(sent, 1000);
}

}  // namespace vexalive
