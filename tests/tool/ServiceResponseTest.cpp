#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "tools/ServiceResponse.h"

namespace {

using namespace vexalive;
using ::testing::HasSubstr;

constexpr requests::ListenerCodes kCodes = requests::kRelay.codes;

TEST(ParseResponse, FindsCodeAndMessageUnderEitherPairOfNames) {
    const ServiceResponse first = parseResponse(0, R"({"code":7,"message":"busy"})");
    EXPECT_EQ(first.code, 7);
    EXPECT_EQ(first.message, "busy");
    const ServiceResponse second = parseResponse(0, R"({"ErrorCode":8,"ErrorInfo":"full"})");
    EXPECT_EQ(second.code, 8);
    EXPECT_EQ(second.message, "full");
}

TEST(ParseResponse, PrefersCodeAsTheAdapterDoes) {
    EXPECT_EQ(parseResponse(0, R"({"ErrorCode":8,"code":0})").code, 0);
}

TEST(ParseResponse, DistinguishesEmptyUnreadableAndWithoutCode) {
    EXPECT_TRUE(parseResponse(0, "").isEmpty);
    EXPECT_FALSE(parseResponse(0, "").isCodeMissing());
    EXPECT_FALSE(parseResponse(0, "<html>").isReadable);
    EXPECT_FALSE(parseResponse(0, "null").isReadable);
    EXPECT_TRUE(parseResponse(0, "{}").isCodeMissing());
    EXPECT_TRUE(parseResponse(0, "[1]").isCodeMissing());
    EXPECT_FALSE(parseResponse(404, "{}").isCodeMissing());
}

TEST(ParseResponse, HasTheHttpStatusIfTheReturnCodeIsOne) {
    EXPECT_EQ(parseResponse(404, "").httpStatus, 404);
    EXPECT_EQ(parseResponse(0, "").httpStatus, std::nullopt);
    EXPECT_EQ(parseResponse(1, "").httpStatus, std::nullopt);
    EXPECT_EQ(parseResponse(1, "", 503).httpStatus, 503);
    EXPECT_EQ(parseResponse(1060, "").httpStatus, std::nullopt);
}

TEST(ParseResponse, OnlyAWholeResponseWithANonzeroCodeIsARefusal) {
    EXPECT_TRUE(parseResponse(0, R"({"code":-5})").isRefusal());
    EXPECT_FALSE(parseResponse(0, R"({"code":0})").isRefusal());
    EXPECT_FALSE(parseResponse(1, R"({"code":5})").isRefusal());
    EXPECT_FALSE(parseResponse(0, "{}").isRefusal());
}

TEST(DescribeResponse, CoversEachResult) {
    EXPECT_EQ(describe(parseResponse(0, R"({"code":0,"message":"ok"})")), "accepted (code 0: \"ok\")");
    EXPECT_EQ(describe(parseResponse(0, R"({"code":0})")), "accepted (code 0)");
    EXPECT_EQ(describe(parseResponse(0, R"({"code":9,"message":"no"})")), "refused (code 9: \"no\")");
    EXPECT_EQ(describe(parseResponse(0, "")), "the response is empty");
    EXPECT_EQ(describe(parseResponse(0, "garbage")), "the response is not JSON");
    EXPECT_EQ(describe(parseResponse(0, "{}")), "the response has no code");
    EXPECT_THAT(describe(parseResponse(1, "")), HasSubstr("(return code 1)"));
    EXPECT_THAT(describe(parseResponse(1, "", 503)), HasSubstr("HTTP status 503"));
    EXPECT_THAT(describe(parseResponse(1, R"({"code":3,"message":"later"})")),
                HasSubstr("; refused (code 3: \"later\")"));
    EXPECT_EQ(describe(parseResponse(418, "x")), "HTTP status 418 (return code 418)");
    EXPECT_THAT(describe(parseResponse(1060, R"({"transportError":"certificate"})")),
                HasSubstr("(return code 1060: certificate)"));
}

TEST(DescribeListener, ExplainsEachKindOfCode) {
    const auto describeCode = [](int code) { return describe(kCodes, {code, "m"}); };
    EXPECT_EQ(describeCode(0), "listener code 0 (success), message \"m\"");
    EXPECT_THAT(describeCode(-3321), HasSubstr("transport error"));
    EXPECT_THAT(describeCode(-3323), HasSubstr("empty or unreadable"));
    EXPECT_THAT(describeCode(-200505), HasSubstr("refused with code 505"));
    EXPECT_THAT(describeCode(17), HasSubstr("unknown"));
}

TEST(ServiceCode, ExistsOnlyForARefusal) {
    EXPECT_EQ(serviceCode(kCodes, -200001), 1);
    EXPECT_EQ(serviceCode(kCodes, -200000), std::nullopt);
    EXPECT_EQ(serviceCode(kCodes, -3321), std::nullopt);
    EXPECT_EQ(serviceCode(kCodes, std::numeric_limits<int>::min()), 2147283648);
}

TEST(ExitStatusOf, DependsOnTheLastNotification) {
    EXPECT_EQ(exitStatusOf(kCodes, {{0, ""}}), kSucceeded);
    EXPECT_EQ(exitStatusOf(kCodes, {{-3323, ""}, {0, ""}}), kSucceeded);
    EXPECT_EQ(exitStatusOf(kCodes, {{-200001, ""}}), kRefused);
    EXPECT_EQ(exitStatusOf(kCodes, {{-3321, ""}}), kNoResponse);
    EXPECT_EQ(exitStatusOf(kCodes, {{-3323, "recv message nil"}, {-3323, "recv message can't parse"}}), kNoResponse);
    EXPECT_EQ(exitStatusOf(kCodes, {}), kNoResponse);
}

}  // namespace
