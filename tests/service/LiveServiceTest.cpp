// The service over HTTPS: its responses, its state, its connections, and its start and stop.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "service/LiveService.h"
#include "support/Journal.h"
#include "support/ServiceTesting.h"

using namespace servicetesting;
using testing::HasSubstr;
using testing::Not;
using vexalive::LiveService;
using vexalive::LiveServiceEvent;
using vexalive::LiveServiceOptions;

// ---- Responses and state --------------------------------------------------------------------------------------------

TEST(LiveService, ARelayIsAddedMovedAndRemoved) {
    RunningService service;
    EXPECT_EQ((json{{"code", 0}, {"message", "ok"}}), service.post(addRelayBody()));
    service.post(relayOf(1, "srt://cdn.test:9000"));
    const json relays = service.state()["relays"];
    ASSERT_EQ(1u, relays.size());
    EXPECT_EQ(ownStreamId(), relays[0]["stream_id"]);
    EXPECT_EQ("srt://cdn.test:9000", relays[0]["dest_stream_url"]);
    EXPECT_EQ(1234, relays[0]["appid"]);
    EXPECT_EQ(2, relays[0]["requests"]);

    EXPECT_EQ(0, service.post(removeRelayBody())["code"]);
    EXPECT_TRUE(service.state()["relays"].empty());
    const json refused = service.post(removeRelayBody());
    EXPECT_EQ(4007, refused["code"]);
    EXPECT_THAT(refused["message"], HasSubstr("not being relayed"));
}

TEST(LiveService, AMixIsStartedUpdatedAndCancelled) {
    RunningService service;
    const json refused = service.post(cancelMixBody());
    EXPECT_EQ(4007, refused["code"]);
    EXPECT_THAT(refused["message"], HasSubstr("no running mix"));

    EXPECT_EQ(0, service.post(videoMixBody())["code"]);
    EXPECT_EQ(1280, service.state()["mixes"][0]["canvas"]["width"]);
    EXPECT_EQ(0, service.post(audioMixBody())["code"]);
    const json mix = service.state()["mixes"][0];
    EXPECT_TRUE(mix["running"]);
    EXPECT_TRUE(mix["canvas"].is_null());
    EXPECT_EQ("audio", mix["inputs"][0]["type"]);
    EXPECT_EQ(1500, mix["output"]["output_stream_bitrate"]);

    EXPECT_EQ(0, service.post(cancelMixBody())["code"]);
    EXPECT_FALSE(service.state()["mixes"][0]["running"]);
    EXPECT_EQ(4007, service.post(cancelMixBody())["code"]);
    EXPECT_EQ(0, service.post(videoMixBody())["code"]);
    std::vector<std::string> operations;
    const json state = service.state();
    for (const json& entry : state["mixes"][0]["history"]) {
        operations.push_back(entry["operation"]);
    }
    EXPECT_EQ((std::vector<std::string>{"start", "update", "cancel", "start"}), operations);
}

TEST(LiveService, ARefusedRequestIsRecordedAndDoesNotChangeTheState) {
    RunningService service;
    json body = addRelayBody();
    body["appid"] = 0;
    EXPECT_EQ((json{{"code", 4006}, {"message", "appid: found 0, must not be 0"}}), service.post(body));

    const json state = service.state();
    EXPECT_TRUE(state["relays"].empty());
    ASSERT_EQ(1u, state["requests"].size());
    const json& request = state["requests"][0];
    EXPECT_EQ("add_relay_stream_url", request["interface"]);
    EXPECT_EQ("appid", request["refused_field"]);
    EXPECT_EQ(body.dump(), request["body"]);
    EXPECT_EQ(200, request["http_status"]);
}

TEST(LiveService, NeitherSignatureNorMapKeyIsShownAnywhere) {
    std::mutex mutex;
    std::string shown;
    LiveServiceOptions options;
    options.observer = [&](const LiveServiceEvent& event) {
        const std::lock_guard<std::mutex> lock(mutex);
        shown += event.message + event.field;
    };
    RunningService service(options);
    const std::string queries[] = {
        "sdkappid=1&random=1&usersig=T0psecretA&parivMapKey=T0psecretB",
        "sdkappid=1&random=1&usersig=T0psecretA&T0psecretC=1&parivMapKey=T0psecretB",
        "sdkappid=x&random=1&usersig=T0psecretA&parivMapKey=T0psecretB",
        "random=1&usersig=T0psecretA&parivMapKey=T0psecretB&usersig=T0psecretC",
    };
    for (const std::string& query : queries) {
        shown += service.post(addRelayBody(), query).dump();
    }
    const HttpResponse lost = service.client().post("/v3/liveinterface/other?" + queries[0], "{}");
    EXPECT_EQ(404, lost.status);
    shown += lost.body + service.client().get("/state").body;

    EXPECT_THAT(shown, HasSubstr("usersig=***&parivMapKey=***"));
    EXPECT_THAT(shown, Not(HasSubstr("T0psecret")));
}

TEST(LiveService, TheStateIsServedAsJson) {
    RunningService service;
    service.post(addRelayBody());
    HttpResponse state = service.client().get("/state");
    EXPECT_EQ(200, state.status);
    EXPECT_EQ("application/json", state.headers["Content-Type"]);
    EXPECT_EQ(service.state(), json::parse(state.body));
}

TEST(LiveService, TheObserverReceivesEachResponse) {
    Journal<LiveServiceEvent> journal;
    LiveServiceOptions options;
    options.observer = [&journal](const LiveServiceEvent& event) { journal.add(event); };
    RunningService service(options);

    service.post(addRelayBody());
    service.post(cancelMixBody());
    ASSERT_TRUE(service->inject(*vexalive::parseFaultOption("code=505")));
    service.post(videoMixBody());

    const std::vector<LiveServiceEvent> events = journal.all();
    ASSERT_EQ(3u, events.size());
    EXPECT_EQ("add_relay_stream_url", events[0].interfaceName);
    EXPECT_EQ("add", events[0].operation);
    EXPECT_EQ(0, events[0].code);
    EXPECT_EQ("ok", events[0].message);
    EXPECT_EQ(1234, events[0].appId);
    EXPECT_EQ(ownStreamId(), events[0].streamId);
    EXPECT_EQ("", events[1].operation);
    EXPECT_EQ(4007, events[1].code);
    EXPECT_EQ("session_id", events[1].field);
    EXPECT_EQ("code", events[2].fault);
    EXPECT_EQ(505, events[2].code);
}

TEST(LiveService, ThePushDomainComesFromTheEnvironmentUnlessGiven) {
    ::setenv("VEXALIVE_PUSH_DOMAIN", "from.the.environment", 1);
    LiveServiceOptions options = plainOptions();
    LiveService fromEnvironment(options);
    ::unsetenv("VEXALIVE_PUSH_DOMAIN");
    LiveService builtIn(options);
    ASSERT_TRUE(fromEnvironment.start() && builtIn.start());

    json body = addRelayBody();
    body["domain"] = "8888.from.the.environment";
    HttpClient first("http://" + fromEnvironment.address());
    EXPECT_EQ(0, post(first, body)["code"]);
    HttpClient second("http://" + builtIn.address());
    EXPECT_EQ(4006, post(second, body)["code"]);
    body["domain"] = "8888.livepush.vexa.example";
    EXPECT_EQ(0, post(second, body)["code"]);
}

// ---- HTTP -----------------------------------------------------------------------------------------------------------

TEST(LiveService, AnUnknownPathIs404AndAWrongMethod405AsJson) {
    RunningService service;
    const struct {
        const char* method;
        const char* path;
        int status;
    } rows[] = {
        {"GET", "/other", 404},
        {"POST", "/", 405},
        {"POST", "/v3/liveinterface/", 404},
        {"POST", "/v3/liveinterface/add_relay_stream_ur%6c", 404},
        {"POST", "/v3/liveinterface/add_relay_stream_url/", 404},
        {"GET", "/v3/liveinterface/add_relay_stream_url", 405},
        {"PUT", "/v3/liveinterface/set_live_mix_transcoding", 405},
        {"DELETE", "/state", 405},
        {"POST", "/state", 405},
        {"PATCH", "/faults", 405},
        {"OPTIONS", "/faults", 405},
    };
    HttpClient client = service.client();
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.method) + row.path);
        const HttpResponse response = client.send(row.method, row.path);
        EXPECT_EQ(row.status, response.status);
        EXPECT_TRUE(json::parse(response.body)["message"].is_string());
        EXPECT_EQ(row.status == 405 ? 1u : 0u, response.headers.count("Allow"));
    }
}

TEST(LiveService, ABodyOverOneMebibyteIs413AndOneOfThatSizeIsRead) {
    RunningService service;
    const std::string largest((size_t{1} << 20), ' ');
    HttpClient client = service.client();
    const HttpResponse read = client.post(targetOf(addRelayBody()), largest);
    EXPECT_EQ(200, read.status);
    EXPECT_EQ(4002, json::parse(read.body)["code"]);

    const HttpResponse refused = client.post(targetOf(addRelayBody()), largest + " ");
    EXPECT_EQ(413, refused.status);
    EXPECT_TRUE(json::parse(refused.body)["message"].is_string());
}

TEST(LiveService, PlainHttpWorksWithoutAnyCertificate) {
    const TemporaryFolder folder;
    LiveServiceOptions options = plainOptions();
    options.stateFolder = folder.path() + "/unused";
    RunningService service(options);
    EXPECT_EQ(0, service.post(addRelayBody())["code"]);
    EXPECT_EQ("", service->caFile());
    EXPECT_NE(0, ::access(options.stateFolder.c_str(), F_OK));
}

TEST(LiveService, AClientThatDoesNotTrustTheAuthorityIsNotServed) {
    const TemporaryFolder folder;
    LiveServiceOptions options;
    options.stateFolder = folder.path();
    RunningService other(options);
    RunningService service;
    EXPECT_THAT(HttpClient("https://" + service->address(), other->caFile()).get("/state").error,
                HasSubstr("certificate"));
}

TEST(LiveService, OnlyTls12AndLaterIsAccepted) {
    RunningService service;
    const auto handshakes = [&service](int min, int max) {
        const RawConnection connection(service->port());
        return RawTls(connection, min, max).handshake();
    };
    EXPECT_FALSE(handshakes(TLS1_VERSION, TLS1_1_VERSION));
    EXPECT_TRUE(handshakes(TLS1_2_VERSION, TLS1_2_VERSION));
    EXPECT_TRUE(handshakes(TLS1_3_VERSION, TLS1_3_VERSION));
}

// ---- Connections ----------------------------------------------------------------------------------------------------

TEST(LiveService, ManyRequestsShareOneConnection) {
    RunningService service(plainOptions());
    RawConnection connection(service->port());
    constexpr int kRequests = 50;
    for (int number = 1; number <= kRequests; ++number) {
        connection.send(rawRequest("POST", targetOf(addRelayBody()), relayOf(number).dump()));
    }
    connection.endSending();
    EXPECT_EQ(kRequests, occurrences(connection.readToEnd(), "HTTP/1.1 200"));
    EXPECT_EQ(static_cast<size_t>(kRequests), service.state()["relays"].size());
}

TEST(LiveService, TwoHundredConnectionsStayOpenAndAreServed) {
    constexpr int kThreads = 8;
    constexpr int kClientsEach = 25;
    RunningService service;
    pthread_barrier_t allAreOpen;
    ASSERT_EQ(0, ::pthread_barrier_init(&allAreOpen, nullptr, kThreads));
    std::atomic<int> accepted{0};
    runConcurrently(kThreads, [&](int thread) {
        std::vector<HttpClient> clients;
        for (int number = thread * kClientsEach; number < (thread + 1) * kClientsEach; ++number) {
            clients.push_back(service.client());
            accepted += post(clients.back(), relayOf(number))["code"] == 0;
        }
        ::pthread_barrier_wait(&allAreOpen);
        int number = thread * kClientsEach;
        for (HttpClient& client : clients) {
            accepted += post(client, removalOf(number++))["code"] == 0;
            EXPECT_TRUE(client.hasReusedConnection());
        }
    });
    ::pthread_barrier_destroy(&allAreOpen);
    EXPECT_EQ(2 * kThreads * kClientsEach, accepted);
    EXPECT_TRUE(service.state()["relays"].empty());
}

// ---- Start and stop -------------------------------------------------------------------------------------------------

// Exception to the rule that no test asserts elapsed time: the time limit of stop() is under test.
TEST(LiveService, AStopTakesAtMostThreeSecondsWhateverRuns) {
    RunningService service(plainOptions());
    std::vector<HttpClient> idle;
    for (int number = 0; number < 20; ++number) {
        idle.push_back(service.client());
        post(idle.back(), relayOf(number));
    }
    RunningService secure;
    const RawConnection silent(secure->port());  // never begins its handshake
    const std::string target = targetOf(addRelayBody());
    RawConnection halfSent(service->port());
    halfSent.send("POST " + target + " HTTP/1.1\r\nContent-Length: 100\r\n\r\n{");
    const auto isApplied = [&service] { return json::parse(service->faultsJson())["active"].empty(); };
    ASSERT_TRUE(service->inject(*vexalive::parseFaultOption("huge=1073741824")));
    RawConnection unread(service->port());  // never reads its response
    unread.send(rawRequest("POST", target, "{}"));
    ASSERT_TRUE(pollUntil(isApplied));
    ASSERT_TRUE(service->inject(*vexalive::parseFaultOption("delay=600000")));
    std::thread waiting([&] { EXPECT_EQ(0, service.client().post(target, "").status); });
    EXPECT_TRUE(pollUntil(isApplied));

    const auto before = std::chrono::steady_clock::now();
    service->stop();
    secure->stop();
    const auto duration = std::chrono::steady_clock::now() - before;
    waiting.join();

    EXPECT_LT(duration, std::chrono::seconds(3));
    EXPECT_EQ(0, idle[0].get("/state").status);
}

TEST(LiveService, StopMayComeTwiceAndStartAgainKeepsTheState) {
    RunningService service;
    service.post(addRelayBody());
    service->stop();
    service->stop();
    ASSERT_TRUE(service->start());
    EXPECT_EQ(0, service.post(removeRelayBody())["code"]);
    EXPECT_THAT(service->start().error().message, HasSubstr("already running"));
}

TEST(LiveService, AStartThatFailsReportsWhy) {
    const TemporaryFolder folder;
    const std::string file = folder.path() + "/file";
    writeAll(file, "");
    RunningService other;
    const std::string inUse = "port " + std::to_string(other->port()) + " of 127.0.0.1: it is already in use";
    const struct {
        const char* address;
        uint16_t port;
        bool tls;
        std::optional<uint16_t> consolePort;
        std::string stateFolder;
        std::string error;
    } rows[] = {
        {"127.0.0.1", other->port(), true, std::nullopt, sharedStateFolder(), inUse},
        {"127.0.0.1", 0, true, other->port(), sharedStateFolder(), inUse},
        {"192.0.2.1", 0, true, std::nullopt, sharedStateFolder(), "192.0.2.1"},
        {"no such host", 0, true, std::nullopt, sharedStateFolder(), "no such host"},
        {"0.0.0.0", 0, false, std::nullopt, "", "loopback only"},
        {"127.0.0.1", 0, true, std::nullopt, file, file},
    };
    for (const auto& row : rows) {
        LiveServiceOptions options;
        options.address = row.address;
        options.port = row.port;
        options.tls = row.tls;
        options.consolePort = row.consolePort;
        options.stateFolder = row.stateFolder;
        LiveService service(options);
        const auto started = service.start();
        ASSERT_FALSE(started) << row.address;
        EXPECT_THAT(started.error().message, HasSubstr(row.error));
    }
}

TEST(LiveService, ListensOnIpv6AndItsCertificateIsForThatAddressAndTheName) {
    LiveServiceOptions options;
    options.address = "::1";
    options.stateFolder = sharedStateFolder();
    LiveService service(options);
    if (const auto started = service.start(); !started) {
        GTEST_SKIP() << "this machine has no IPv6: " << started.error().message;
    }
    EXPECT_EQ("[::1]:" + std::to_string(service.port()), service.address());
    for (const char* name : {"::1", "127.0.0.1", "localhost", "example.test"}) {
        const RawConnection connection(service.port(), "::1");
        RawTls tls(connection);
        tls.trust(service.caFile(), name);
        EXPECT_EQ(std::string("example.test") != name, tls.handshake()) << name;
    }
}

TEST(LiveService, ListensOnANameOfThisMachine) {
    LiveServiceOptions options;
    options.address = "localhost";
    options.stateFolder = sharedStateFolder();
    RunningService service(options);
    EXPECT_EQ("localhost:" + std::to_string(service->port()), service->address());
}
