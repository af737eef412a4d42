// Injected faults, checked by what a client receives.

#include <gtest/gtest.h>

#include <chrono>

#include "service/LiveService.h"
#include "support/ServiceTesting.h"

using namespace servicetesting;
using vexalive::Fault;

namespace {

class FaultsTest : public testing::Test {
protected:
    void inject(const json& fault) {
        const HttpResponse response = mClient.post("/faults", fault.dump());
        ASSERT_EQ(200, response.status) << response.body;
    }

    // Sends a request on a new connection.
    HttpResponse response(const json& body = addRelayBody()) const {
        return mService.client().post(targetOf(body), body.dump());
    }

    json active() { return json::parse(mService->faultsJson())["active"]; }

    void expectNormalResponse() {
        const HttpResponse normal = response();
        EXPECT_EQ(200, normal.status);
        EXPECT_EQ((json{{"code", 0}, {"message", "ok"}}), json::parse(normal.body));
        EXPECT_EQ(1, mService.state()["relays"][0]["requests"]);  // the service has not executed requests with faults
    }

    RunningService mService;
    HttpClient mClient = mService.client();
};

std::string responseOnPlainHttp(const json& fault) {
    RunningService service(plainOptions());
    EXPECT_EQ(200, service.client().post("/faults", fault.dump()).status);
    RawConnection connection(service->port());
    connection.send(rawRequest("POST", targetOf(addRelayBody()), addRelayBody().dump()));
    return connection.readToEnd();
}

}  // namespace

TEST_F(FaultsTest, AStatusHasAnEmptyBody) {
    for (const int status : {200, 204, 404, 500, 503, 599}) {
        inject({{"kind", "status"}, {"status", status}});
        const HttpResponse result = response();
        EXPECT_EQ(status, result.status);
        EXPECT_EQ("", result.body);
        EXPECT_EQ(0u, result.headers.count("Location"));
    }
    expectNormalResponse();
}

TEST_F(FaultsTest, ARedirectNamesAPathOfTheService) {
    inject({{"kind", "status"}, {"status", 301}});
    HttpResponse result = response();
    EXPECT_EQ(301, result.status);
    EXPECT_EQ("/redirected", result.headers["Location"]);
}

TEST_F(FaultsTest, AnEmptyResponseHasNoBody) {
    inject({{"kind", "empty"}});
    HttpResponse result = response();
    EXPECT_EQ(200, result.status);
    EXPECT_EQ("0", result.headers["Content-Length"]);
    EXPECT_EQ("", result.body);
    expectNormalResponse();
}

TEST_F(FaultsTest, GarbageIsNoJson) {
    inject({{"kind", "garbage"}});
    const HttpResponse result = response();
    EXPECT_EQ(200, result.status);
    EXPECT_FALSE(result.body.empty());
    EXPECT_FALSE(json::accept(result.body));
    expectNormalResponse();
}

TEST_F(FaultsTest, AHugeResponseIsJsonOfExactlyTheRequestedSize) {
    for (const size_t size : {size_t{64}, size_t{1} << 20, size_t{5'000'001}}) {
        inject({{"kind", "huge"}, {"size", size}});
        const std::string body = response().body;
        EXPECT_EQ(size, body.size());
        EXPECT_EQ(0, json::parse(body)["code"]);
    }
    inject({{"kind", "huge"}});
    EXPECT_EQ(size_t{2} << 20, response().body.size());
    expectNormalResponse();
}

TEST_F(FaultsTest, AServerCodeComesUnderEitherPairOfKeys) {
    inject({{"kind", "code"}, {"code", -505}, {"message", "busy"}});
    inject({{"kind", "code"}, {"code", 10017}, {"message", "later"}, {"error_code_keys", true}});
    EXPECT_EQ((json{{"code", -505}, {"message", "busy"}}), json::parse(response().body));
    EXPECT_EQ((json{{"ErrorCode", 10017}, {"ErrorInfo", "later"}}), json::parse(response().body));
    expectNormalResponse();
}

// Exception to the rule that no test asserts elapsed time: the delay itself is under test.
TEST_F(FaultsTest, ADelayComesBeforeTheNormalResponseOrAnotherFault) {
    for (const int status : {502, 200}) {
        inject(status == 200 ? json{{"kind", "delay"}, {"delay_ms", 150}}
                             : json{{"kind", "status"}, {"status", status}, {"delay_ms", 150}});
        const auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(status, response().status);
        EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(150));
    }
    EXPECT_EQ(1u, mService.state()["relays"].size());
}

TEST(FaultsPlain, ACutResponseAnnouncesMoreThanItSends) {
    const std::string response = responseOnPlainHttp({{"kind", "cut"}});
    const size_t head = response.find("\r\n\r\n");
    ASSERT_NE(std::string::npos, head) << response;
    const size_t length = response.find("Content-Length: ");
    ASSERT_LT(length, head) << response;
    const size_t announced = std::stoul(response.substr(length + 16));
    EXPECT_EQ(announced / 2, response.size() - head - 4);
    EXPECT_GT(announced, 1u);
}

TEST(FaultsPlain, ACloseSendsNothingAtAll) {
    EXPECT_EQ("", responseOnPlainHttp({{"kind", "close"}}));
}

TEST_F(FaultsTest, ACutAndACloseEndTheExchangeAndTheServiceGoesOn) {
    for (const char* kind : {"cut", "close"}) {
        inject({{"kind", kind}});
        EXPECT_EQ(0, response().status) << kind;
    }
    expectNormalResponse();
    EXPECT_EQ("close", mService.state()["requests"][1]["fault"]);
    EXPECT_EQ(0, mService.state()["requests"][1]["http_status"]);
}

TEST_F(FaultsTest, FaultsApplyInOrderEachForItsRequests) {
    inject({{"kind", "status"}, {"status", 500}, {"count", 2}});
    inject({{"kind", "status"}, {"status", 502}, {"interface", "remove_relay_stream_url"}});
    inject({{"kind", "status"}, {"status", 503}, {"interface", "add_relay_stream_url"}, {"count", 0}});
    const json add = addRelayBody();
    const json remove = removeRelayBody();
    const std::pair<json, int> expected[] = {{add, 500}, {remove, 500}, {add, 503},   {remove, 502},
                                             {add, 503}, {add, 503},    {remove, 200}};
    for (const auto& [body, status] : expected) {
        EXPECT_EQ(status, response(body).status);
    }
    ASSERT_EQ(1u, active().size());
    EXPECT_EQ(503, active()[0]["status"]);
}

TEST_F(FaultsTest, ActiveFaultsAreListedAndCleared) {
    const json huge = {
        {"kind", "huge"}, {"size", 100}, {"count", 7}, {"delay_ms", 5}, {"interface", "set_live_mix_transcoding"}};
    inject(huge);
    EXPECT_EQ(json::array({huge}), json::parse(mClient.get("/faults").body)["active"]);

    EXPECT_EQ(200, mClient.send("DELETE", "/faults").status);
    EXPECT_EQ(json::array(), active());
}

TEST_F(FaultsTest, AnInProcessCallDoesTheSame) {
    Fault fault;
    fault.kind = Fault::Kind::kStatus;
    fault.status = 429;
    EXPECT_TRUE(mService->inject(fault));
    EXPECT_EQ(429, response().status);

    fault.status = 99;
    EXPECT_EQ("status: found 99, must be an integer from 200 to 599", mService->inject(fault).error().message);
    fault.kind = Fault::Kind::kClose;  // this kind does not use the status
    EXPECT_TRUE(mService->inject(fault));
    mService->clearFaults();
    expectNormalResponse();
}

TEST_F(FaultsTest, ABadFaultIs400WithAReason) {
    const struct {
        std::string body;
        const char* error;
    } rows[] = {
        {"", "body: found invalid JSON"},
        {"[]", "body: found an array, must be a JSON object"},
        {"{}", "kind: missing"},
        {R"({"kind":"sulk"})", "kind: found \"sulk\", must be delay"},
        {R"({"kind":1})", "kind: found 1, must be a string"},
        {R"({"kind":"delay"})", "delay_ms: missing"},
        {R"({"kind":"delay","delay_ms":0})", "delay_ms: found 0, must be an integer from 1"},
        {R"({"kind":"empty","delay_ms":600001})", "delay_ms: found 600001"},
        {R"({"kind":"empty","delay_ms":-1})", "delay_ms: found -1"},
        {R"({"kind":"empty","count":-1})", "count: found -1"},
        {R"({"kind":"empty","count":"2"})", "count: found \"2\""},
        {R"({"kind":"empty","interface":"other"})", "interface: found \"other\", must be add_relay_stream_url"},
        {R"({"kind":"status","status":600})", "status: found 600"},
        {R"({"kind":"empty","status":500})", "status: found an unknown field"},
        {R"({"kind":"huge","size":63})", "size: found 63"},
        {R"({"kind":"huge","size":1073741825})", "size: found 1073741825"},
        {R"({"kind":"code","code":2147483648})", "code: found 2147483648"},
        {R"({"kind":"code","message":5})", "message: found 5"},
        {R"({"kind":"code","error_code_keys":1})", "error_code_keys: found 1, must be true or false"},
        {R"({"kind":"empty","kind":"empty"})", "kind: found it twice"},
        {R"({"kind":"empty","mood":"bad"})", "mood: found an unknown field"},
    };
    for (const auto& row : rows) {
        const HttpResponse response = mClient.post("/faults", row.body);
        EXPECT_EQ(400, response.status) << row.body;
        const std::string message = json::parse(response.body)["message"];
        EXPECT_EQ(0u, message.find(row.error)) << message;
    }
    EXPECT_EQ(json::array(), active());
}

TEST_F(FaultsTest, TheQueueIsBounded) {
    Fault fault;
    fault.kind = Fault::Kind::kEmpty;
    for (int number = 0; number < 1000; ++number) {
        ASSERT_TRUE(mService->inject(fault));
    }
    EXPECT_EQ("1000 faults are active, the maximum; clear them first", mService->inject(fault).error().message);
}

TEST(FaultOption, HasEachKind) {
    const std::pair<const char*, json> rows[] = {
        {"delay=250", {{"kind", "delay"}, {"delay_ms", 250}}},
        {"status=404", {{"kind", "status"}, {"status", 404}}},
        {"empty", {{"kind", "empty"}}},
        {"cut", {{"kind", "cut"}}},
        {"garbage", {{"kind", "garbage"}}},
        {"huge", {{"kind", "huge"}, {"size", 2 << 20}}},
        {"huge=4096", {{"kind", "huge"}, {"size", 4096}}},
        {"code=-505", {{"kind", "code"}, {"code", -505}, {"message", "on request"}, {"error_code_keys", false}}},
        {"close", {{"kind", "close"}}},
        {"code=1,message=a = b,error_code_keys=true",
         {{"kind", "code"}, {"code", 1}, {"message", "a = b"}, {"error_code_keys", true}}},
        {"status=503,interface=add_relay_stream_url,delay_ms=10,count=0",
         {{"kind", "status"}, {"status", 503}, {"interface", "add_relay_stream_url"}, {"delay_ms", 10}, {"count", 0}}},
    };
    for (const auto& [text, expected] : rows) {
        const auto fault = vexalive::parseFaultOption(text);
        ASSERT_TRUE(fault) << text << ": " << fault.error().message;
        json whole = {{"count", 1}, {"delay_ms", 0}};
        whole.update(expected);
        EXPECT_EQ(whole, json(toJson(*fault))) << text;
        EXPECT_EQ(whole, json(toJson(*vexalive::parseFaultJson(whole.dump())))) << text;
    }
}

TEST(FaultOption, IsRefusedWithWhatIsAllowed) {
    const std::pair<const char*, const char*> rows[] = {
        {"", "kind: found \"\", must be delay, status, empty, cut, garbage, huge, code or close"},
        {"statsu=1", "kind: found \"statsu\", must be delay"},
        {"status=many", "status: found \"many\", must be an integer from 200 to 599"},
        {"status=99", "status: found \"99\", must be an integer from 200 to 599"},
        {"status=", "status: found \"\", must be"},
        {"empty=1", "empty: found a value, must be without one"},
        {"empty,cuont=1", "empty: found \"cuont=1\", must be interface, count or delay_ms, each with"},
        {"empty,count", "empty: found \"count\", must be interface"},
        {"empty,status=500", "empty: found \"status=500\", must be"},
        {"code=1,error_code_keys=yes", "error_code_keys: found \"yes\", must be true or false"},
        {"delay", "delay_ms: found 0, must be an integer from 1 to 600000"},
        {"cut,interface=other", "interface: found \"other\", must be add_relay_stream_url, remove_relay_stream_url or"},
    };
    for (const auto& [text, error] : rows) {
        const auto fault = vexalive::parseFaultOption(text);
        ASSERT_FALSE(fault) << text;
        EXPECT_EQ(0u, fault.error().message.find(error)) << fault.error().message;
    }
}

// A client can build each fault from the list of kinds, and the service accepts each value within the listed bounds.
TEST_F(FaultsTest, TheListedKindsAreThoseThatAreAccepted) {
    const json kinds = json::parse(mService->faultsJson())["kinds"];
    std::string names;
    for (const json& kind : kinds) {
        names += kind["kind"].get<std::string>() + " ";
        EXPECT_FALSE(kind["description"].get<std::string>().empty());
        json fault = {{"kind", kind["kind"]}};
        for (const json& field : kind["fields"]) {
            fault[field["name"].get<std::string>()] = field.contains("default") ? field["default"] : field["minimum"];
        }
        EXPECT_TRUE(vexalive::parseFaultJson(fault.dump())) << fault;
        for (const json& field : kind["fields"]) {
            for (const char* bound : {"minimum", "maximum"}) {
                if (!field.contains(bound)) {
                    continue;
                }
                json changed = fault;
                json& value = changed[field["name"].get<std::string>()];
                value = field[bound];
                EXPECT_TRUE(vexalive::parseFaultJson(changed.dump())) << changed;
                value = field[bound].get<int64_t>() + (bound[1] == 'i' ? -1 : 1);
                EXPECT_FALSE(vexalive::parseFaultJson(changed.dump())) << changed;
            }
        }
    }
    EXPECT_EQ("delay status empty cut garbage huge code close ", names);
}
