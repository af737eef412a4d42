#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "tools/ServiceResponse.h"

namespace {

using namespace vexalive;
using ::testing::HasSubstr;

TEST(ReadAnswer, FindsCodeAndMessageUnderEitherPairOfNames) {
    const ServiceAnswer first = readAnswer(0, R"({"code":7,"message":"busy"})");
    EXPECT_EQ(first.code, 7);
    EXPECT_EQ(first.message, "busy");
    const ServiceAnswer second = readAnswer(0, R"({"ErrorCode":8,"ErrorInfo":"full"})");
    EXPECT_EQ(second.code, 8);
    EXPECT_EQ(second.message, "full");
}

TEST(ReadAnswer, PrefersCodeAsTheAdapterDoes) {
    EXPECT_EQ(readAnswer(0, R"({"ErrorCode":8,"code":0})").code, 0);
}

TEST(ReadAnswer, TellsEmptyUnreadableAndVerdictless) {
    EXPECT_TRUE(readAnswer(0, "").isEmpty);
    EXPECT_FALSE(readAnswer(0, "").isVerdictMissing());
    EXPECT_FALSE(readAnswer(0, "<html>").isReadable);
    EXPECT_FALSE(readAnswer(0, "null").isReadable);
    EXPECT_TRUE(readAnswer(0, "{}").isVerdictMissing());
    EXPECT_TRUE(readAnswer(0, "[1]").isVerdictMissing());
    EXPECT_FALSE(readAnswer(404, "{}").isVerdictMissing());
}

TEST(ReadAnswer, TellsTheHttpStatusWhereTheReturnCodeIsOne) {
    EXPECT_EQ(readAnswer(404, "").httpStatus, 404);
    EXPECT_EQ(readAnswer(0, "").httpStatus, std::nullopt);
    EXPECT_EQ(readAnswer(1, "").httpStatus, std::nullopt);
    EXPECT_EQ(readAnswer(1, "", 503).httpStatus, 503);
    EXPECT_EQ(readAnswer(1060, "").httpStatus, std::nullopt);
}

TEST(ReadAnswer, OnlyAWholeAnswerWithACodeOtherThanZeroIsARefusal) {
    EXPECT_TRUE(readAnswer(0, R"({"code":-5})").isRefusal());
    EXPECT_FALSE(readAnswer(0, R"({"code":0})").isRefusal());
    EXPECT_FALSE(readAnswer(1, R"({"code":5})").isRefusal());
    EXPECT_FALSE(readAnswer(0, "{}").isRefusal());
}

TEST(DescribeAnswer, PutsWhatCameBackIntoWords) {
    EXPECT_EQ(describe(readAnswer(0, R"({"code":0,"message":"ok"})")), "accepted (code 0: \"ok\")");
    EXPECT_EQ(describe(readAnswer(0, R"({"code":0})")), "accepted (code 0)");
    EXPECT_EQ(describe(readAnswer(0, R"({"code":9,"message":"no"})")), "refused (code 9: \"no\")");
    EXPECT_EQ(describe(readAnswer(0, "")), "the answer is empty");
    EXPECT_EQ(describe(readAnswer(0, "garbage")), "the answer cannot be read: it is not JSON");
    EXPECT_EQ(describe(readAnswer(0, "{}")), "the answer holds no code");
    EXPECT_THAT(describe(readAnswer(1, "")), HasSubstr("(return code 1)"));
    EXPECT_THAT(describe(readAnswer(1, "", 503)), HasSubstr("HTTP status 503"));
    EXPECT_THAT(describe(readAnswer(1, R"({"code":3,"message":"later"})")), HasSubstr("; refused (code 3: \"later\")"));
    EXPECT_EQ(describe(readAnswer(418, "x")), "HTTP status 418 (return code 418)");
    EXPECT_THAT(describe(readAnswer(1060, R"({"transportError":"certificate"})")),
                HasSubstr("(return code 1060: certificate)"));
}

TEST(DescribeListener, ExplainsEachKindOfCode) {
    const auto words = [](int code) { return describe(kRelayListenerCodes, {code, "m"}); };
    EXPECT_EQ(words(0), "listener code 0 (success), message \"m\"");
    EXPECT_THAT(words(-3321), HasSubstr("transport error"));
    EXPECT_THAT(words(-3323), HasSubstr("empty or unreadable"));
    EXPECT_THAT(words(-200505), HasSubstr("refused with its code 505"));
    EXPECT_THAT(words(17), HasSubstr("unknown"));
}

TEST(ServiceCode, IsThereOnlyForARefusal) {
    EXPECT_EQ(serviceCode(kRelayListenerCodes, -200001), 1);
    EXPECT_EQ(serviceCode(kRelayListenerCodes, -200000), std::nullopt);
    EXPECT_EQ(serviceCode(kRelayListenerCodes, -3321), std::nullopt);
    EXPECT_EQ(serviceCode(kRelayListenerCodes, std::numeric_limits<int>::min()), 2147283648);
}

TEST(Conclude, GoesByTheLastThingTold) {
    EXPECT_EQ(conclude(kRelayListenerCodes, {{0, ""}}), kSucceeded);
    EXPECT_EQ(conclude(kRelayListenerCodes, {{-200001, ""}}), kRefused);
    EXPECT_EQ(conclude(kRelayListenerCodes, {{-3321, ""}}), kNoAnswer);
    EXPECT_EQ(conclude(kRelayListenerCodes, {{-3323, "recv message nil"}, {-3323, "recv message can't parse"}}),
              kNoAnswer);
    EXPECT_EQ(conclude(kRelayListenerCodes, {}), kNoAnswer);
}

}  // namespace
