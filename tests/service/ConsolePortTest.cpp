// The parts that only this machine may use: the console's port with its checks, and the metrics.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "service/Console.h"
#include "service/LiveService.h"
#include "service/ServiceSnapshot.h"
#include "support/ServiceTesting.h"

using namespace servicetesting;
using namespace std::string_literals;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using vexalive::LiveServiceOptions;

namespace {

LiveServiceOptions withConsole() {
    LiveServiceOptions options = plainOptions();
    options.consolePort = 0;
    return options;
}

int statusOf(HttpClient& client, const std::string& method, const std::string& path,
             const std::vector<std::string>& headers = {}) {
    return client.send(method, path, "", headers).status;
}

}  // namespace

TEST(ConsolePort, ServesThePageAndItsFilesButNotTheInterfaces) {
    RunningService service(withConsole());
    HttpClient console = service.console();
    HttpClient main = service.client();
    ASSERT_FALSE(vexalive::consolePaths().empty());
    for (const std::string& path : vexalive::consolePaths()) {
        for (HttpClient* client : {&console, &main}) {
            HttpResponse response = client->get(path);
            EXPECT_EQ(200, response.status) << path;
            EXPECT_EQ(std::string(vexalive::consoleFile(path)->content), response.body) << path;
            EXPECT_EQ(vexalive::consoleFile(path)->contentType, response.headers["Content-Type"]) << path;
            EXPECT_THAT(response.headers["Content-Security-Policy"], StartsWith("default-src 'self'")) << path;
        }
    }
    EXPECT_EQ(200, statusOf(console, "GET", "/state"));
    EXPECT_EQ(200, statusOf(console, "GET", "/faults"));
    EXPECT_EQ(404, statusOf(console, "POST", "/v3/liveinterface/add_relay_stream_url"));
    EXPECT_EQ(404, statusOf(console, "GET", "/snapshot?mix=" + ownStreamId()));  // the service runs without media
    EXPECT_EQ(403, statusOf(console, "POST", "/origin/publish"));
}

TEST(ConsolePort, IsOptionalAndTheStateHasNoMedia) {
    RunningService service;
    EXPECT_EQ("", service->consoleAddress());
    EXPECT_EQ("", service->originAddress());
    service.post(addRelayBody());
    const json state = service.state();
    EXPECT_EQ((json{{"media", false}, {"origin", nullptr}}), state["service"]);
    EXPECT_TRUE(state["relays"][0]["media"].is_null());
    EXPECT_FALSE(state["relays"][0].contains("source"));
}

TEST(ConsolePort, OtherWebSitesAreRefused) {
    RunningService service(withConsole());
    const std::string address = service->consoleAddress();
    const std::string port = address.substr(address.find(':'));
    HttpClient console = service.console();
    for (const std::string& host : {"127.0.0.1" + port, "localhost" + port, "localhost"s, "[::1]" + port}) {
        EXPECT_EQ(200, statusOf(console, "GET", "/state", {"Host: " + host})) << host;
    }
    for (const std::string& host : {"evil.test" + port, "evil.test"s, "127.0.0.1.evil.test" + port,
                                    "localhost.evil.test" + port, "[::2]" + port, "10.0.0.1"s}) {
        EXPECT_EQ(403, statusOf(console, "GET", "/state", {"Host: " + host})) << host;
    }
    for (const std::string& origin : {"http://evil.test"s, "null"s, "http://127.0.0.1:1"s, "http://evil.test" + port}) {
        EXPECT_EQ(403, statusOf(console, "DELETE", "/faults", {"Origin: " + origin, "Host: " + address})) << origin;
    }
    EXPECT_EQ(200, statusOf(console, "DELETE", "/faults", {"Origin: http://" + address, "Host: " + address}));
}

TEST(ConsolePort, WithoutTlsTheServicePortChecksTheHostToo) {
    RunningService service(withConsole());
    HttpClient plain = service.client();
    const std::vector<std::string> elsewhere = {"Host: evil.test" + service->address().substr(9)};
    for (const char* path : {"/", "/state", "/metrics", "/snapshot", "/faults"}) {
        EXPECT_EQ(403, statusOf(plain, "GET", path, elsewhere)) << path;
    }
    EXPECT_EQ(200, statusOf(plain, "GET", "/state"));
    EXPECT_EQ(200, statusOf(plain, "POST", "/v3/liveinterface/add_relay_stream_url", elsewhere));

    RunningService secure;  // with TLS, no check is needed: the certificate is valid for no other name
    HttpClient client = secure.client();
    EXPECT_EQ(200, statusOf(client, "GET", "/state", {"Host: a.name.of.this.machine"}));
}

TEST(ConsolePort, PagesOfOtherSitesCannotEmbedIt) {
    RunningService service(withConsole());
    RunningService secure;
    HttpClient console = service.console();
    HttpClient main = secure.client();
    for (HttpClient* const client : {&console, &main}) {
        for (const std::string site : {"cross-site", "same-site"}) {
            const std::string field = "Sec-Fetch-Site: " + site;
            EXPECT_EQ(403, statusOf(*client, "GET", "/state", {field})) << site;
            EXPECT_EQ(403, statusOf(*client, "GET", "/snapshot?mix=1", {field})) << site;
            EXPECT_EQ(200, statusOf(*client, "GET", "/", {field})) << site;  // a link to the page is allowed
        }
        for (const std::string site : {"same-origin", "none"}) {
            const std::string field = "Sec-Fetch-Site: " + site;
            EXPECT_EQ(200, statusOf(*client, "GET", "/state", {field})) << site;
            EXPECT_EQ(404, statusOf(*client, "GET", "/snapshot?mix=1", {field})) << site;
        }
    }
}

// ---- Metrics --------------------------------------------------------------------------------------------------------

TEST(Metrics, AreServedAsText) {
    RunningService service(withConsole());
    service.post(addRelayBody());
    HttpClient console = service.console();
    HttpResponse response = console.get("/metrics");
    EXPECT_EQ("text/plain; version=0.0.4; charset=utf-8", response.headers["Content-Type"]);
    EXPECT_THAT(response.body, HasSubstr("\nvexalive_relays 1\n"));
    EXPECT_THAT(response.body, Not(HasSubstr("vexalive_origin_state")));
}

TEST(Metrics, ListEachWorkerAndEachInputOnce) {
    using vexalive::WorkerState;
    vexalive::ServiceSnapshot snapshot;
    snapshot.origin.emplace();
    snapshot.origin->process.worker.output.state = WorkerState::kRunning;
    snapshot.origin->process.restarts = 3;
    vexalive::MixSnapshot& running = snapshot.mixes.emplace_back();
    running.request.streamId = "8888_m";
    running.isRunning = true;
    const vexalive::InputStatus input = {"a\"\\b\nc", {WorkerState::kRunning, "", 5, 6, 7, 8}};
    running.media = {"", {{{WorkerState::kReconnecting, "x", 12, 3, 2, 1}, {input, input}}, 4}};
    snapshot.mixes.emplace_back().request.streamId = "8888_n";
    const std::string text = metricsText(snapshot);
    const std::string mix = R"({kind="mix",stream_id="8888_m")";
    const std::string labels = R"({kind="mix",stream_id="8888_m",input="a\"\\b\nc")";
    const std::string origin = "vexalive_origin_state{state=";
    for (const std::string& line :
         {"vexalive_mixes 1"s, "vexalive_relays 0"s, origin + "\"running\"} 1", origin + "\"failed\"} 0",
          "vexalive_origin_restarts_total 3"s, "vexalive_media_state" + mix + ",state=\"reconnecting\"} 1",
          "vexalive_media_state" + mix + ",state=\"running\"} 0", "vexalive_media_bytes_total" + mix + "} 12",
          "vexalive_media_frames_total" + mix + "} 3", "vexalive_media_dropped_frames_total" + mix + "} 2",
          "vexalive_media_reconnects_total" + mix + "} 1", "vexalive_media_restarts_total" + mix + "} 4",
          "vexalive_media_input_state" + labels + ",state=\"running\"} 1",
          "vexalive_media_input_bytes_total" + labels + "} 5",
          "vexalive_media_input_reconnects_total" + labels + "} 8"}) {
        EXPECT_EQ(1, occurrences(text, "\n" + line + "\n")) << line << " in\n" << text;
    }
    EXPECT_EQ(std::string::npos, text.find("8888_n"));
}
