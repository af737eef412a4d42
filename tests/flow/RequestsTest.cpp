// The functions of Com/LiveRequests.h that need no adapter.

#include <limits>

#include "Com/LiveRequests.h"
#include "FlowTest.h"

namespace requests = vexalive::requests;
using requests::MixUsersError;
using ::testing::StartsWith;

class RequestsTest : public FlowTest {};

TEST_F(RequestsTest, StreamIdIsTheBizIdAndTheDigestOfRoomUserAndKind) {
    EXPECT_EQ(requests::streamId(8888, "r1", "u1", false), "8888_1c55b79b354e05d157fe243e37be6d04");
    EXPECT_EQ(requests::streamId(8888, "room7", "alice", true), kAliceMain);
    EXPECT_EQ(requests::streamId(8888, std::string("room7\0x", 7), std::string("alice\0x", 7), true), kAliceMain);
}

TEST_F(RequestsTest, EvaluationFailsForTransportErrorsAndUnreadableResponsesOnly) {
    const std::tuple<int, const char*, int> cases[] = {{1, "", -1},
                                                       {-5, R"({"code":0})", -1},
                                                       {0, "", -1},
                                                       {0, "not json", -1},
                                                       {0, R"({"code":0})", 0},
                                                       {0, R"({"code":505})", 0},
                                                       {0, R"({"ErrorCode":0})", 0},
                                                       {0, R"({"ErrorCode":9})", 0},
                                                       {0, "{}", 0},
                                                       {0, "5", 0}};
    for (const int kind : {0, 1, 2, 3}) {
        for (const auto& [retCode, response, result] : cases) {
            EXPECT_EQ(requests::evaluate(retCode, response, kind).result, result) << retCode << response;
        }
    }
}

TEST_F(RequestsTest, NumberThatIsNoKindHasTheRelaysCodesAndRetriesNoServiceCode) {
    for (const int kind : {-1, 4, 5, 1000, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        EXPECT_EQ(requests::evaluate(2, "{}", kind).notifications.at(0).code, -3321);
        EXPECT_EQ(requests::evaluate(0, "", kind).notifications.at(0).code, -3323);
        EXPECT_EQ(requests::evaluate(0, R"({"code":7})", kind).notifications.at(0).code, -200007);
        for (const int code : {1, 3, 505, 10017}) {
            EXPECT_FALSE(requests::isRetried(0, "{\"code\":" + std::to_string(code) + "}", kind));
        }
        EXPECT_TRUE(requests::isRetried(1, "{}", kind));
        EXPECT_TRUE(requests::isRetried(0, "", kind));
    }
}

TEST_F(RequestsTest, EmptyListOfUsersIsRefusedInEveryMix) {
    EXPECT_EQ(requests::checkMixUsers({}, true).error, MixUsersError::kNoUsers);
    EXPECT_EQ(requests::checkMixUsers({}, false).error, MixUsersError::kNoUsers);
}

TEST_F(RequestsTest, DescriptionOfAnyIndexIsWhole) {
    EXPECT_THAT(requests::mixDescription(std::numeric_limits<int>::min(), {}, {}),
                StartsWith("task_id:-2147483648, pureAudioOutputStream:1, stream: {\"input_stream_list\":[],"));
}
