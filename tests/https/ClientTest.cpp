// The HTTPS client on real sockets: return codes, delivery, threads and the destruction of clients.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <openssl/ssl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "base/CVexaHttpSendRecv.h"
#include "base/Json.h"
#include "platform/Platform.h"
#include "support/Poll.h"
#include "support/ScriptedServer.h"

namespace {

using namespace std::chrono_literals;

using Connection = ScriptedServer::Connection;

constexpr size_t kLimit = 100000;  // HttpOptions::maxResponseBytes in this program
// Return codes that the adapter does not retry.
constexpr int kNotHttps = CVexaHttpSendRecv::kTransportErrorBase + 1;
constexpr int kMalformedAddress = CVexaHttpSendRecv::kTransportErrorBase + 3;
constexpr int kOverLimit = CVexaHttpSendRecv::kTransportErrorBase + 63;

struct Reply {
    int retCode = -1;
    std::string body;
};

KstCopyOnWriteBuffer bufferOf(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

std::string textOf(const KstCopyOnWriteBuffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.cdata()), buffer.size()};
}

void sendTo(CVexaHttpSendRecv& client, const std::string& url, CVexaHttpSendRecv::Callback callback,
            const std::string& text = "{}") {
    KstCopyOnWriteBuffer body = bufferOf(text);
    client.sendHttpsRequest(body, url, std::move(callback));
}

std::future<Reply> send(CVexaHttpSendRecv& client, const std::string& url, const std::string& text = "{}") {
    auto promise = std::make_shared<std::promise<Reply>>();
    std::future<Reply> future = promise->get_future();
    const auto callback = [promise](int retCode, KstCopyOnWriteBuffer& response) {
        promise->set_value({retCode, textOf(response)});
    };
    sendTo(client, url, callback, text);
    return future;
}

Reply wait(std::future<Reply> future) {
    if (future.wait_for(kTestTimeout) != std::future_status::ready) {
        ADD_FAILURE() << "no callback";
        return {};
    }
    return future.get();
}

Reply post(const std::string& url, const std::string& text = "{}") {
    CVexaHttpSendRecv client;
    return wait(send(client, url, text));
}

// Handshakes, reads one request and then calls `respond` with it.
ScriptedServer::Script onRequest(std::function<void(Connection& connection, const std::string& request)> respond) {
    return [respond = std::move(respond)](Connection& connection) {
        if (connection.handshake()) {
            const std::string request = connection.readRequest();
            if (!request.empty()) {
                respond(connection, request);
            }
        }
    };
}

// The body must be JSON that describes the error and has no code: the adapter then neither retries nor reads a code.
void expectExplained(const Reply& reply, int retCode) {
    EXPECT_EQ(retCode, reply.retCode);
    const json::Value description = json::Deserialize(reply.body);
    EXPECT_TRUE(description.HasKey("transportError")) << reply.body;
    EXPECT_FALSE(description.HasKey("code") || description.HasKey("ErrorCode")) << reply.body;
}

// getaddrinfo() blocks on this gate when it resolves "silent.invalid".
Gate& silentNameServer() {
    static auto& gate = *new Gate();  // never destroyed: a resolver thread may still wait at the process's exit
    return gate;
}

int countEntries(const char* folder) {
    const auto entries = std::filesystem::directory_iterator(folder);
    return static_cast<int>(std::distance(begin(entries), end(entries)));
}

// ---- Before the first request ---------------------------------------------------------------------------------------

// These tests come first in the file, because the first request starts the client's engine for the whole process.
TEST(HttpsClientFirst, ClientsThatSentNothingOwnNoThreadAndNoDescriptor) {
    const int threads = countEntries("/proc/self/task");
    const int descriptors = countEntries("/proc/self/fd");
    std::vector<std::unique_ptr<CVexaHttpSendRecv>> clients;
    for (int i = 0; i < 100; ++i) {
        clients.push_back(std::make_unique<CVexaHttpSendRecv>());
    }
    EXPECT_EQ(threads, countEntries("/proc/self/task"));
    EXPECT_EQ(descriptors, countEntries("/proc/self/fd"));
}

TEST(HttpsClientFirst, OptionsOutOfRangeAreRefusedAndAllAreAfterTheFirstRequest) {
    vexalive::HttpOptions options;
    options.connectTimeout = 0ms;
    EXPECT_FALSE(vexalive::setHttpOptions(options));
    options = {};
    options.totalTimeout = 2h;
    EXPECT_FALSE(vexalive::setHttpOptions(options));
    options = {};
    options.maxResponseBytes = 0;
    EXPECT_FALSE(vexalive::setHttpOptions(options));
    post("https://127.0.0.1:1/");
    EXPECT_FALSE(vexalive::setHttpOptions({}));
}

// Must run before any request times out: after a timeout, the client opens new connections for a while.
TEST(HttpsClientFirst, AllClientsShareAConnectionThatIsFree) {
    ScriptedServer server(alwaysRespond(httpResponse(200, "{}")));
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(0, post(server.url()).retCode);  // a new client each
    }
    EXPECT_EQ(1, server.accepted());
}

// Until an HTTP/2 server has sent SETTINGS, libcurl opens at most 100 streams on a connection.
TEST(HttpsClientFirst, RequestsBeyondTheCapacityOfTheOnlyConnectionWaitForIt) {
    ScriptedServer::Options options;
    options.http2 = true;
    ScriptedServer server(options, [](Connection& connection) {
        if (connection.handshake()) {
            connection.waitForClient();
        }
    });
    CVexaHttpSendRecv client;
    for (int i = 0; i < 150; ++i) {
        send(client, server.url());
    }
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(1, server.accepted());
}

// ---- Return codes ---------------------------------------------------------------------------------------------------

TEST(HttpsClient, PostsTheBodyAsJsonAndReportsTheResponseToA200) {
    std::promise<std::string> received;
    ScriptedServer server(onRequest([&received](Connection& connection, const std::string& request) {
        received.set_value(request);
        connection.write(httpResponse(200, "{\"code\":0}"));
        connection.waitForClient();
    }));
    const Reply reply = post(server.url("/v3/liveinterface/x?sdkappid=1&usersig=a/b+c"), "{\"a\":1}");
    EXPECT_EQ(0, reply.retCode);
    EXPECT_EQ("{\"code\":0}", reply.body);
    const std::string request = received.get_future().get();
    EXPECT_EQ(0u, request.find("POST /v3/liveinterface/x?sdkappid=1&usersig=a/b+c HTTP/1.1\r\n")) << request;
    EXPECT_NE(std::string::npos, request.find("\r\nContent-Type: application/json\r\n")) << request;
    EXPECT_NE(std::string::npos, request.find("\r\nContent-Length: 7\r\n")) << request;
    EXPECT_EQ(std::string::npos, request.find("Expect")) << request;
    EXPECT_EQ("\r\n\r\n{\"a\":1}", request.substr(request.size() - 11)) << request;
}

TEST(HttpsClient, ZeroBytesPassInBothBodies) {
    const std::string text("{\"a\":\"\0\"}", 9);
    ScriptedServer server(onRequest([](Connection& connection, const std::string& request) {
        connection.write(httpResponse(200, request.substr(request.find("\r\n\r\n") + 4)));
        connection.waitForClient();
    }));
    EXPECT_EQ(text, post(server.url(), text).body);
}

TEST(HttpsClient, EachResponseHasItsReturnCode) {
    struct Case {
        std::string response;
        int retCode;
        bool endsConnection = false;
    };
    const std::string head = "HTTP/1.1 200 OK\r\n";
    std::vector<Case> cases = {
        // The fault matrix has the other points at which a response may be cut off.
        {head + "Content-Length: 9\r\n\r\n", 1, true},
        {head + "Transfer-Encoding: chunked\r\n\r\n9\r\n{\"c", 1, true},
        {httpResponse(200, std::string(kLimit, 'x')), 0},
        {httpResponse(200, std::string(kLimit + 1, 'x')), kOverLimit},
        {head + "Connection: close\r\n\r\n" + std::string(kLimit + 1, 'x'), kOverLimit, true},
        {head + "Content-Length: 1073741824\r\n\r\n", kOverLimit},
    };
    for (const int status : {200, 201, 202, 299}) {
        cases.push_back({httpResponse(status, "a body"), 0});
    }
    for (const int status : {300, 400, 401, 403, 404, 413, 501, 505, 599}) {
        cases.push_back({httpResponse(status, "a body"), status});
    }
    for (const Case& each : cases) {
        SCOPED_TRACE(each.response.substr(0, 80));
        ScriptedServer server(onRequest([&each](Connection& connection, const std::string&) {
            connection.write(each.response);
            if (!each.endsConnection) {
                connection.waitForClient();
            }
        }));
        const Reply reply = post(server.url());
        EXPECT_EQ(each.retCode, reply.retCode);
        if (each.retCode == kOverLimit) {
            expectExplained(reply, kOverLimit);
        } else if (!each.endsConnection) {
            EXPECT_EQ(each.response.substr(each.response.find("\r\n\r\n") + 4), reply.body);
        }
    }
}

TEST(HttpsClient, ARedirectIsReportedAndNotFollowed) {
    ScriptedServer elsewhere(alwaysRespond(httpResponse(200, "{}")));
    ScriptedServer server(alwaysRespond(httpResponse(301, "", "Location: " + elsewhere.url() + "\r\n")));
    EXPECT_EQ(301, post(server.url()).retCode);
    EXPECT_EQ(0, elsewhere.accepted());
}

TEST(HttpsClient, AResponseThatIsNotHttpIsNoSuccess) {
    for (const char* start : {"HTTP/1.1 000 Zero", "HTTP/1.1 001 One", "\x01\x02 garbage \xff\r\n\r\n"}) {
        ScriptedServer server(alwaysRespond(std::string(start) + "\r\nContent-Length: 2\r\n\r\n{}"));
        EXPECT_GE(post(server.url()).retCode, CVexaHttpSendRecv::kTransportErrorBase) << start;
    }
    ScriptedServer plain([](Connection& connection) {
        connection.writePlain("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}");
        connection.waitForClient();
    });
    EXPECT_NE(0, post(plain.url()).retCode);
}

TEST(HttpsClient, ManyRequestsToAServerThatNeverHandshakesAllTimeOut) {
    ScriptedServer server([](Connection& connection) { connection.waitForClient(); });
    CVexaHttpSendRecv client;
    std::vector<std::future<Reply>> replies;
    for (int i = 0; i < 150; ++i) {
        replies.push_back(send(client, server.url()));
    }
    for (std::future<Reply>& reply : replies) {
        EXPECT_EQ(1, wait(std::move(reply)).retCode);
    }
}

TEST(HttpsClient, AServerWithTls12AtMostIsAccepted) {
    ScriptedServer server({CertificateFault::kNone, TLS1_2_VERSION}, alwaysRespond(httpResponse(200, "{}")));
    EXPECT_EQ(0, post(server.url()).retCode);
}

TEST(HttpsClient, AnUnusableAddressIsNotRetryableAndNothingIsSent) {
    ScriptedServer server(alwaysRespond(httpResponse(200, "{}")));
    for (const std::string& path :
         {std::string("/x?usersig=a b"), std::string("/x?usersig=a\nb"), std::string("/x?a\0b", 6)}) {
        expectExplained(post(server.url(path)), kMalformedAddress);
    }
    expectExplained(post(""), kMalformedAddress);
    expectExplained(post("http://127.0.0.1:1/"), kNotHttps);
    expectExplained(post("file:///etc/hostname"), kNotHttps);
    EXPECT_EQ(0, server.accepted());
}

// ---- Connections ----------------------------------------------------------------------------------------------------

TEST(HttpsClient, AConnectionThatTheServerClosedMeanwhileIsReplaced) {
    ScriptedServer server(onRequest([](Connection& connection, const std::string&) {
        connection.write(httpResponse(200, "{}"));  // the script ends: the server closes without "Connection: close"
    }));
    CVexaHttpSendRecv client;
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(0, wait(send(client, server.url())).retCode);
    }
    EXPECT_EQ(20, server.accepted());
}

// ---- Delivery -------------------------------------------------------------------------------------------------------

TEST(HttpsClient, ResponsesComeOnAThreadOfTheClientsAndOneAtATime) {
    ScriptedServer server(alwaysRespond(httpResponse(200, "{}")));
    std::atomic<int> running{0};
    std::atomic<int> overlaps{0};
    Journal<std::thread::id> threads;
    CVexaHttpSendRecv client;
    for (int i = 0; i < 50; ++i) {
        sendTo(client, server.url(), [&](auto&&...) {
            overlaps += ++running != 1;
            std::this_thread::yield();
            --running;
            threads.add(std::this_thread::get_id());
        });
    }
    EXPECT_TRUE(threads.await(50));
    EXPECT_THAT(threads.all(), testing::Each(testing::Ne(std::this_thread::get_id())));
    EXPECT_EQ(0, overlaps);
}

TEST(HttpsClient, CallbacksThatBlockDelayNoOtherClient) {
    ScriptedServer server(alwaysRespond(httpResponse(200, "{}")));
    Gate release;  // declared before the clients: their destructors wait for callbacks that use it
    Journal<bool> blocked;
    std::vector<std::unique_ptr<CVexaHttpSendRecv>> clients;
    for (int i = 0; i < 8; ++i) {
        clients.push_back(std::make_unique<CVexaHttpSendRecv>());
        sendTo(*clients.back(), server.url(), [&](auto&&...) {
            blocked.add(true);
            EXPECT_TRUE(release.pass());
        });
    }
    EXPECT_TRUE(blocked.await(clients.size()));
    EXPECT_EQ(0, post(server.url()).retCode);
    std::this_thread::sleep_for(2500ms);  // longer than an idle delivery thread lives
    EXPECT_EQ(0, post(server.url()).retCode);
    release.open();
}

TEST(HttpsClient, ResponsesOfOneClientAreDeliveredInTheOrderOfTheirArrival) {
    constexpr int kLast = 4;
    std::atomic<int> next{1};  // number of the request whose response comes next
    Gate allRead;
    ScriptedServer server([&](Connection& connection) {
        if (!connection.handshake()) {
            return;
        }
        for (std::string request = connection.readRequest(); !request.empty(); request = connection.readRequest()) {
            const int number = request[request.find("number=") + 7] - '0';
            pollUntil([&] { return next == number; });
            connection.write(httpResponse(200, "{}"));
            connection.waitUntilRead();
            if (++next > kLast) {
                allRead.open();
            }
        }
    });
    Journal<int> order;
    CVexaHttpSendRecv client;
    for (const int number : {2, 3, 4, 1}) {
        sendTo(client, server.url() + "?number=" + std::to_string(number), [&, number](auto&&...) {
            EXPECT_TRUE(allRead.pass());
            order.add(number);
        });
    }
    EXPECT_EQ((std::vector<int>{1, 2, 3, 4}), order.waitFor(kLast));
}

TEST(HttpsClient, ASilentNameServerDelaysNoOtherRequest) {
    ScriptedServer server(alwaysRespond(httpResponse(200, "{}")));
    CVexaHttpSendRecv client;
    std::future<Reply> lost = send(client, "https://silent.invalid/");
    EXPECT_EQ(0, post(server.url()).retCode);
    EXPECT_EQ(1, wait(std::move(lost)).retCode);  // times out while the resolver still blocks
    EXPECT_EQ(0, post(server.url()).retCode);
    silentNameServer().open();
}

TEST(HttpsClient, AServerThatResetsWhileALargeBodyIsWrittenEndsNoProcess) {
    ScriptedServer server([](Connection& connection) {
        if (connection.handshake()) {
            connection.reset();
        }
    });
    EXPECT_EQ(1, post(server.url(), std::string(size_t{8} << 20, 'x')).retCode);
}

// The threads of this process that block the signal: the client's I/O thread during I/O, and threads of a sanitizer.
std::vector<pid_t> threadsThatBlock(int signal) {
    std::vector<pid_t> threads;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream status(task.path() / "status");
        for (std::string word; status >> word;) {
            if (word == "SigBlk:" && status >> word &&
                (std::stoull(word, nullptr, 16) & uint64_t{1} << (signal - 1)) != 0) {
                threads.push_back(std::stoi(task.path().filename()));
            }
        }
    }
    return threads;
}

// TLS libraries raise SIGPIPE when they write to a closed connection.
TEST(HttpsClient, ABrokenPipeSignalDuringTheIoIsDiscarded) {
    size_t raised = 0;
    ScriptedServer server(onRequest([&raised](Connection& connection, const std::string&) {
        for (const pid_t thread : threadsThatBlock(SIGTERM)) {
            raised += syscall(SYS_tgkill, getpid(), thread, SIGPIPE) == 0 ? 1u : 0u;
        }
        connection.write(httpResponse(200, "{}"));
    }));
    EXPECT_EQ(0, post(server.url()).retCode);
    EXPECT_GE(raised, 1u);
    EXPECT_EQ(0, post(ScriptedServer(alwaysRespond(httpResponse(200, "{}"))).url()).retCode);
}

TEST(HttpsClient, ACallbackMaySendAgain) {
    ScriptedServer server(alwaysRespond(httpResponse(200, "{}")));
    CVexaHttpSendRecv client;
    Gate done;
    int remaining = 10;
    std::function<void(int, KstCopyOnWriteBuffer&)> again = [&](int, KstCopyOnWriteBuffer&) {
        if (--remaining == 0) {
            done.open();
            return;
        }
        sendTo(client, server.url(), again);
    };
    sendTo(client, server.url(), again);
    EXPECT_TRUE(done.pass());
}

// ---- Destruction ----------------------------------------------------------------------------------------------------

TEST(HttpsClient, MayBeDestroyedInItsOwnCallback) {
    ScriptedServer server(alwaysRespond(httpResponse(200, "{}")));
    for (int i = 0; i < 50; ++i) {
        auto client = std::make_shared<CVexaHttpSendRecv>();
        Gate done;
        CVexaHttpSendRecv& sender = *client;
        sendTo(sender, server.url(), [owner = std::move(client), &done](auto&&...) mutable {
            owner.reset();
            done.open();
        });
        ASSERT_TRUE(done.pass());
    }
}

TEST(HttpsClient, NoCallbackBeginsOnceTheClientIsDestroyed) {
    ScriptedServer server(alwaysRespond(httpResponse(200, "{}")));
    std::atomic<int> late{0};
    for (int i = 0; i < 300; ++i) {
        const auto isDestroyed = std::make_shared<std::atomic<bool>>(false);
        const auto begun = std::make_shared<Gate>();
        auto client = std::make_unique<CVexaHttpSendRecv>();
        for (int j = 0; j < 3; ++j) {
            sendTo(*client, server.url(), [isDestroyed, begun, &late](auto&&...) {
                late += *isDestroyed;
                begun->open();
            });
        }
        if (i % 2 == 0) {
            EXPECT_TRUE(begun->pass());  // now the client is destroyed while two responses are in flight
        } else {
            std::this_thread::yield();
        }
        client.reset();
        *isDestroyed = true;
    }
    EXPECT_EQ(0, post(server.url()).retCode);
    EXPECT_EQ(0, late);
}

TEST(HttpsClient, TheDestructorWaitsForACallbackOnAnotherThread) {
    ScriptedServer server(alwaysRespond(httpResponse(200, "{}")));
    auto client = std::make_unique<CVexaHttpSendRecv>();
    Gate entered;
    Gate release;
    std::atomic<bool> ended{false};
    sendTo(*client, server.url(), [&](auto&&...) {
        entered.open();
        EXPECT_TRUE(release.pass());
        ended = true;
    });
    ASSERT_TRUE(entered.pass());
    std::thread opener([&release] { release.open(); });
    client.reset();
    EXPECT_TRUE(ended);
    opener.join();
}

TEST(HttpsClient, ARequestReachesTheServerWithoutACallbackAndAfterItsClientIsDestroyed) {
    for (const bool hasCallback : {false, true}) {
        Gate received;
        ScriptedServer server(onRequest([&received](Connection& connection, const std::string&) {
            received.open();
            connection.write(httpResponse(200, "{}"));
        }));
        auto client = std::make_unique<CVexaHttpSendRecv>();
        if (hasCallback) {
            sendTo(*client, server.url(), [](auto&&...) { ADD_FAILURE() << "callback after the destruction"; });
            client.reset();
        } else {
            sendTo(*client, server.url(), nullptr, "");
        }
        EXPECT_TRUE(received.pass());
    }
}

// ---- The observer ---------------------------------------------------------------------------------------------------

TEST(HttpsClient, TheObserverReceivesEachPhaseAndNeverTheAddress) {
    using vexalive::HttpExchange;
    using Phase = std::tuple<HttpExchange::Phase, size_t, std::string, int, std::string>;
    Journal<Phase> phases;
    Journal<uint64_t> ids;
    vexalive::setHttpObserver([&](const HttpExchange& exchange) {
        if (exchange.interfaceName == "remove_relay_stream_url") {  // ignores exchanges of earlier tests
            ids.add(exchange.id);
            phases.add({exchange.phase, exchange.bytesSent, std::string(exchange.body), exchange.retCode,
                        std::string(exchange.response)});
        }
    });
    ScriptedServer server(alwaysRespond(httpResponse(404, "nothing here")));
    CVexaHttpSendRecv client;
    wait(send(client, server.url("/v3/liveinterface/remove_relay_stream_url?usersig=secret/x"), "{\"a\":1}"));
    EXPECT_TRUE(phases.await(3));
    vexalive::setHttpObserver(nullptr);

    EXPECT_THAT(phases.all(),
                testing::ElementsAre(testing::FieldsAre(HttpExchange::kStarted, 7, "{\"a\":1}", testing::_, testing::_),
                                     testing::FieldsAre(HttpExchange::kCompleted, 7, "", 404, "nothing here"),
                                     testing::FieldsAre(HttpExchange::kDelivered, 7, "", 404, testing::_)));
    EXPECT_THAT(ids.all(), testing::Each(ids.all().at(0)));
}

}  // namespace

// Replaces the function of libc: blocks for "silent.invalid" and forwards all other names.
extern "C" int getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** result) {
    using Function = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
    static const auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "getaddrinfo"));
    if (name && std::string(name) == "silent.invalid") {
        silentNameServer().pass();
    }
    return next(name, service, hints, result);
}

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    vexalive::HttpOptions options;
    options.connectTimeout = 2000ms;
    options.totalTimeout = 4000ms;
    options.maxResponseBytes = kLimit;
    options.caFile = testAuthorityFile();
    return vexalive::setHttpOptions(options) ? RUN_ALL_TESTS() : 1;
}
