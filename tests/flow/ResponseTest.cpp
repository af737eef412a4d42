// Evaluating responses: what is retried, and what the listener is notified at the end.

#include <cstdlib>
#include <limits>

#include "FlowTest.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class ResponseTest : public FlowTest, public ::testing::WithParamInterface<Kind> {
protected:
    static constexpr int kLowest = std::numeric_limits<int>::min();

    void SetUp() override {
        givenInRoom();
        begin(GetParam().isRelay ? kAddRelay : kStartMix);
        respondOk();
    }

    // Sends a request, gives it and its retries the same response, and returns whether it was retried.
    bool isRetried(int retCode, const std::string& reply) {
        clearRecords();
        begin(GetParam());
        respondToAll(retCode, reply);
        EXPECT_THAT(requests(), testing::AnyOf(SizeIs(1), SizeIs(11))) << retCode << ' ' << reply;
        EXPECT_THAT(reports(), SizeIs(1)) << retCode << ' ' << reply;
        return requests().size() == 11;
    }

    Notified call(int code, const std::string& message) const { return {GetParam().operation, code, message}; }
    Notified serverError(int c, const std::string& message) const {
        return call(GetParam().serverBase - std::abs(c), message);
    }
    Notified transportError(int retCode) const {
        return call(GetParam().transportCode, "http post return error\xef\xbc\x8c retcode:" + std::to_string(retCode));
    }
    Notified unreadable(const std::string& message) const { return call(GetParam().unreadableCode, message); }

    bool isRetriedCode(int c) const {
        switch (GetParam().client) {
            case 0:
                return c == 1;
            case 2:
                return c == 3 || c == 505 || c == 10017;
            default:
                return false;
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, ResponseTest, ::testing::Values(kAddRelay, kRemoveRelay, kStartMix, kCancelMix),
                         nameOfKind);

// ---- Transport ------------------------------------------------------------------------------------------------------

TEST_P(ResponseTest, ReturnCodeOneIsRetriedWhateverTheBody) {
    for (const char* reply : {"", "not json", R"({"code":0})", R"({"code":7,"message":"m"})", "[]"}) {
        EXPECT_TRUE(isRetried(1, reply)) << reply;
        EXPECT_THAT(notified(), ElementsAre(transportError(1)));
    }
}

TEST_P(ResponseTest, OtherReturnCodeWithAReadableBodyIsAnErrorAtOnce) {
    for (const int retCode : {2, -1, 301, 404, 1028, kLowest, std::numeric_limits<int>::max()}) {
        EXPECT_FALSE(isRetried(retCode, R"({"code":0})")) << retCode;
        EXPECT_THAT(notified(), ElementsAre(transportError(retCode)));
    }
}

TEST_P(ResponseTest, TransportErrorIsNotifiedWithThisText) {
    isRetried(2, R"({"code":0})");

    EXPECT_EQ(notified().at(0).message, "http post return error\xef\xbc\x8c retcode:2");
}

TEST_P(ResponseTest, OtherReturnCodeWithAnEmptyOrUnreadableBodyIsRetried) {
    for (const char* reply : {"", "<html>404</html>", "null", "{\"code\":"}) {
        EXPECT_TRUE(isRetried(404, reply)) << reply;
        EXPECT_THAT(notified(), ElementsAre(transportError(404)));
    }
}

TEST_P(ResponseTest, OtherReturnCodeWithARetriedServerCodeIsRetried) {
    for (const int c : {1, 505}) {
        EXPECT_EQ(isRetried(404, "{\"code\":" + std::to_string(c) + "}"), isRetriedCode(c));
        EXPECT_THAT(notified(), ElementsAre(transportError(404)));
    }
}

// ---- Empty and unreadable -------------------------------------------------------------------------------------------

TEST_P(ResponseTest, EmptyResponseIsRetriedAndInTheEndNotifiedTwice) {
    EXPECT_TRUE(isRetried(0, ""));
    EXPECT_THAT(notified(), ElementsAre(unreadable("recv message nil"), unreadable("recv message can't parse")));
}

TEST_P(ResponseTest, UnreadableResponseIsRetriedAndInTheEndNotifiedOnce) {
    const std::string replies[] = {
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
        std::string(1, '\0'),
        "<html>\x80</html>",
        "\xff\xfe",
    };
    for (const std::string& reply : replies) {
        EXPECT_TRUE(isRetried(0, reply)) << reply;
        EXPECT_THAT(notified(), ElementsAre(unreadable("recv message can't parse"))) << reply;
    }
}

// ---- Codes ----------------------------------------------------------------------------------------------------------

TEST_P(ResponseTest, CodeZeroIsTheSuccessMessage) {
    for (const char* reply : {R"({"code":0})", R"({"code":0,"message":"other"})", R"({"code":0,"ErrorCode":9})",
                              R"( {"a":[1,{}], "code" : -0 } )"}) {
        EXPECT_FALSE(isRetried(0, reply)) << reply;
        EXPECT_THAT(notified(), ElementsAre(call(0, "sucess"))) << reply;
    }
}

TEST_P(ResponseTest, ErrorCodeZeroIsSuccessWithAnEmptyMessage) {
    for (const char* reply : {R"({"ErrorCode":0})", R"({"ErrorCode":0,"ErrorInfo":"info","message":"m"})"}) {
        EXPECT_FALSE(isRetried(0, reply)) << reply;
        EXPECT_THAT(notified(), ElementsAre(call(0, ""))) << reply;
    }
}

TEST_P(ResponseTest, ServerCodeIsTakenOffTheBaseWhateverItsSign) {
    EXPECT_FALSE(isRetried(0, R"({"code":7,"message":"busy"})"));
    EXPECT_THAT(notified(), ElementsAre(call(GetParam().serverBase - 7, "busy")));
    EXPECT_FALSE(isRetried(0, R"({"code":-7,"message":"busy"})"));
    EXPECT_THAT(notified(), ElementsAre(call(GetParam().serverBase - 7, "busy")));
    EXPECT_FALSE(isRetried(0, R"({"ErrorCode":9,"ErrorInfo":"bad"})"));
    EXPECT_THAT(notified(), ElementsAre(call(GetParam().serverBase - 9, "bad")));
    EXPECT_FALSE(isRetried(0, R"({"ErrorCode":-9,"ErrorInfo":"bad"})"));
    EXPECT_THAT(notified(), ElementsAre(call(GetParam().serverBase - 9, "bad")));
}

TEST_P(ResponseTest, MessageOfAServerErrorIsThatOfItsOwnPairOrEmpty) {
    isRetried(0, R"({"code":7})");
    EXPECT_THAT(notified(), ElementsAre(serverError(7, "")));
    isRetried(0, R"({"code":7,"ErrorInfo":"info"})");
    EXPECT_THAT(notified(), ElementsAre(serverError(7, "")));
    isRetried(0, R"({"ErrorCode":9})");
    EXPECT_THAT(notified(), ElementsAre(serverError(9, "")));
    isRetried(0, R"({"ErrorCode":9,"message":"m"})");
    EXPECT_THAT(notified(), ElementsAre(serverError(9, "")));
}

TEST_P(ResponseTest, CodeComesBeforeErrorCode) {
    EXPECT_FALSE(isRetried(0, R"({"ErrorCode":0,"ErrorInfo":"info","code":7,"message":"m"})"));
    EXPECT_THAT(notified(), ElementsAre(serverError(7, "m")));
    EXPECT_FALSE(isRetried(0, R"({"ErrorCode":505,"code":7})"));
    EXPECT_FALSE(isRetried(0, R"({"ErrorCode":1,"code":7})"));
}

TEST_P(ResponseTest, RetriedServerCodesAreTheKindsOwnWhateverTheirSignAndKey) {
    for (const int c : {1, 2, 3, 4, 504, 505, 506, 1001, 10016, 10017, 10018}) {
        for (const int sign : {1, -1}) {
            for (const char* key : {"code", "ErrorCode"}) {
                const std::string reply = "{\"" + std::string(key) + "\":" + std::to_string(sign * c) +
                                          ",\"message\":\"m\",\"ErrorInfo\":\"m\"}";
                EXPECT_EQ(isRetried(0, reply), isRetriedCode(c)) << reply;
                EXPECT_THAT(notified(), ElementsAre(serverError(c, "m"))) << reply;
            }
        }
    }
}

TEST_P(ResponseTest, ReadableResponseWithoutACodeIsNeitherRetriedNorNotifiedButReported) {
    for (const char* reply : {"{}", R"({"message":"m"})", R"({"Code":0,"errorcode":1})", "[]", R"([{"code":0}])", "5",
                              "0", "1.5", "true", "false", "\"code\"", R"({"a":{"code":505}})"}) {
        EXPECT_FALSE(isRetried(0, reply)) << reply;
        EXPECT_THAT(notified(), IsEmpty()) << reply;
        EXPECT_THAT(reports().at(0).detail, testing::EndsWith(std::string("]retCode:0, respData:") + reply));
    }
}

// ---- Codes that are no plain integers -------------------------------------------------------------------------------

TEST_P(ResponseTest, CodeOfAnotherTypeIsReadAsAnIntegerAndNeverAsSuccess) {
    const std::pair<const char*, int> cases[] = {
        {R"("505")", 505}, {R"("-505")", 505},   {R"("3")", 3},   {R"("7")", 7},  {"1.5", 1},
        {"-1.9", 1},       {"505.0", 505},       {"null", 1},     {"[]", 1},      {"[0]", 1},
        {"{}", 1},         {R"({"code":0})", 1}, {"true", 1},     {R"("")", 1},   {R"("-")", 1},
        {R"("x")", 1},     {R"("0x")", 1},       {R"("0.5")", 1}, {R"(" 0")", 1}, {R"("\u0000")", 1},
    };
    for (const auto& [code, c] : cases) {
        for (const char* key : {"code", "ErrorCode"}) {
            const std::string reply = "{\"" + std::string(key) + "\":" + code + "}";
            EXPECT_EQ(isRetried(0, reply), isRetriedCode(c)) << reply;
            EXPECT_THAT(notified(), ElementsAre(serverError(c, ""))) << reply;
        }
    }
}

TEST_P(ResponseTest, CodeThatReadsAsZeroIsSuccess) {
    for (const char* code : {"0", "-0", "0.0", "0.9", "-0.9", "1e-300", R"("0")", R"("-0")", R"("000")", "false"}) {
        EXPECT_FALSE(isRetried(0, std::string("{\"code\":") + code + "}")) << code;
        EXPECT_THAT(notified(), ElementsAre(call(0, "sucess"))) << code;
    }
}

TEST_P(ResponseTest, CodeThatWouldExceedTheRangeIsNotifiedAsTheLowest) {
    for (const char* code : {"-2147483648", "2147483647", "2147483648", "99999999999", "-99999999999",
                             "9223372036854775808", "18446744073709551615", "99999999999999999999999", "1e300",
                             "-1e300", R"("99999999999")", R"("-99999999999999999999999999999")"}) {
        EXPECT_FALSE(isRetried(0, std::string(R"({"message":"far","code":)") + code + "}")) << code;
        EXPECT_THAT(notified(), ElementsAre(call(kLowest, "far"))) << code;
    }
}

TEST_P(ResponseTest, LargestCodeThatFitsTheRangeIsNotifiedExactly) {
    const int64_t largest = int64_t{GetParam().serverBase} - kLowest;
    isRetried(0, R"({"code":)" + std::to_string(largest) + "}");
    EXPECT_THAT(notified(), ElementsAre(call(kLowest, "")));
    isRetried(0, R"({"code":)" + std::to_string(largest - 1) + "}");
    EXPECT_THAT(notified(), ElementsAre(call(kLowest + 1, "")));
}

TEST_P(ResponseTest, MessageIsNotifiedAsItStands) {
    isRetried(0, R"({"code":7,"message":"full, \"quoted\" é 中 %d %s \\"})");
    EXPECT_THAT(notified(), ElementsAre(serverError(7, "full, \"quoted\" é 中 %d %s \\")));
    isRetried(0, R"({"code":7,"message":"a\u0000b"})");
    EXPECT_THAT(notified(), ElementsAre(serverError(7, std::string("a\0b", 3))));
    const std::string longMessage(5000, 'm');
    isRetried(0, R"({"code":7,"message":")" + longMessage + "\"}");
    EXPECT_THAT(notified(), ElementsAre(serverError(7, longMessage)));
}

TEST_P(ResponseTest, MessageThatIsNoStringIsNotifiedAsItsJsonAndNullAsEmpty) {
    const std::pair<const char*, const char*> cases[] = {
        {"null", ""}, {"5", "5"}, {"true", "true"}, {R"({ "b": 1, "a": [] })", R"({"a":[],"b":1})"}};
    for (const auto& [message, text] : cases) {
        isRetried(0, std::string(R"({"code":7,"message":)") + message + "}");
        EXPECT_THAT(notified(), ElementsAre(serverError(7, text)));
    }
}

// ---- Hostile responses
// ------------------------------------------------------------------------------------------------

class HostileResponseTest : public FlowTest {};

TEST_F(HostileResponseTest, TenMillionOpenBracketsAreAnUnreadableResponse) {
    givenSent(kStartMix);

    failAndWaitForRetry();
    respond(0, std::string(10'000'000, '['));

    EXPECT_EQ(VirtualTime::delayedTasks(), 1u);
    EXPECT_THAT(notified(), IsEmpty());
}

TEST_F(HostileResponseTest, DeepNestingIsUnreadableEvenWhenClosedOrBesideACode) {
    const std::string depth = std::string(1'000'000, '[') + std::string(1'000'000, ']');
    std::string objects;
    for (int i = 0; i < 100'000; ++i) {
        objects += R"({"a":)";
    }
    const std::string replies[] = {depth, R"({"code":0,"message":)" + depth + "}", objects};
    for (const std::string& reply : replies) {
        clearRecords();
        givenSent(kAddRelay);

        respond(0, reply);

        EXPECT_EQ(VirtualTime::delayedTasks(), 1u);
        EXPECT_THAT(notified(), IsEmpty());
        VirtualTime::runUntilQuiet();
        respondOk();
    }
}

TEST_F(HostileResponseTest, ZeroByteBehindAnResponseMakesItUnreadable) {
    for (const std::string& reply : {std::string("{\"code\":0}\0", 11), std::string("{\"code\":0}\0{", 12)}) {
        clearRecords();
        givenSent(kStartMix);

        respond(0, reply);

        EXPECT_EQ(VirtualTime::delayedTasks(), 1u);
        EXPECT_THAT(notified(), IsEmpty());
        VirtualTime::runUntilQuiet();
    }
}

TEST_F(HostileResponseTest, LongResponseIsReportedWhole) {
    const std::string reply = R"({"code":7,"message":")" + std::string(1 << 20, 'm') + "\"}";
    givenSent(kRemoveRelay);

    respond(0, reply);

    EXPECT_EQ(notified().at(0).message.size(), size_t{1} << 20);
    EXPECT_EQ(reports().at(0).detail, traceSegment(0, 0, reply));
    EXPECT_THAT(log().back().text, HasSubstr(reply));
}
