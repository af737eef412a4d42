// The evaluation of responses: retries, and the listener calls for the final response.

#include <algorithm>
#include <limits>

#include "FlowTest.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pointwise;
using ::testing::SizeIs;

MATCHER(HasCode, "") {
    return std::get<0>(arg).code == std::get<1>(arg);
}

class ResponseTest : public KindTest {
protected:
    static constexpr int kLowest = std::numeric_limits<int>::min();
    using Codes = std::vector<int>;

    void SetUp() override {
        givenInRoom();
        begin(start());
        respondOk();
    }

    // Gives each response to a request and its retries. Expects the listener calls of the oracle, with these codes.
    void expectCalls(int retCode, const std::vector<std::string>& responses, bool isRetried, const Codes& codes) {
        for (const std::string& response : responses) {
            SCOPED_TRACE(std::to_string(retCode) + ' ' + response);
            clearRecords();
            begin(kind());
            respondToAll(retCode, response);
            EXPECT_THAT(requests(), SizeIs(isRetried ? 11 : 1));
            EXPECT_EQ(notified(), oracle::evaluate(kind(), retCode, response).notifications);
            EXPECT_THAT(notified(), Pointwise(HasCode(), codes));
            ASSERT_THAT(reports(), SizeIs(1));
            EXPECT_THAT(reports()[0].detail,
                        EndsWith("]retCode:" + std::to_string(retCode) + ", respData:" + response.c_str()));
        }
    }

    Codes serverError(int c) const { return {static_cast<int>(rulesOf(kind()).serverBase - c)}; }
    Codes transportError() const { return {rulesOf(kind()).transportCode}; }
    Codes unreadable() const { return {rulesOf(kind()).unreadableCode}; }
    bool isRetriedCode(int c) const {
        const std::vector<int>& retried = rulesOf(kind()).retried;
        return std::find(retried.begin(), retried.end(), c) != retried.end();
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, ResponseTest, kAllKinds, nameOfKind);

TEST_P(ResponseTest, TransportErrorIsRetriedForReturnCodeOneOrWithAnUnreadableBodyOrARetriedCode) {
    expectCalls(1, {"", "not json", R"({"code":0})", R"({"code":7,"message":"m"})", "[]"}, true, transportError());
    for (const int retCode : {2, -1, 301, 404, 1028, kLowest, std::numeric_limits<int>::max()}) {
        expectCalls(retCode, {R"({"code":0})"}, false, transportError());
    }
    expectCalls(404, {"", "<html>404</html>", "null", "{\"code\":"}, true, transportError());
    for (const int c : {1, 505}) {
        expectCalls(404, {"{\"code\":" + std::to_string(c) + "}"}, isRetriedCode(c), transportError());
    }
}

TEST_P(ResponseTest, EmptyResponseIsRetriedAndInTheEndNotifiedTwice) {
    expectCalls(0, {""}, true, {unreadable()[0], unreadable()[0]});
}

TEST_P(ResponseTest, UnreadableResponseIsRetriedAndInTheEndNotifiedOnce) {
    const std::vector<std::string> responses = {
        "not json",
        "null",
        " null ",
        " ",
        "{",
        "{\"code\":0",
        "{\"code\":0}}",
        "{\"code\":0},",
        "{'code':0}",
        "{\"code\":01}",
        "{\"code\":1e400}",
        "{\"code\":NaN}",
        "{\"message\":\"\xff\",\"code\":0}",
        "{\"message\":\"\xc0\x80\",\"code\":0}",
        "{\"message\":\"\xed\xa0\x80\",\"code\":0}",
        "{\"message\":\"a\tb\",\"code\":0}",
        std::string("\0{\"code\":0}", 11),
        std::string("{\0\"code\":0}", 11),
        std::string("{\"code\":0,\"message\":\"\0\"}", 24),
        std::string("{\"code\":0}\0", 11),
        std::string("{\"code\":0}\0{", 12),
        std::string(1, '\0'),
        "<html>\x80</html>",
        "\xff\xfe",
    };
    expectCalls(0, responses, true, unreadable());
}

// ---- Codes ----------------------------------------------------------------------------------------------------------

TEST_P(ResponseTest, CodeZeroIsSuccessWithAFixedMessageAndErrorCodeZeroWithAnEmptyOne) {
    expectCalls(0,
                {R"({"code":0})", R"({"code":0,"message":"other"})", R"({"code":0,"ErrorCode":9})",
                 R"( {"a":[1,{}], "code" : -0 } )"},
                false, {0});
    for (const char* code : {"0", "-0", "0.0", "0.9", "-0.9", "1e-300", R"("0")", R"("-0")", R"("000")", "false"}) {
        expectCalls(0, {std::string("{\"code\":") + code + "}"}, false, {0});
    }
    expectCalls(0, {R"({"ErrorCode":0})", R"({"ErrorCode":0,"ErrorInfo":"info","message":"m"})"}, false, {0});
}

TEST_P(ResponseTest, CodeComesBeforeErrorCodeAndEachHasItsOwnMessage) {
    expectCalls(0,
                {R"({"ErrorCode":0,"ErrorInfo":"info","code":7,"message":"m"})", R"({"ErrorCode":505,"code":7})",
                 R"({"ErrorCode":1,"code":7})", R"({"code":7})", R"({"code":7,"ErrorInfo":"info"})"},
                false, serverError(7));
    expectCalls(0, {R"({"ErrorCode":9})", R"({"ErrorCode":9,"message":"m"})"}, false, serverError(9));
}

TEST_P(ResponseTest, RetriedServerCodesAreTheKindsOwnWhateverTheirSignAndKey) {
    for (const int c : {1, 2, 3, 4, 7, 9, 504, 505, 506, 1001, 10016, 10017, 10018}) {
        for (const std::string& number : {std::to_string(c), std::to_string(-c)}) {
            expectCalls(0,
                        {"{\"code\":" + number + R"(,"message":"m","ErrorInfo":"x"})",
                         "{\"ErrorCode\":" + number + R"(,"message":"x","ErrorInfo":"m"})"},
                        isRetriedCode(c), serverError(c));
        }
    }
}

TEST_P(ResponseTest, ReadableResponseWithoutACodeIsNeitherRetriedNorNotifiedButReported) {
    expectCalls(0,
                {"{}", R"({"message":"m"})", R"({"Code":0,"errorcode":1})", "[]", R"([{"code":0}])", "5", "0", "1.5",
                 "true", "false", "\"code\"", R"({"a":{"code":505}})"},
                false, {});
}

TEST_P(ResponseTest, CodeOfAnotherTypeIsReadAsAnIntegerAndNeverAsSuccess) {
    const std::pair<const char*, int> cases[] = {
        {R"("505")", 505}, {R"("-505")", 505},   {R"("3")", 3},   {R"("7")", 7},  {"1.5", 1},
        {"-1.9", 1},       {"505.0", 505},       {"null", 1},     {"[]", 1},      {"[0]", 1},
        {"{}", 1},         {R"({"code":0})", 1}, {"true", 1},     {R"("")", 1},   {R"("-")", 1},
        {R"("x")", 1},     {R"("0x")", 1},       {R"("0.5")", 1}, {R"(" 0")", 1}, {R"("\u0000")", 1},
    };
    for (const auto& [code, c] : cases) {
        expectCalls(0, {std::string("{\"code\":") + code + "}", std::string("{\"ErrorCode\":") + code + "}"},
                    isRetriedCode(c), serverError(c));
    }
}

TEST_P(ResponseTest, CodeThatWouldExceedTheRangeIsNotifiedAsTheLowest) {
    for (const char* code : {"-2147483648", "2147483647", "2147483648", "99999999999", "-99999999999",
                             "9223372036854775808", "18446744073709551615", "99999999999999999999999", "1e300",
                             "-1e300", R"("99999999999")", R"("-99999999999999999999999999999")"}) {
        expectCalls(0, {std::string(R"({"message":"far","code":)") + code + "}"}, false, {kLowest});
    }
    const int64_t largest = rulesOf(kind()).serverBase - kLowest;
    expectCalls(0, {R"({"code":)" + std::to_string(largest) + "}"}, false, {kLowest});
    expectCalls(0, {R"({"code":)" + std::to_string(largest - 1) + "}"}, false, {kLowest + 1});
}

TEST_P(ResponseTest, MessageIsNotifiedAsItStandsOrAsItsJsonAndNullAsEmpty) {
    const std::string longMessage(5000, 'm');
    const std::pair<std::string, std::string> cases[] = {
        {R"("full, \"quoted\" é 中 %d %s \\")", "full, \"quoted\" é 中 %d %s \\"},
        {R"("a\u0000b")", std::string("a\0b", 3)},
        {'"' + longMessage + '"', longMessage},
        {"null", ""},
        {"5", "5"},
        {"true", "true"},
        {R"({ "b": 1, "a": [] })", R"({"a":[],"b":1})"}};
    for (const auto& [message, expected] : cases) {
        expectCalls(0, {R"({"code":7,"message":)" + message + "}"}, false, serverError(7));
        EXPECT_EQ(notified().at(0).message, expected);
    }
}

// ---- Hostile responses ----------------------------------------------------------------------------------------------

class HostileResponseTest : public FlowTest {};

TEST_F(HostileResponseTest, DeepNestingIsUnreadableEvenWhenClosedOrBesideACode) {
    const std::string depth = std::string(1'000'000, '[') + std::string(1'000'000, ']');
    std::string objects;
    for (int i = 0; i < 100'000; ++i) {
        objects += R"({"a":)";
    }
    for (const std::string& response :
         {std::string(10'000'000, '['), depth, R"({"code":0,"message":)" + depth + "}", objects}) {
        clearRecords();
        givenSent(kAddRelay);

        respond(0, response);

        EXPECT_EQ(VirtualTime::delayedTasks(), 1u);
        EXPECT_THAT(notified(), IsEmpty());
        VirtualTime::runUntilQuiet();
        respondOk();
    }
}

TEST_F(HostileResponseTest, LongResponseIsReportedWhole) {
    const std::string response = R"({"code":7,"message":")" + std::string(1 << 20, 'm') + "\"}";
    givenSent(kRemoveRelay);

    respond(0, response);

    EXPECT_EQ(notified().at(0).message->size(), size_t{1} << 20);
    EXPECT_EQ(reports().at(0).detail, traceSegment(0, 0, response));
    EXPECT_THAT(log().back().text, HasSubstr(response));
}
