// What the service does on request, as a client sees it on the wire.

#include <gtest/gtest.h>

#include <chrono>

#include "service/LiveService.h"
#include "support/ServiceTesting.h"

using namespace servicetesting;
using vexalive::Fault;
using vexalive::LiveServiceOptions;

namespace {

class OnRequest : public testing::Test {
protected:
    void ask(const json& fault) {
        const auto result = mClient->Post("/faults", fault.dump(), "application/json");
        ASSERT_TRUE(result);
        ASSERT_EQ(200, result->status) << result->body;
    }

    // The exchange as it is, also where it fails.
    httplib::Result exchange(const json& body = addRelayBody()) {
        return mClient->Post("/v3/liveinterface/" + interfaceOf(body) + "?" + kGoodQuery, body.dump(),
                             "application/json");
    }

    void expectTruthAgain() {
        const auto result = exchange();
        ASSERT_TRUE(result);
        EXPECT_EQ(200, result->status);
        EXPECT_EQ((json{{"code", 0}, {"message", "ok"}}), json::parse(result->body));
        EXPECT_EQ(1, mService.state()["relays"][0]["requests"]);  // the others were not carried out
    }

    RunningService mService;
    std::unique_ptr<httplib::Client> mClient = mService.client();
};

std::string answerOnPlainWire(const json& fault) {
    LiveServiceOptions options;
    options.tls = false;
    RunningService service(options);
    const auto client = service.client();
    EXPECT_TRUE(client->Post("/faults", fault.dump(), "application/json"));
    RawConnection connection(service->port());
    connection.send(
        rawRequest("POST", std::string("/v3/liveinterface/add_relay_stream_url?") + kGoodQuery, addRelayBody().dump()));
    return connection.readToEnd();
}

}  // namespace

TEST_F(OnRequest, AStatusWithAnEmptyBodyIsAnswered) {
    for (const int status : {200, 204, 404, 500, 503, 599}) {
        ask({{"kind", "status"}, {"status", status}});
        const auto result = exchange();
        ASSERT_TRUE(result) << status;
        EXPECT_EQ(status, result->status);
        EXPECT_EQ("", result->body);
        EXPECT_FALSE(result->has_header("Location"));
    }
    expectTruthAgain();
}

TEST_F(OnRequest, ARedirectNamesAPathThatWouldShowWhoFollowsIt) {
    ask({{"kind", "status"}, {"status", 301}});
    const auto result = exchange();
    ASSERT_TRUE(result);
    EXPECT_EQ(301, result->status);
    EXPECT_EQ("/redirected", result->get_header_value("Location"));
}

TEST_F(OnRequest, AnEmptyAnswerIsGiven) {
    ask({{"kind", "empty"}});
    const auto result = exchange();
    ASSERT_TRUE(result);
    EXPECT_EQ(200, result->status);
    EXPECT_EQ("0", result->get_header_value("Content-Length"));
    EXPECT_EQ("", result->body);
    expectTruthAgain();
}

TEST_F(OnRequest, GarbageIsNoJson) {
    ask({{"kind", "garbage"}});
    const auto result = exchange();
    ASSERT_TRUE(result);
    EXPECT_EQ(200, result->status);
    EXPECT_FALSE(result->body.empty());
    EXPECT_FALSE(json::accept(result->body));
    expectTruthAgain();
}

TEST_F(OnRequest, AHugeAnswerIsJsonOfExactlyTheSizeAskedFor) {
    for (const size_t size : {size_t{64}, size_t{1} << 20, size_t{5'000'001}}) {
        ask({{"kind", "huge"}, {"size", size}});
        const auto result = exchange();
        ASSERT_TRUE(result);
        EXPECT_EQ(size, result->body.size());
        EXPECT_EQ(0, json::parse(result->body)["code"]);
    }
    ask({{"kind", "huge"}});
    const auto result = exchange();
    ASSERT_TRUE(result);
    EXPECT_EQ(size_t{2} << 20, result->body.size());
    expectTruthAgain();
}

TEST_F(OnRequest, AServerCodeIsAnsweredUnderEitherPairOfKeys) {
    ask({{"kind", "server_code"}, {"code", -505}, {"message", "busy"}});
    ask({{"kind", "server_code"}, {"code", 10017}, {"message", "later"}, {"error_code_keys", true}});
    const auto first = exchange();
    const auto second = exchange();
    ASSERT_TRUE(first && second);
    EXPECT_EQ((json{{"code", -505}, {"message", "busy"}}), json::parse(first->body));
    EXPECT_EQ((json{{"ErrorCode", 10017}, {"ErrorInfo", "later"}}), json::parse(second->body));
    expectTruthAgain();
}

TEST_F(OnRequest, ADelayComesBeforeTheTrueAnswer) {
    ask({{"kind", "delay"}, {"delay_ms", 150}});
    const auto before = std::chrono::steady_clock::now();
    expectTruthAgain();
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(150));
}

TEST_F(OnRequest, ADelayMayComeBeforeAnotherFault) {
    ask({{"kind", "status"}, {"status", 502}, {"delay_ms", 150}});
    const auto before = std::chrono::steady_clock::now();
    const auto result = exchange();
    ASSERT_TRUE(result);
    EXPECT_EQ(502, result->status);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(150));
}

TEST(OnRequestPlain, ACutAnswerAnnouncesMoreThanItSends) {
    const std::string answer = answerOnPlainWire({{"kind", "cut"}});
    const size_t head = answer.find("\r\n\r\n");
    ASSERT_NE(std::string::npos, head) << answer;
    const size_t length = answer.find("Content-Length: ");
    ASSERT_LT(length, head) << answer;
    const size_t announced = std::stoul(answer.substr(length + 16));
    EXPECT_EQ(announced / 2, answer.size() - head - 4);
    EXPECT_GT(announced, 1u);
}

TEST(OnRequestPlain, ACloseSendsNothingAtAll) {
    EXPECT_EQ("", answerOnPlainWire({{"kind", "close"}}));
}

TEST_F(OnRequest, ACutAndACloseEndTheExchangeAndTheServiceGoesOn) {
    for (const char* kind : {"cut", "close"}) {
        ask({{"kind", kind}});
        EXPECT_FALSE(exchange()) << kind;
    }
    expectTruthAgain();
    EXPECT_EQ("close", mService.state()["requests"][1]["fault"]);
    EXPECT_EQ(0, mService.state()["requests"][1]["http_status"]);
}

TEST_F(OnRequest, FaultsApplyInOrderEachForItsRequests) {
    ask({{"kind", "status"}, {"status", 500}, {"times", 2}});
    ask({{"kind", "status"}, {"status", 502}, {"interface", "remove_relay_stream_url"}});
    ask({{"kind", "status"}, {"status", 503}, {"interface", "add_relay_stream_url"}, {"times", 0}});
    const json add = addRelayBody();
    const json remove = removeRelayBody();
    const std::pair<json, int> expected[] = {{add, 500}, {remove, 500}, {add, 503},   {remove, 502},
                                             {add, 503}, {add, 503},    {remove, 200}};
    for (const auto& [body, status] : expected) {
        const auto result = exchange(body);
        ASSERT_TRUE(result);
        EXPECT_EQ(status, result->status);
    }
    const json waiting = json::parse(mService->faultsJson())["waiting"];
    ASSERT_EQ(1u, waiting.size());
    EXPECT_EQ(503, waiting[0]["status"]);
}

TEST_F(OnRequest, WhatWaitsIsShownAndCleared) {
    ask({{"kind", "huge"}, {"size", 100}, {"times", 7}, {"delay_ms", 5}, {"interface", "set_live_mix_transcoding"}});
    const auto shown = mClient->Get("/faults");
    ASSERT_TRUE(shown);
    EXPECT_EQ((json{{"waiting",
                     {{{"kind", "huge"},
                       {"interface", "set_live_mix_transcoding"},
                       {"times", 7},
                       {"delay_ms", 5},
                       {"size", 100}}}}}),
              json::parse(shown->body));

    const auto cleared = mClient->Delete("/faults");
    ASSERT_TRUE(cleared);
    EXPECT_EQ(200, cleared->status);
    EXPECT_EQ("{\"waiting\":[]}", json::parse(mService->faultsJson()).dump());
}

TEST_F(OnRequest, AnInProcessCallDoesTheSame) {
    Fault fault;
    fault.kind = Fault::Kind::kStatus;
    fault.status = 429;
    EXPECT_EQ("", mService->inject(fault));
    const auto result = exchange();
    ASSERT_TRUE(result);
    EXPECT_EQ(429, result->status);

    fault.status = 99;
    EXPECT_EQ("status: found 99, must be an integer from 200 to 599", mService->inject(fault));
    fault.kind = Fault::Kind::kClose;  // which has no use for the status
    EXPECT_EQ("", mService->inject(fault));
    mService->clearFaults();
    expectTruthAgain();
}

TEST_F(OnRequest, ABadFaultIs400AndSaysWhy) {
    const struct {
        std::string body;
        const char* says;
    } rows[] = {
        {"", "body: found what is not JSON"},
        {"[]", "body: found an array, must be a JSON object"},
        {"{}", "kind: missing"},
        {R"({"kind":"sulk"})", "kind: found \"sulk\", must be delay"},
        {R"({"kind":1})", "kind: found 1, must be a string"},
        {R"({"kind":"delay"})", "delay_ms: missing"},
        {R"({"kind":"delay","delay_ms":0})", "delay_ms: found 0, must be an integer from 1"},
        {R"({"kind":"empty","delay_ms":600001})", "delay_ms: found 600001"},
        {R"({"kind":"empty","delay_ms":-1})", "delay_ms: found -1"},
        {R"({"kind":"empty","times":-1})", "times: found -1"},
        {R"({"kind":"empty","times":"2"})", "times: found \"2\""},
        {R"({"kind":"empty","interface":"other"})", "interface: found \"other\", must be add_relay_stream_url"},
        {R"({"kind":"status","status":600})", "status: found 600"},
        {R"({"kind":"empty","status":500})", "status: found a field that is not known here"},
        {R"({"kind":"huge","size":63})", "size: found 63"},
        {R"({"kind":"huge","size":1073741825})", "size: found 1073741825"},
        {R"({"kind":"server_code","code":2147483648})", "code: found 2147483648"},
        {R"({"kind":"server_code","message":5})", "message: found 5"},
        {R"({"kind":"server_code","error_code_keys":1})", "error_code_keys: found 1, must be true or false"},
        {R"({"kind":"empty","kind":"empty"})", "kind: found it twice"},
        {R"({"kind":"empty","mood":"bad"})", "mood: found a field that is not known here"},
    };
    for (const auto& row : rows) {
        const auto result = mClient->Post("/faults", row.body, "application/json");
        ASSERT_TRUE(result);
        EXPECT_EQ(400, result->status) << row.body;
        const std::string message = json::parse(result->body)["message"];
        EXPECT_EQ(0u, message.find(row.says)) << message;
    }
    EXPECT_EQ("{\"waiting\":[]}", json::parse(mService->faultsJson()).dump());
}

TEST_F(OnRequest, TheQueueIsBounded) {
    Fault fault;
    fault.kind = Fault::Kind::kEmpty;
    for (int number = 0; number < 1000; ++number) {
        ASSERT_EQ("", mService->inject(fault));
    }
    EXPECT_EQ("1000 faults are waiting, the most that is held", mService->inject(fault));
}
