// The service with media and fake workers: how it configures them, and what it reports.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "service/LiveService.h"
#include "service/MediaRules.h"
#include "service/WorkerPool.h"
#include "support/ServiceTesting.h"

using namespace servicetesting;
using namespace std::chrono_literals;
using vexalive::AcceptedRequest;
using vexalive::LiveMediaEvent;
using vexalive::LiveServiceOptions;
using vexalive::WorkerPool;

namespace {

// Accepts connections and greets as an RTMP server does, until it is told to be mute.
class HandshakeServer {
public:
    HandshakeServer() : mSocket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(0, ::bind(mSocket, reinterpret_cast<sockaddr*>(&address), length));
        EXPECT_EQ(0, ::listen(mSocket, 16));
        EXPECT_EQ(0, ::getsockname(mSocket, reinterpret_cast<sockaddr*>(&address), &length));
        mUrl = "rtmp://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        mThread = std::thread([this] { serve(); });
    }
    ~HandshakeServer() {
        ::shutdown(mSocket, SHUT_RDWR);
        mThread.join();
        ::close(mSocket);
    }
    const std::string& url() const { return mUrl; }
    void stopResponding() { mIsSilent = true; }
    int handshakes() const { return mHandshakes; }

private:
    void serve() {
        for (int client = 0; (client = ::accept4(mSocket, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            char handshake[1537];
            ::recv(client, handshake, sizeof handshake, MSG_WAITALL);
            if (!mIsSilent) {
                ::send(client, "\x03", 1, MSG_NOSIGNAL);
            }
            ::close(client);
            ++mHandshakes;
        }
    }

    const int mSocket;
    std::string mUrl;
    std::atomic<bool> mIsSilent{false};
    std::atomic<int> mHandshakes{0};
    std::thread mThread;
};

class MediaService : public ::testing::Test {
protected:
    LiveServiceOptions options() {
        LiveServiceOptions result;
        result.tls = false;
        result.media = true;
        result.origin = mOrigin.url();
        result.workerProgram = FAKE_WORKER;
        result.mediaObserver = [this](const LiveMediaEvent& event) {
            const std::lock_guard<std::mutex> lock(mMutex);
            mEvents.push_back(event);
        };
        return result;
    }

    bool hasEvent(LiveMediaEvent::Kind kind, const std::string& subject, const std::string& text) {
        const std::lock_guard<std::mutex> lock(mMutex);
        for (const LiveMediaEvent& event : mEvents) {
            if (event.kind == kind && event.subject == subject &&
                (event.state == text || event.text.find(text) != std::string::npos)) {
                return true;
            }
        }
        return false;
    }

    static json relayOf(int number, const std::string& destination = "rtmp://cdn.test/live/one") {
        json body = addRelayBody();
        body["stream_id"] = streamIdOf(number);
        body["dest_stream_url"] = destination;
        return body;
    }

    // What the worker says that it was told.
    static json configurationIn(const json& media) {
        const std::string error = media.is_null() ? "" : media["error"].get<std::string>();
        const size_t start = error.find(": {");
        return start == std::string::npos ? json::object() : json::parse(error.substr(start + 2));
    }

    static pid_t workerOf(const json& media) {
        const std::string error = media.is_null() ? "" : media["error"].get<std::string>();
        const size_t at = error.find(" of ");
        return at == std::string::npos ? 0 : std::atoi(error.c_str() + at + 4);
    }

    HandshakeServer mOrigin;
    std::mutex mMutex;
    std::vector<LiveMediaEvent> mEvents;
};

// Which of its pictures the fake worker gave.
int numberOf(const std::string& picture) {
    std::string text(picture.size() / 3 * 4 + 1, '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                    reinterpret_cast<const unsigned char*>(picture.data()), static_cast<int>(picture.size()));
    return std::atoi(text.c_str() + 4) - 1000;
}

AcceptedRequest mixRequest() {
    AcceptedRequest request;
    request.kind = AcceptedRequest::Kind::kStartMix;
    request.streamId = streamIdOf(1);
    request.cropsCenter = true;
    request.canvas = vexalive::MixCanvas{1280, 720, "0x00ff00"};
    request.inputs = {{streamIdOf(2), false, 2, 640, 360, -10, 20}, {streamIdOf(3), true, 3, 0, 0, 0, 0}};
    request.output = {{"output_stream_bitrate", 1500}, {"output_audio_channels", -1}};
    return request;
}

}  // namespace

// ---- Configurations -------------------------------------------------------------------------------------------------

TEST(MediaRules, AMixConfigurationIsComplete) {
    const std::string line = vexalive::mixConfiguration(mixRequest(), "rtmp://127.0.0.1:1935");
    const json expected = json::parse(R"({"mix":{
        "destination":"rtmp://127.0.0.1:1935/mix/8888_00000000000000000000000000000001","crop_center":true,
        "canvas":{"width":1280,"height":720,"color":"0x00ff00"},
        "inputs":[{"stream_id":"8888_00000000000000000000000000000002",
                   "source":"rtmp://127.0.0.1:1935/live/8888_00000000000000000000000000000002",
                   "audio_only":false,"layer":2,"x":-10,"y":20,"width":640,"height":360},
                  {"stream_id":"8888_00000000000000000000000000000003",
                   "source":"rtmp://127.0.0.1:1935/live/8888_00000000000000000000000000000003",
                   "audio_only":true,"layer":3,"x":0,"y":0,"width":0,"height":0}],
        "output":{"output_stream_bitrate":1500,"output_audio_channels":-1}}})");
    EXPECT_EQ(expected, json::parse(line));

    AcceptedRequest audio = mixRequest();
    audio.canvas.reset();
    audio.output.clear();
    const json mix = json::parse(vexalive::mixConfiguration(audio, "rtmp://h:1"))["mix"];
    EXPECT_TRUE(mix["canvas"].is_null());
    EXPECT_EQ(json::object(), mix["output"]);
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
    const auto client = service.client();
    ASSERT_EQ(0, post(*client, relayOf(1))["code"]);
    ASSERT_TRUE(eventually([&] { return service.state()["relays"][0]["media"]["state"] == "running"; }));
    json relay = service.state()["relays"][0];
    EXPECT_EQ(mOrigin.url() + "/live/" + streamIdOf(1), relay["source"]);
    EXPECT_EQ((json{{"source", relay["source"]}, {"destination", "rtmp://cdn.test/live/one"}}),
              configurationIn(relay["media"]));
    EXPECT_EQ(1000, relay["media"]["bytes"]);
    EXPECT_EQ(0, relay["media"]["restarts"]);

    ASSERT_EQ(0, post(*client, relayOf(1, "rtmp://cdn.test/live/two"))["code"]);
    EXPECT_TRUE(eventually([&] {
        return configurationIn(service.state()["relays"][0]["media"])["destination"] == "rtmp://cdn.test/live/two";
    }));
    ASSERT_EQ(0, post(*client, removeRelayBody())["code"]);
    EXPECT_TRUE(service.state()["relays"].empty());
    EXPECT_TRUE(eventually([&] { return hasEvent(LiveMediaEvent::Kind::kState, "relay", "stopped"); }));
}

TEST_F(MediaService, AMixIsStartedUpdatedAndCancelled) {
    RunningService service(options());
    const auto client = service.client();
    ASSERT_EQ(0, post(*client, videoMixBody())["code"]);
    ASSERT_TRUE(
        eventually([&] { return configurationIn(service.state()["mixes"][0]["media"])["canvas"].is_object(); }));
    EXPECT_EQ(mOrigin.url() + "/mix/" + ownStreamId(), service.state()["mixes"][0]["play"]);
    ASSERT_EQ(0, post(*client, audioMixBody())["code"]);
    ASSERT_TRUE(eventually([&] { return configurationIn(service.state()["mixes"][0]["media"])["canvas"].is_null(); }));
    ASSERT_EQ(0, post(*client, cancelMixBody())["code"]);
    EXPECT_TRUE(eventually([&] { return service.state()["mixes"][0]["media"]["state"] == "stopped"; }));
    EXPECT_FALSE(service.state()["mixes"][0]["running"]);
}

TEST_F(MediaService, ARelayThatIsAddedAgainRunsSoonAndInOneWorker) {
    RunningService service(options());
    const auto client = service.client();
    post(*client, relayOf(1, "rtmp://cdn.test/live/babe"));  // does not end when it is asked to
    ASSERT_TRUE(eventually([&] { return workerOf(service.state()["relays"][0]["media"]) != 0; }));
    const pid_t stuck = workerOf(service.state()["relays"][0]["media"]);
    const auto begun = std::chrono::steady_clock::now();
    ASSERT_EQ(0, post(*client, removeRelayBody())["code"]);
    ASSERT_EQ(0, post(*client, relayOf(1))["code"]);
    ASSERT_TRUE(eventually([&] {
        return configurationIn(service.state()["relays"][0]["media"])["destination"] == "rtmp://cdn.test/live/one";
    }));
    EXPECT_LT(std::chrono::steady_clock::now() - begun, 2s);
    EXPECT_NE(0, ::kill(stuck, 0));
}

TEST_F(MediaService, OnlyRtmpDestinationsAreAcceptedAndNoLoops) {
    RunningService service(options());
    const auto client = service.client();
    const std::string live = mOrigin.url() + "/live/" + ownStreamId();
    for (const std::string& url :
         {std::string("srt://cdn.test:9000"), std::string("rtmps://cdn.test/live/x"), std::string("http://cdn.test/x"),
          std::string("rtmp:///live/x"), std::string("rtmp://:1935/live/x"), std::string("RTMP://cdn.test/live"),
          std::string("rtmp://cdn.test/live"), live}) {
        const json answer = post(*client, relayOf(1, url));
        EXPECT_EQ(4009, answer["code"]) << url;
        EXPECT_NE(std::string::npos, answer["message"].get<std::string>().find("must be an address such as \"rtmp://"));
    }
    const json state = service.state();
    EXPECT_TRUE(state["relays"].empty());
    for (const json& request : state["requests"]) {
        EXPECT_EQ("dest_stream_url", request["refused_field"]);
    }
    EXPECT_EQ(0, post(*client, relayOf(1, mOrigin.url() + "/cdn/x"))["code"]);
}

TEST_F(MediaService, SixtyFourWorkersRunWithoutTheStoppingOnes) {
    RunningService service(options());
    const auto client = service.client();
    post(*client, relayOf(1, "rtmp://cdn.test/live/babe"));  // does not end when it is asked to
    ASSERT_TRUE(eventually([&] { return workerOf(service.state()["relays"][0]["media"]) != 0; }));
    const pid_t stuck = workerOf(service.state()["relays"][0]["media"]);
    for (size_t number = 2; number <= WorkerPool::kMaxWorkers; ++number) {
        ASSERT_EQ(0, post(*client, relayOf(static_cast<int>(number)))["code"]) << number;
    }
    const json refused = post(*client, relayOf(1000));
    EXPECT_EQ(4008, refused["code"]);
    EXPECT_EQ(4008, post(*client, videoMixBody())["code"]);
    EXPECT_EQ(0, post(*client, relayOf(5, "rtmp://cdn.test/live/moved"))["code"]);  // no further one
    EXPECT_EQ(WorkerPool::kMaxWorkers, service.state()["relays"].size());
    ASSERT_EQ(0, post(*client, removeRelayBody())["code"]);
    EXPECT_EQ(0, post(*client, relayOf(1000))["code"]);
    EXPECT_EQ(0, ::kill(stuck, SIGKILL));
    EXPECT_EQ(4008, post(*client, relayOf(1))["code"]);
}

TEST_F(MediaService, AWorkerThatCannotBeStartedRefusesTheRequest) {
    LiveServiceOptions broken = options();
    const TemporaryFolder folder;
    broken.workerProgram = folder.path() + "/worker";
    writeAll(broken.workerProgram, "#!/no/such/interpreter\n");
    ASSERT_EQ(0, ::chmod(broken.workerProgram.c_str(), 0700));
    RunningService service(broken);
    const json answer = post(*service.client(), relayOf(1));
    EXPECT_EQ(4010, answer["code"]);
    EXPECT_NE(std::string::npos, answer["message"].get<std::string>().find("cannot run " + broken.workerProgram));
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
    EXPECT_NE(std::string::npos,
              errorOf([](LiveServiceOptions& changed) { changed.workerProgram = ""; }).find("vexalive-media"));
}

TEST_F(MediaService, AStartAfterAStopRestartsAllWorkers) {
    RunningService service(options());
    post(*service.client(), relayOf(1));
    post(*service.client(), videoMixBody());
    const std::string console = service->consoleAddress();
    service->stop();
    EXPECT_EQ(service.state()["relays"][0]["media"]["state"], "stopped");
    ASSERT_TRUE(service->start());
    EXPECT_TRUE(eventually([&] {
        const json state = service.state();
        return configurationIn(state["relays"][0]["media"]).contains("source") &&
               configurationIn(state["mixes"][0]["media"])["inputs"] == 2;
    }));
}

TEST_F(MediaService, ConcurrentRequestsKeepStateAndWorkersConsistent) {
    RunningService service(options());
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 6; ++thread) {
        threads.emplace_back([&service, thread] {
            const auto client = service.client();
            for (int round = 0; round < 10; ++round) {
                json remove = removeRelayBody();
                remove["stream_id"] = streamIdOf(1 + round % 3);
                post(*client, (thread + round) % 3 == 0 ? remove : relayOf(1 + round % 3));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const json relays = service.state()["relays"];
    for (const json& relay : relays) {
        EXPECT_NE(relay["media"]["state"], "stopped") << relay;
    }
}

// ---- The origin -----------------------------------------------------------------------------------------------------

TEST_F(MediaService, AnOriginThatStopsRespondingIsReported) {
    RunningService service(options());
    ASSERT_TRUE(eventually([&] { return service.state()["service"]["origin"]["state"] == "running"; }));
    EXPECT_EQ(mOrigin.url(), service.state()["service"]["origin"]["address"]);
    mOrigin.stopResponding();
    ASSERT_TRUE(eventually([&] { return service.state()["service"]["origin"]["state"] == "reconnecting"; }));
    EXPECT_EQ(mOrigin.url() + " does not respond as an RTMP server does",
              service.state()["service"]["origin"]["error"]);
    EXPECT_TRUE(hasEvent(LiveMediaEvent::Kind::kState, "origin", "running"));
    EXPECT_TRUE(eventually([&] { return hasEvent(LiveMediaEvent::Kind::kState, "origin", "reconnecting"); }));
}

TEST_F(MediaService, AnOriginIsCheckedAtEachOfItsAddresses) {
    std::vector<vexalive::SocketAddress> addresses;
    for (const std::string& url : {std::string("rtmp://127.0.0.1:1"), mOrigin.url()}) {
        const auto found = vexalive::resolve(*vexalive::parseOriginAddress(url));
        ASSERT_TRUE(found && found->size() == 1u);
        addresses.push_back(found->front());
    }
    std::vector<std::string> errors;
    vexalive::OriginMonitor monitor;
    monitor.start("rtmp://both", addresses, [&](const vexalive::OriginCheck& check) {
        const std::lock_guard<std::mutex> lock(mMutex);
        errors.push_back(check.error);
    });
    const auto isReported = [&](const std::string& text) {
        return eventually([&] {
            const std::lock_guard<std::mutex> lock(mMutex);
            return !errors.empty() && errors.back() == text;
        });
    };
    EXPECT_TRUE(isReported(""));
    EXPECT_EQ("", errors.front());
    mOrigin.stopResponding();
    EXPECT_TRUE(isReported("rtmp://both does not respond as an RTMP server does"));
    monitor.stop();
}

TEST_F(MediaService, ALackOfDescriptorsIsNotBlamedOnTheOrigin) {
    RunningService service(options());
    const auto origin = [&service] { return service.state()["service"]["origin"]; };
    ASSERT_TRUE(eventually([&] { return origin()["state"] == "running"; }));
    const int handshakes = mOrigin.handshakes();
    ASSERT_TRUE(eventually([&] { return mOrigin.handshakes() > handshakes; }));  // the next one comes in a second
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
    const rlimit none = {3, before.rlim_max};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
    const bool isReported = eventually(
        [&] { return origin()["error"] == "this service cannot check " + mOrigin.url() + ": Too many open files"; });
    const json shown = origin();
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_TRUE(isReported) << shown;
    EXPECT_EQ("running", shown["state"]);
    EXPECT_TRUE(eventually([&] { return origin()["error"] == nlohmann::json(""); }));
}

TEST_F(MediaService, TheOriginQueriesWhoMayPublish) {
    RunningService service(options());
    httplib::Client console("http://" + service->consoleAddress());
    const auto ask = [&console](const std::string& form) {
        const auto result = console.Post("/origin/publish", form, "application/x-www-form-urlencoded");
        return result ? result->status : 0;
    };
    EXPECT_EQ(200, ask("app=live&call=publish&addr=127.0.0.1&name=" + ownStreamId()));
    EXPECT_EQ(403, ask("app=live&call=publish&name=alice"));
    EXPECT_TRUE(hasEvent(LiveMediaEvent::Kind::kRefusedPublish, "origin", "found \"alice\""));
}

// ---- Pictures -------------------------------------------------------------------------------------------------------

TEST_F(MediaService, ConcurrentClientsGetFreshSnapshots) {
    RunningService service(options());
    post(*service.client(), videoMixBody());
    const auto pictureNow = [&service] {
        httplib::Client console("http://" + service->consoleAddress());
        const auto result = console.Get("/snapshot?mix=" + ownStreamId());
        if (!result || result->status != 200) {
            return std::string("none");
        }
        EXPECT_EQ("image/jpeg", result->get_header_value("Content-Type"));
        EXPECT_EQ("no-store", result->get_header_value("Cache-Control"));
        return result->body;
    };
    EXPECT_EQ("\xff\xd8\xff\xd7\x4d\x35", pictureNow());
    std::mutex mutex;
    std::set<std::string> seen;
    std::vector<std::thread> threads;
    const auto begun = std::chrono::steady_clock::now();
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&] {
            while (std::chrono::steady_clock::now() < begun + 1s) {
                const std::string picture = pictureNow();
                const std::lock_guard<std::mutex> lock(mutex);
                seen.insert(picture);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0u, seen.count("none"));
    EXPECT_GE(seen.size(), 3u);
    EXPECT_LE(seen.size(), 6u);  // four a second, however many ask
    for (const std::string& picture : seen) {
        EXPECT_LE(numberOf(picture), 8) << "the worker was asked for each who asked";
    }
}

TEST_F(MediaService, AMissingSnapshotIs404) {
    RunningService service(options());
    post(*service.client(), relayOf(1));
    httplib::Client console("http://" + service->consoleAddress());
    for (const char* path : {"/snapshot", "/snapshot?mix=", "/snapshot?mix=none", "/snapshot?other=1"}) {
        const auto result = console.Get(path);
        ASSERT_TRUE(result) << path;
        EXPECT_EQ(404, result->status) << path;
        EXPECT_TRUE(json::parse(result->body)["message"].is_string()) << path;
    }
}

TEST_F(MediaService, ASnapshotRequestEndsWithTheMixAndWithTheService) {
    const std::string id = streamIdOf(0xb11d);  // its worker gives no picture
    json start = videoMixBody();
    json cancel = cancelMixBody();
    for (json* const body : {&start, &cancel}) {
        (*body)["session_id"] = id;
        (*body)["output_param"]["output_stream_id"] = id;
    }
    cancel["input_stream_list"][0]["input_stream_id"] = id;
    for (const std::string& how : {std::string("cancel"), std::string("stop"), std::string("destruction")}) {
        std::optional<RunningService> service(std::in_place, options());
        const auto client = service->client();
        ASSERT_EQ(0, post(*client, start)["code"]);
        std::chrono::steady_clock::time_point answered;
        std::thread asking([&, address = (*service)->consoleAddress()] {
            httplib::Client console("http://" + address);
            console.Get("/snapshot?mix=" + id);
            answered = std::chrono::steady_clock::now();
        });
        std::this_thread::sleep_for(100ms);
        const auto begun = std::chrono::steady_clock::now();
        if (how == "cancel") {
            EXPECT_EQ(0, post(*client, cancel)["code"]);
        } else if (how == "stop") {
            (*service)->stop();
        } else {
            service.reset();
        }
        asking.join();
        EXPECT_LT(answered - begun, 600ms) << how;  // else it waits for a second
    }
}
