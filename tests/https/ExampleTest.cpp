// Runs the example programs against the local service and checks their output and their requests.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "base/Md5.h"
#include "service/LiveService.h"
#include "support/ChildProcess.h"

namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;
using vexalive::Fault;
using vexalive::LiveService;

constexpr const char* kAddRelay = "add_relay_stream_url";
constexpr const char* kRemoveRelay = "remove_relay_stream_url";
constexpr const char* kSetMix = "set_live_mix_transcoding";

std::string streamIdOf(const std::string& user) {
    return "8888_" + kstmedia::getMD5("room_" + user + "_main");
}

class Example : public testing::Test {
protected:
    Example() { EXPECT_TRUE(mService.start()); }
    ~Example() override { std::filesystem::remove_all(mFolder); }

    // Runs a program to its end and returns its exit status.
    int run(const std::vector<std::string>& arguments) {
        ChildProcess program(arguments, {{"VEXALIVE_SERVICE_HOST", mService.address()},
                                         {"VEXALIVE_CA_FILE", mService.caFile()},
                                         {"VEXALIVE_PUSH_DOMAIN", kPushDomain}});
        const int status = program.awaitExit();
        mOutput = program.output();
        mErrors = program.errors();
        mState = json::parse(mService.stateJson());
        return status;
    }

    void injectRefusals(const char* interfaceName, int times) {
        Fault refusal;
        refusal.kind = Fault::Kind::kCode;
        refusal.interfaceName = interfaceName;
        refusal.count = times;
        refusal.code = 77;
        EXPECT_TRUE(mService.inject(refusal));
    }

    // The interface and the response code of each request, in the order of the responses.
    std::vector<std::pair<std::string, int>> requests() const {
        std::vector<std::pair<std::string, int>> all;
        for (const json& request : mState.at("requests")) {
            const json response = json::parse(request.at("response").get<std::string>());
            all.emplace_back(request.at("interface"), response.at("code"));
        }
        return all;
    }

    std::string mOutput;
    std::string mErrors;
    json mState;

private:
    static constexpr const char* kPushDomain = "livepush.vexa.example";

    vexalive::LiveServiceOptions options() const {
        vexalive::LiveServiceOptions result;
        result.stateFolder = mFolder;
        result.pushDomainSuffix = kPushDomain;
        return result;
    }

    const std::filesystem::path mFolder =
        std::filesystem::temp_directory_path() / ("vexalive-example-test-" + std::to_string(getpid()));
    LiveService mService{options()};
};

TEST_F(Example, RelayIsAddedAndRemoved) {
    EXPECT_EQ(0, run({EXAMPLE_RELAY, "rtmp://cdn.example/live/stream"})) << mErrors;
    EXPECT_EQ("0 sucess\n0 sucess\n", mOutput);
    EXPECT_THAT(requests(), ElementsAre(Pair(kAddRelay, 0), Pair(kRemoveRelay, 0)));
    const json body = json::parse(mState.at("requests").at(0).at("body").get<std::string>());
    EXPECT_EQ(streamIdOf("alice"), body.at("stream_id"));
    EXPECT_EQ("rtmp://cdn.example/live/stream", body.at("dest_stream_url"));
    EXPECT_THAT(mState.at("relays"), IsEmpty());
}

TEST_F(Example, RelayExitsWithOneIfItIsRefused) {
    injectRefusals(kAddRelay, 1);
    EXPECT_EQ(1, run({EXAMPLE_RELAY, "rtmp://cdn.example/live/stream"}));
    EXPECT_EQ("-200077 on request\n", mOutput);
    EXPECT_THAT(requests(), ElementsAre(Pair(kAddRelay, 77)));
}

TEST_F(Example, RelayExitsWithOneWithoutAnAddress) {
    EXPECT_EQ(1, run({EXAMPLE_RELAY}));
    EXPECT_EQ("-3323 startPublishStreamUrl failure, param is invalid\n", mOutput);
    EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(Example, RoomStartsRelayAndMixBeforeTheRoomIsEnteredAndStopsBoth) {
    EXPECT_EQ(0, run({EXAMPLE_ROOM})) << mErrors;

    const auto all = requests();
    ASSERT_EQ(5u, all.size()) << mOutput;
    const auto begin = all.begin();
    EXPECT_THAT(std::vector(begin, begin + 2), UnorderedElementsAre(Pair(kAddRelay, 0), Pair(kSetMix, 0)));
    EXPECT_THAT(all[2], Pair(kSetMix, 0));
    EXPECT_THAT(std::vector(begin + 3, all.end()), UnorderedElementsAre(Pair(kSetMix, 0), Pair(kRemoveRelay, 0)));
    EXPECT_THAT(mState.at("relays"), IsEmpty());

    ASSERT_EQ(1u, mState.at("mixes").size());
    const json& mix = mState.at("mixes").at(0);
    EXPECT_EQ(streamIdOf("alice"), mix.at("output_stream_id"));
    EXPECT_EQ(false, mix.at("running"));
    std::vector<std::pair<std::string, int>> history;
    for (const json& update : mix.at("history")) {
        history.emplace_back(update.at("operation"), update.at("inputs"));
    }
    EXPECT_THAT(history, ElementsAre(Pair("start", 3), Pair("update", 2), Pair("cancel", testing::_)));

    EXPECT_EQ(json({{"width", 1280}, {"height", 720}, {"color", "0x000000"}}), mix.at("canvas"));
    const auto half = [](const char* user, int layer, int x) {
        return json{{"stream_id", streamIdOf(user)},
                    {"type", "video"},
                    {"layer", layer},
                    {"x", x},
                    {"y", 0},
                    {"width", 640},
                    {"height", 720}};
    };
    EXPECT_EQ(json::array({half("alice", 2, 0), half("bob", 3, 640)}), mix.at("inputs"));
    EXPECT_EQ(json({{"output_stream_bitrate", 1500}, {"output_stream_frame_rate", 15}}), mix.at("output"));

    // Standard output lists the steps. Standard error has the SDK's log lines of the two requests that were deferred.
    const std::string steps[] = {
        "alice requests a relay and a mix of three; both wait until she has entered the room\n"
        "alice enters the room: both are sent\n",
        "carol leaves: the mix shows alice and bob\n",
        "alice ends the mix and the relay\n",
    };
    size_t at = 0;
    for (const std::string& step : steps) {
        at = mOutput.find(step, at);
        ASSERT_NE(std::string::npos, at) << step << "is missing in\n" << mOutput;
    }
    for (const char* outcome :
         {"  relay: done\n", "  mix: done\n", "  end of the relay: done\n", "  end of the mix: done\n"}) {
        EXPECT_THAT(mOutput, HasSubstr(outcome));
    }
    EXPECT_THAT(mErrors, testing::ContainsRegex("not enterRoom status(.|\n)*not enterRoom status"));
}

TEST_F(Example, RoomExitsWithOneIfTheMixIsRefusedAndStopsTheRelay) {
    injectRefusals(kSetMix, 1);
    EXPECT_EQ(1, run({EXAMPLE_ROOM}));
    EXPECT_THAT(mOutput, HasSubstr("  mix: failed with -300077, on request\n"));
    EXPECT_THAT(mOutput, HasSubstr("  relay: done\n"));
    EXPECT_THAT(mOutput, HasSubstr("  end of the relay: done\n"));
    EXPECT_THAT(requests(), UnorderedElementsAre(Pair(kAddRelay, 0), Pair(kSetMix, 77), Pair(kRemoveRelay, 0),
                                                 Pair(kSetMix, 4007)));  // there is no mix to cancel
    EXPECT_THAT(mState.at("relays"), IsEmpty());
}

TEST_F(Example, RoomExitsWithOneIfTheRelayIsRefusedAndStopsTheMix) {
    injectRefusals(kAddRelay, 1);
    EXPECT_EQ(1, run({EXAMPLE_ROOM}));
    EXPECT_THAT(mOutput, HasSubstr("  relay: failed with -200077, on request\n"));
    ASSERT_EQ(1u, mState.at("mixes").size());
    EXPECT_EQ(false, mState.at("mixes").at(0).at("running"));
    EXPECT_EQ("cancel", mState.at("mixes").at(0).at("history").back().at("operation"));
}

}  // namespace
