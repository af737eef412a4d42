// The service with media and fake workers: the configurations of the workers, and the reports about them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "service/LiveService.h"
#include "service/MediaRules.h"
#include "service/WorkerPool.h"
#include "support/Journal.h"
#include "support/ScriptedServer.h"
#include "support/ServiceTesting.h"

using namespace servicetesting;
using namespace std::chrono_literals;
using testing::HasSubstr;
using vexalive::AcceptedRequest;
using vexalive::LiveMediaEvent;
using vexalive::LiveServiceOptions;
using vexalive::WorkerPool;

namespace {

class MediaService : public ::testing::Test {
protected:
    LiveServiceOptions options() {
        LiveServiceOptions result;
        result.tls = false;
        result.media = true;
        result.origin = mOriginUrl;
        result.workerProgram = FAKE_WORKER;
        result.mediaObserver = [this](const LiveMediaEvent& event) { mEvents.add(event); };
        return result;
    }

    // Waits for an event whose state is `text` or whose text contains it.
    bool hasEvent(LiveMediaEvent::Kind kind, const std::string& subject, const std::string& text) const {
        const auto matches = [&](const LiveMediaEvent& event) {
            return event.kind == kind && event.subject == subject &&
                   (event.state == text || event.text.find(text) != std::string::npos);
        };
        return !mEvents.waitFor(1, matches).empty();
    }

    static WorkerReport reportOf(const json& media) {
        return parseWorkerReport(media.is_null() ? "" : media["error"].get<std::string>());
    }
    static json configurationIn(const json& media) { return reportOf(media).configuration; }

    // Starts a relay whose worker does not exit when its input ends.
    static pid_t startStuckRelay(const RunningService& service) {
        service.post(relayOf(1, "rtmp://cdn.test/live/babe"));
        pid_t worker = 0;
        EXPECT_TRUE(pollUntil([&] {
            worker = reportOf(service.state()["relays"][0]["media"]).pid;
            return worker != 0;
        }));
        return worker;
    }

    // An origin that responds to the handshake like an RTMP server, unless mIsOriginSilent is true.
    std::atomic<bool> mIsOriginSilent{false};
    ScriptedServer mOrigin{[this](ScriptedServer::Connection& connection) {
        constexpr size_t kHandshakeBytes = 1537;
        for (size_t received = 0; received < kHandshakeBytes;) {
            const std::string bytes = connection.readPlain();
            if (bytes.empty()) {
                return;
            }
            received += bytes.size();
        }
        if (!mIsOriginSilent) {
            connection.writePlain("\x03");
        }
    }};
    const std::string mOriginUrl = "rtmp://127.0.0.1:" + std::to_string(mOrigin.port());
    Journal<LiveMediaEvent> mEvents;
};

}  // namespace

// ---- Configurations -------------------------------------------------------------------------------------------------

TEST(MediaRules, AMixRequestBecomesAConfiguration) {
    const auto configurationOf = [](const json& body) {
        const auto request = vexalive::checkRequest(interfaceOf(body), kGoodQuery, body.dump(), kSuffix);
        return json::parse(vexalive::mixConfiguration(request.value(), "rtmp://127.0.0.1:1935"))["mix"];
    };
    json body = videoMixBody();
    body["input_stream_list"][1]["layout_params"]["location_x"] = -10;
    body["output_param"]["output_audio_channels"] = -1;
    EXPECT_EQ(json::parse(R"({
        "destination":"rtmp://127.0.0.1:1935/mix/8888_00000000000000000000000000000001","crop_center":true,
        "canvas":{"width":1280,"height":720,"color":"0x000000"},
        "inputs":[{"stream_id":"8888_00000000000000000000000000000001",
                   "source":"rtmp://127.0.0.1:1935/live/8888_00000000000000000000000000000001",
                   "audio_only":false,"layer":2,"x":-10,"y":20,"width":320,"height":240},
                  {"stream_id":"8888_00000000000000000000000000000002",
                   "source":"rtmp://127.0.0.1:1935/live/8888_00000000000000000000000000000002",
                   "audio_only":true,"layer":3,"x":10,"y":20,"width":320,"height":240}],
        "output":{"output_stream_bitrate":1500,"output_stream_gop":2,"output_stream_frame_rate":20,
                  "output_audio_sample_rate":48000,"output_audio_bitrate":64,"output_audio_channels":-1}})"),
              configurationOf(body));

    // A mix without video and without the optional fields of the output.
    json audio = audioMixBody();
    audio["output_param"] = {{"output_stream_id", ownStreamId()}, {"output_stream_type", 0}, {"output_sei", "{}"}};
    EXPECT_TRUE(configurationOf(audio)["canvas"].is_null());
    EXPECT_EQ(2u, configurationOf(audio)["inputs"].size());
    EXPECT_EQ(json::object(), configurationOf(audio)["output"]);
}

TEST(MediaRules, AConfigurationIsOneLineWhateverTheAddressContains) {
    AcceptedRequest relay;
    relay.streamId = streamIdOf(1);
    relay.destination = "rtmp://cdn.test/\"\\\xff\xe2\x80\xa8";
    const std::string line = vexalive::relayConfiguration(relay, "rtmp://h:1");
    EXPECT_EQ(std::string::npos, line.find('\n'));
    EXPECT_EQ(line.end(), std::find_if(line.begin(), line.end(), [](char c) { return c < ' ' || c > '~'; }));
    EXPECT_EQ("rtmp://h:1/live/" + streamIdOf(1), json::parse(line)["relay"]["source"]);
}

TEST(MediaRules, OnlyAStreamIdMayBePublished) {
    const std::string good = "8888_0123456789abcdef0123456789abcdef";
    EXPECT_EQ(good, vexalive::publishedName("app=live&call=publish&name=" + good + "&type=live"));
    EXPECT_EQ("alice", vexalive::publishedName("name=alice&name=" + good));  // parameters of the publisher come later
    EXPECT_EQ("", vexalive::publishedName(""));
    EXPECT_TRUE(vexalive::checkPublishedName(good));
    EXPECT_TRUE(vexalive::checkPublishedName("-5_0123456789abcdef0123456789abcdef"));
    for (const std::string name :
         {"", "alice", "8888_0123456789ABCDEF0123456789abcdef", "08_0123456789abcdef0123456789abcdef",
          "0_0123456789abcdef0123456789abcdef", "8888_0123456789abcdef0123456789abcde",
          "8888_0123456789abcdef0123456789abcdef0", "_0123456789abcdef0123456789abcdef",
          "99999999999_0123456789abcdef0123456789abcdef"}) {
        const auto checked = vexalive::checkPublishedName(name);
        ASSERT_FALSE(checked) << name;
        EXPECT_EQ(0u, checked.error().message.find("found \"" + name + "\" as the name of the stream"));
    }
}

TEST(MediaRules, AnAddressToRelayToHasAHostAnApplicationAndAStreamAndIsNotWhereMembersOrMixesPublish) {
    const vexalive::OriginAddress origin = *vexalive::parseOriginAddress("rtmp://127.0.0.1:7000");
    const auto errorOf = [](const std::string& destination, const vexalive::OriginAddress& of) {
        const auto checked = vexalive::checkDestination(destination, of);
        return checked ? "" : checked.error().message;
    };
    for (const char* good :
         {"rtmp://cdn.test/app/stream", "rtmp://cdn.test:1936/app/instance/stream?key=a/b", "rtmp://u:p@cdn.test/a/b",
          "rtmp://[::1]/live/stream", "rtmp://127.0.0.1:7001/live/stream", "rtmp://cdn.test:7000/mix/stream",
          "rtmp://127.0.0.1:7000/cdn/stream", "rtmp://127.0.0.1:7000/lively/stream"}) {
        EXPECT_EQ("", errorOf(good, origin)) << good;
    }
    const struct {
        const char* error;
        std::vector<std::string> addresses;
    } rows[] = {
        {"the scheme \"srt\"", {"srt://cdn.test:9000"}},
        {"no host, or an invalid port",
         {"rtmp:///live/x", "rtmp://:1935/live/x", "rtmp://h:0/live/x", "rtmp://h:x/live/x", "rtmp://?h/live/x"}},
        {"no application, or no name of a stream behind it",
         {"rtmp://h", "rtmp://h/", "rtmp://h/live", "rtmp://h/live/", "rtmp://h//x", "rtmp://h//live/x",
          "rtmp://h/live?key=a/b", "rtmp://h?x=/live/x"}},
        {"the origin's own \"live\"",
         {"rtmp://127.0.0.1:7000/live/x", "rtmp://localhost:7000/live/x?a=b", "rtmp://LocalHost:7000/live/x",
          "rtmp://[::1]:7000/live/x", "rtmp://0.0.0.0:7000/live/x", "rtmp://u@127.0.0.1:07000/live//x"}},
        {"the origin's own \"mix\"", {"rtmp://127.0.0.1:7000/mix/x"}},
    };
    for (const auto& row : rows) {
        for (const std::string& address : row.addresses) {
            EXPECT_EQ(row.error, errorOf(address, origin)) << address;
        }
    }
    EXPECT_NE("", errorOf("rtmp://localhost/mix/x", *vexalive::parseOriginAddress("rtmp://localhost")));
    EXPECT_NE("", errorOf("rtmp://Media.test/live/x", *vexalive::parseOriginAddress("rtmp://media.test:1935")));
}

// ---- Relays and mixes -----------------------------------------------------------------------------------------------

TEST_F(MediaService, ARelayIsStartedMovedAndRemoved) {
    RunningService service(options());
    ASSERT_EQ(0, service.post(relayOf(1))["code"]);
    ASSERT_TRUE(pollUntil([&] { return service.state()["relays"][0]["media"]["state"] == "running"; }));
    json relay = service.state()["relays"][0];
    EXPECT_EQ(mOriginUrl + "/live/" + streamIdOf(1), relay["source"]);
    EXPECT_EQ((json{{"source", relay["source"]}, {"destination", "rtmp://cdn.test/live/one"}}),
              configurationIn(relay["media"]));
    EXPECT_EQ(1000, relay["media"]["bytes"]);
    EXPECT_EQ(0, relay["media"]["restarts"]);

    ASSERT_EQ(0, service.post(relayOf(1, "rtmp://cdn.test/live/two"))["code"]);
    EXPECT_TRUE(pollUntil([&] {
        return configurationIn(service.state()["relays"][0]["media"])["destination"] == "rtmp://cdn.test/live/two";
    }));
    ASSERT_EQ(0, service.post(removeRelayBody())["code"]);
    EXPECT_TRUE(service.state()["relays"].empty());
    EXPECT_TRUE(hasEvent(LiveMediaEvent::Kind::kState, "relay", "stopped"));
}

TEST_F(MediaService, AMixIsStartedUpdatedAndCancelled) {
    RunningService service(options());
    ASSERT_EQ(0, service.post(videoMixBody())["code"]);
    ASSERT_TRUE(pollUntil([&] { return configurationIn(service.state()["mixes"][0]["media"])["canvas"].is_object(); }));
    EXPECT_EQ(mOriginUrl + "/mix/" + ownStreamId(), service.state()["mixes"][0]["play"]);
    ASSERT_EQ(0, service.post(audioMixBody())["code"]);
    ASSERT_TRUE(pollUntil([&] { return configurationIn(service.state()["mixes"][0]["media"])["canvas"].is_null(); }));
    ASSERT_EQ(0, service.post(cancelMixBody())["code"]);
    EXPECT_TRUE(pollUntil([&] { return service.state()["mixes"][0]["media"]["state"] == "stopped"; }));
    EXPECT_FALSE(service.state()["mixes"][0]["running"]);
}

// Exception to the rule that no test asserts elapsed time: a stuck worker must be killed sooner than after 3 s.
TEST_F(MediaService, ARelayThatIsAddedAgainRunsInAnotherWorkerAfterTheStuckOneWasKilled) {
    RunningService service(options());
    const pid_t stuck = startStuckRelay(service);
    const auto begun = std::chrono::steady_clock::now();
    ASSERT_EQ(0, service.post(removeRelayBody())["code"]);
    ASSERT_EQ(0, service.post(relayOf(1))["code"]);
    ASSERT_TRUE(pollUntil([&] {
        return configurationIn(service.state()["relays"][0]["media"])["destination"] == "rtmp://cdn.test/live/one";
    }));
    EXPECT_LT(std::chrono::steady_clock::now() - begun, 2s);
    EXPECT_NE(0, ::kill(stuck, 0));
}

TEST_F(MediaService, OnlyRtmpDestinationsAreAcceptedAndNoLoops) {
    RunningService service(options());
    for (const std::string& url : {std::string("srt://cdn.test:9000"), mOriginUrl + "/live/" + ownStreamId()}) {
        const json refused = service.post(relayOf(1, url));
        EXPECT_EQ(4009, refused["code"]) << url;
        EXPECT_THAT(refused["message"], HasSubstr("must be an address such as \"rtmp://"));
        EXPECT_EQ("dest_stream_url", service.state()["requests"].back()["refused_field"]);
    }
    EXPECT_TRUE(service.state()["relays"].empty());
    EXPECT_EQ(0, service.post(relayOf(1, mOriginUrl + "/cdn/x"))["code"]);
}

TEST_F(MediaService, SixtyFourWorkersRunWithoutTheStoppingOnes) {
    RunningService service(options());
    const pid_t stuck = startStuckRelay(service);
    for (size_t number = 2; number <= WorkerPool::kMaxWorkers; ++number) {
        ASSERT_EQ(0, service.post(relayOf(static_cast<int>(number)))["code"]) << number;
    }
    EXPECT_EQ(4008, service.post(relayOf(1000))["code"]);
    EXPECT_EQ(4008, service.post(videoMixBody())["code"]);
    EXPECT_EQ(0, service.post(relayOf(5, "rtmp://cdn.test/live/moved"))["code"]);  // uses the worker of the relay
    EXPECT_EQ(WorkerPool::kMaxWorkers, service.state()["relays"].size());
    ASSERT_EQ(0, service.post(removeRelayBody())["code"]);
    EXPECT_EQ(0, service.post(relayOf(1000))["code"]);
    EXPECT_EQ(0, ::kill(stuck, SIGKILL));
    EXPECT_EQ(4008, service.post(relayOf(1))["code"]);
}

TEST_F(MediaService, AWorkerThatCannotBeStartedRefusesTheRequest) {
    LiveServiceOptions broken = options();
    const TemporaryFolder folder;
    broken.workerProgram = folder.path() + "/worker";
    writeAll(broken.workerProgram, "#!/no/such/interpreter\n");
    ASSERT_EQ(0, ::chmod(broken.workerProgram.c_str(), 0700));
    RunningService service(broken);
    const json refused = service.post(relayOf(1));
    EXPECT_EQ(4010, refused["code"]);
    EXPECT_THAT(refused["message"], HasSubstr("cannot run " + broken.workerProgram));
    EXPECT_TRUE(service.state()["relays"].empty());
}

TEST_F(MediaService, AStartFailsWithWhatIsMissing) {
    const auto errorOf = [this](const std::function<void(LiveServiceOptions&)>& change) {
        LiveServiceOptions changed = options();
        change(changed);
        vexalive::LiveService service(changed);
        const auto started = service.start();
        return started ? "" : started.error().message;
    };
    EXPECT_EQ("cannot run /no/worker: No such file or directory",
              errorOf([](LiveServiceOptions& changed) { changed.workerProgram = "/no/worker"; }));
    EXPECT_EQ("the origin is \"http://h\", must be rtmp://HOST or rtmp://HOST:PORT",
              errorOf([](LiveServiceOptions& changed) { changed.origin = "http://h"; }));
    EXPECT_THAT(errorOf([](LiveServiceOptions& changed) { changed.workerProgram = ""; }), HasSubstr("vexalive-media"));
}

TEST_F(MediaService, AStartAfterAStopRestartsAllWorkers) {
    RunningService service(options());
    service.post(relayOf(1));
    service.post(videoMixBody());
    service->stop();
    EXPECT_EQ(service.state()["relays"][0]["media"]["state"], "stopped");
    ASSERT_TRUE(service->start());
    EXPECT_TRUE(pollUntil([&] {
        const json state = service.state();
        return configurationIn(state["relays"][0]["media"]).contains("source") &&
               configurationIn(state["mixes"][0]["media"])["inputs"] == 2;
    }));
}

TEST_F(MediaService, ConcurrentRequestsKeepStateAndWorkersConsistent) {
    RunningService service(options());
    runConcurrently(6, [&service](int thread) {
        for (int round = 0; round < 10; ++round) {
            const int number = 1 + round % 3;
            service.post((thread + round) % 3 == 0 ? removalOf(number) : relayOf(number));
        }
    });
    const json state = service.state();
    for (const json& relay : state["relays"]) {
        EXPECT_NE(relay["media"]["state"], "stopped") << relay;
    }
}

// ---- The origin -----------------------------------------------------------------------------------------------------

TEST_F(MediaService, AnOriginThatStopsRespondingIsReported) {
    RunningService service(options());
    ASSERT_TRUE(pollUntil([&] { return service.state()["service"]["origin"]["state"] == "running"; }));
    EXPECT_EQ(mOriginUrl, service.state()["service"]["origin"]["address"]);
    mIsOriginSilent = true;
    ASSERT_TRUE(pollUntil([&] { return service.state()["service"]["origin"]["state"] == "reconnecting"; }));
    EXPECT_EQ(mOriginUrl + " does not respond as an RTMP server does", service.state()["service"]["origin"]["error"]);
    EXPECT_TRUE(hasEvent(LiveMediaEvent::Kind::kState, "origin", "running"));
    EXPECT_TRUE(hasEvent(LiveMediaEvent::Kind::kState, "origin", "reconnecting"));
}

TEST_F(MediaService, AnOriginIsCheckedAtEachOfItsAddresses) {
    std::vector<vexalive::SocketAddress> addresses;
    for (const std::string& url : {std::string("rtmp://127.0.0.1:1"), mOriginUrl}) {
        const auto found = vexalive::resolve(*vexalive::parseOriginAddress(url));
        ASSERT_TRUE(found && found->size() == 1u);
        addresses.push_back(found->front());
    }
    Journal<std::string> errors;
    const auto isReported = [&errors](const std::string& text) {
        return !errors.waitFor(1, [&text](const std::string& error) { return error == text; }).empty();
    };
    vexalive::OriginMonitor monitor;
    monitor.start("rtmp://both", addresses,
                  [&](const vexalive::OriginCheck& check) { errors.add(check ? "" : check.error().message); });
    EXPECT_TRUE(isReported(""));
    EXPECT_EQ("", errors.all().front());
    mIsOriginSilent = true;
    EXPECT_TRUE(isReported("rtmp://both does not respond as an RTMP server does"));
    monitor.stop();
}

TEST_F(MediaService, ALackOfDescriptorsIsNotBlamedOnTheOrigin) {
    RunningService service(options());
    const auto origin = [&service] { return service.state()["service"]["origin"]; };
    ASSERT_TRUE(pollUntil([&] { return origin()["state"] == "running"; }));
    const int handshakes = mOrigin.accepted();
    ASSERT_TRUE(pollUntil([&] { return mOrigin.accepted() > handshakes; }));  // the next check follows after 1 s
    bool isReported = false;
    json shown;
    withoutDescriptors([&] {
        isReported = pollUntil(
            [&] { return origin()["error"] == "this service cannot check " + mOriginUrl + ": Too many open files"; });
        shown = origin();
    });
    EXPECT_TRUE(isReported) << shown;
    EXPECT_EQ("running", shown["state"]);
    EXPECT_TRUE(pollUntil([&] { return origin()["error"] == nlohmann::json(""); }));
}

TEST_F(MediaService, TheOriginQueriesThePermissionToPublish) {
    RunningService service(options());
    const auto statusFor = [&service](const std::string& form) {
        return service.console().post("/origin/publish", form, "application/x-www-form-urlencoded").status;
    };
    EXPECT_EQ(200, statusFor("app=live&call=publish&addr=127.0.0.1&name=" + ownStreamId()));
    EXPECT_EQ(403, statusFor("app=live&call=publish&name=alice"));
    EXPECT_TRUE(hasEvent(LiveMediaEvent::Kind::kRefusedPublish, "origin", "found \"alice\""));
}

// ---- Snapshots ------------------------------------------------------------------------------------------------------

// Exception to the rule that no test asserts elapsed time: a snapshot is shared for up to 250 ms.
TEST_F(MediaService, ConcurrentClientsShareSnapshotsThatAreRenewedFourTimesASecond) {
    RunningService service(options());
    service.post(videoMixBody());
    const auto snapshot = [&service] { return service.console().get("/snapshot?mix=" + ownStreamId()); };
    HttpResponse first = snapshot();
    EXPECT_EQ("image/jpeg", first.headers["Content-Type"]);
    EXPECT_EQ("no-store", first.headers["Cache-Control"]);
    EXPECT_EQ("\xff\xd8\xff\xd7\x4d\x35", first.body);
    Journal<std::string> received;
    const auto end = std::chrono::steady_clock::now() + 1s;
    runConcurrently(8, [&](int) {
        while (std::chrono::steady_clock::now() < end) {
            const HttpResponse response = snapshot();
            received.add(response.status == 200 ? response.body : "none");
        }
    });
    const std::vector<std::string> all = received.all();
    const std::set<std::string> distinct(all.begin(), all.end());
    EXPECT_EQ(0u, distinct.count("none"));
    EXPECT_GE(distinct.size(), 3u);
    EXPECT_LE(distinct.size(), 6u);
    service.post(videoMixBody());  // leads to a status, whose "frames" is the number of all snapshots of the worker
    ASSERT_TRUE(pollUntil([&] { return reportOf(service.state()["mixes"][0]["media"]).configurations == 2; }));
    EXPECT_LE(service.state()["mixes"][0]["media"]["frames"], 8);
}

TEST_F(MediaService, AMissingSnapshotIs404) {
    RunningService service(options());
    service.post(relayOf(1));
    for (const char* path : {"/snapshot", "/snapshot?mix=", "/snapshot?mix=none", "/snapshot?other=1"}) {
        const HttpResponse response = service.console().get(path);
        EXPECT_EQ(404, response.status) << path;
        EXPECT_TRUE(json::parse(response.body)["message"].is_string()) << path;
    }
}

// Exception to the rule that no test asserts elapsed time: if the mix did not end, the request would take 1 s.
TEST_F(MediaService, ASnapshotRequestEndsWithTheMixAndWithTheService) {
    const std::string id = streamIdOf(0xb11d);  // selects a worker that writes no snapshot
    json start = videoMixBody();
    json cancel = cancelMixBody();
    for (json* const body : {&start, &cancel}) {
        (*body)["session_id"] = id;
        (*body)["output_param"]["output_stream_id"] = id;
    }
    cancel["input_stream_list"][0]["input_stream_id"] = id;
    for (const bool isCancelled : {true, false}) {
        RunningService service(options());
        ASSERT_EQ(0, service.post(start)["code"]);
        HttpClient console = service.console();
        std::thread client([&] { console.get("/snapshot?mix=" + id); });
        EXPECT_TRUE(pollUntil([&] { return service.state()["mixes"][0]["media"]["frames"] == 1; }));
        const auto begun = std::chrono::steady_clock::now();
        if (isCancelled) {
            EXPECT_EQ(0, service.post(cancel)["code"]);
        } else {
            service->stop();
        }
        client.join();
        EXPECT_LT(std::chrono::steady_clock::now() - begun, 600ms) << isCancelled;
    }
}
