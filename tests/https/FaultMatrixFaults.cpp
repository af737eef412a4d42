// The rows of the matrix: how each fault is injected, and the responses that the adapter must receive.

#include <arpa/inet.h>
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <utility>

#include "FaultMatrix.h"
#include "FaultMatrixHttp2.h"
#include "Nginx.h"
#include "base/CVexaHttpSendRecv.h"

namespace {

using namespace std::chrono_literals;
using Connection = ScriptedServer::Connection;
using Injection = std::function<void(CaseEnvironment&)>;

constexpr int kAttempts = 11;               // first send and all retries of the adapter
constexpr int kAttemptsOfLibrary = 6;       // attempts of libcurl for one send that the server refuses with RST_STREAM
constexpr size_t kLimit = size_t{1} << 20;  // default limit of a response, in bytes
const std::string kSuccess = R"({"code":0,"message":"ok"})";
const std::string kPage = "<html><body>a page of a proxy</body></html>";
const std::string kHalf = R"({"code":0,"mess)";
const std::string kHeadOfSuccess = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(kSuccess.size()) + "\r\n\r\n";
const std::string kGzipOfSuccess(
    "\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\x03\xab\x56\x4a\xce\x4f\x49\x55\xb2\x32\xd0\x51\xca\x4d"
    "\x2d\x2e\x4e\x4c\x07\xb2\x95\xf2\xb3\x95\x6a\x01\x71\xdb\x33\xee\x19\x00\x00\x00",
    43);

// ---- Responses that the adapter receives ----------------------------------------------------------------------------

std::vector<Response> once(int retCode, const std::string& response) {
    return {{retCode, response}};
}

std::vector<Response> always(int retCode, const std::string& response) {
    return std::vector<Response>(kAttempts, Response{retCode, response});
}

std::vector<Response> refusedByLibrary(CURLcode reason) {
    return once(CVexaHttpSendRecv::kTransportErrorBase + reason,
                std::string(R"({"transportError":")") + curl_easy_strerror(reason) + "\"}");
}

// ---- Faults of the server -------------------------------------------------------------------------------------------

using OnRequest = std::function<bool(Connection&)>;  // return value false: close the connection

Injection onRequest(OnRequest respond) {
    return [respond = std::move(respond)](CaseEnvironment& environment) {
        environment.serve([respond, &environment](Connection& connection) {
            if (connection.handshake()) {
                while (!environment.readRequest(connection).empty() && respond(connection)) {
                }
            }
        });
    };
}

Injection respond(const std::string& bytes) {
    return onRequest([bytes](Connection& connection) {
        connection.write(bytes);
        return true;
    });
}

Injection status(int number, const std::string& headers = "") {
    return respond(httpResponse(number, kPage, headers));
}

Injection resetAfter(const std::string& bytes) {
    return onRequest([bytes](Connection& connection) {
        connection.write(bytes);
        connection.waitUntilRead();
        connection.reset();
        return false;
    });
}

Injection closeAfter(const std::string& bytes) {
    return onRequest([bytes](Connection& connection) {
        connection.write(bytes);
        return false;
    });
}

Injection silentAfter(const std::string& bytes) {
    return onRequest([bytes](Connection& connection) {
        connection.write(bytes);
        connection.waitForClient();
        return false;
    });
}

// Scaled down to a tenth of real time: a byte every 100 ms, and a total timeout of 1 s instead of 10 s.
Injection byteBySecond(const std::string& bytes) {
    return onRequest([bytes](Connection& connection) {
        for (const char byte : bytes) {
            connection.write(std::string(1, byte));
            if (connection.clientClosesWithin(100ms)) {
                return false;
            }
        }
        return true;
    });
}

Injection onConnection(const ScriptedServer::Script& script) {
    return [script](CaseEnvironment& environment) { environment.serve(script); };
}

Injection certificate(CertificateFault fault) {
    return [fault](CaseEnvironment& environment) {
        environment.serve({fault}, alwaysRespond(httpResponse(200, kSuccess)));
    };
}

void speakAnOldProtocol(CaseEnvironment& environment) {
    environment.serve({CertificateFault::kNone, TLS1_1_VERSION}, alwaysRespond(httpResponse(200, kSuccess)));
}

// Sends an incomplete TLS record; then the connection is closed.
void cutTheHandshake(Connection& connection) {
    connection.readPlain();
    connection.writePlain("\x16\x03\x03");
}

void resetTheHandshake(Connection& connection) {
    connection.readPlain();
    connection.reset();
}

Injection http2Respond(std::function<void(Connection&, uint32_t stream)> respond, bool closes = false) {
    return [respond = std::move(respond), closes](CaseEnvironment& environment) {
        ScriptedServer::Options options;
        options.http2 = true;
        environment.serve(
            options, http2::onEachRequest([respond, closes, &environment](Connection& connection, uint32_t stream) {
                environment.countUnparsed();
                respond(connection, stream);
                return !closes;
            }));
    };
}

// The first request gets no response, and its connection stays open. Responds only on new connections (stream 1).
void fallSilentOnTheFirstConnection(CaseEnvironment& environment) {
    const auto requests = std::make_shared<std::atomic<int>>(0);
    http2Respond([requests](Connection& connection, uint32_t stream) {
        if (++*requests > 1 && stream == 1) {
            connection.write(http2::okHeaders(stream) + http2::data(stream, kSuccess, true));
        }
    })(environment);
}

// ---- Faults of the network ------------------------------------------------------------------------------------------

void refuse(CaseEnvironment& environment) {
    environment.stopServing();
}

// Closes the pooled connection before the network fails, so that the client has to connect again.
void loseTheAddress(CaseEnvironment& environment) {
    environment.stopServing();
    removeLoopbackAddress();
}

void loseEverything(CaseEnvironment& environment) {
    environment.stopServing();
    takeLoopbackDown();
}

// A listener whose backlog is full: further connections are not accepted.
class FullQueue {
public:
    explicit FullQueue(int port) {
        const int on = 1;
        setsockopt(mListener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port));
        const auto* where = reinterpret_cast<const sockaddr*>(&address);
        if (bind(mListener, where, sizeof address) != 0 || listen(mListener, 0) != 0 ||
            ::connect(mOnlySlot, where, sizeof address) != 0) {
            ADD_FAILURE() << "no full queue";
        }
    }
    ~FullQueue() {
        close(mOnlySlot);
        close(mListener);
    }
    FullQueue(const FullQueue&) = delete;
    FullQueue& operator=(const FullQueue&) = delete;

private:
    const int mListener = socket(AF_INET, SOCK_STREAM, 0);
    const int mOnlySlot = socket(AF_INET, SOCK_STREAM, 0);
};

void acceptNoConnection(CaseEnvironment& environment) {
    environment.stopServing();
    environment.own(std::make_shared<FullQueue>(environment.port()));
}

// ---- Restarts of the server -----------------------------------------------------------------------------------------

void restartBetweenTwoSends(CaseEnvironment& environment) {
    respond(httpResponse(200, kSuccess))(environment);
}

// The server stops during the first send. The second send is refused. The third send reaches the new server.
void restartDuringARequest(CaseEnvironment& environment) {
    resetAfter("")(environment);
    environment.hold(2);
    environment.meanwhile([&environment] {
        environment.awaitResponse(1);
        environment.stopServing();
        environment.pass();
        environment.awaitResponse(2);
        respond(httpResponse(200, kSuccess))(environment);
        environment.pass();
    });
}

// nginx under load in front of a server that holds requests of the kind under test until `released` has an entry.
struct BehindNginx {
    explicit BehindNginx(CaseEnvironment& environment)
        : server([this, &environment](Connection& connection) {
              if (!connection.handshake()) {
                  return;
              }
              for (;;) {
                  const std::string request = connection.readRequest();
                  if (request.empty()) {
                      return;
                  }
                  if (request.find(std::string("/") + Load::kInterfaceName + " ") == std::string::npos) {
                      environment.count(request);
                      arrived.add(true);
                      released.waitFor(1);
                  }
                  connection.write(httpResponse(200, kSuccess));
              }
          }) {
        environment.stopServing();
        nginx = std::make_unique<Nginx>(environment.port(), "https", "127.0.0.1:" + std::to_string(server.port()));
        load = std::make_unique<Load>(environment.port());
        load->awaitResponses(100);
    }

    ~BehindNginx() {
        const Load::Counts counts = load->end();
        EXPECT_EQ(counts.sent, counts.notified());
        EXPECT_EQ(0u, counts.failed);
        EXPECT_GE(counts.succeeded, 200u);
        std::printf("load: %zu sent, %zu succeeded, %zu to retry\n", counts.sent, counts.succeeded, counts.retryable);
    }

    Journal<bool> arrived;
    Journal<bool> released;
    ScriptedServer server;
    std::unique_ptr<Nginx> nginx;
    std::unique_ptr<Load> load;
};

// Null if nginx is not installed.
BehindNginx* serveBehindNginx(CaseEnvironment& environment) {
    if (!Nginx::isInstalled()) {
        environment.skip("nginx is not installed");
        return nullptr;
    }
    const auto server = std::make_shared<BehindNginx>(environment);
    environment.own(server);
    return server.get();
}

void reloadNginx(CaseEnvironment& environment) {
    if (BehindNginx* server = serveBehindNginx(environment)) {
        environment.meanwhile([server] {
            server->arrived.waitFor(1);
            server->nginx->reload();
            server->load->awaitResponses(100);
            server->released.add(true);
        });
    }
}

void killNginx(CaseEnvironment& environment) {
    if (BehindNginx* server = serveBehindNginx(environment)) {
        environment.hold(1);
        environment.meanwhile([server, &environment] {
            server->arrived.waitFor(1);
            server->nginx->killAll();
            server->released.add(true);
            environment.awaitResponse(1);
            server->nginx->start();
            server->load->awaitResponses(100);
            environment.pass();
        });
    }
}

// ---- The table ------------------------------------------------------------------------------------------------------

Fault in(Fault::Where where, Fault fault) {
    fault.where = where;
    return fault;
}

Fault withConnectTimeout(std::chrono::milliseconds time, Fault fault) {
    fault.connectTimeout = time;
    return fault;
}

Fault withTotalTimeout(std::chrono::milliseconds time, Fault fault) {
    fault.totalTimeout = time;
    return fault;
}

std::vector<Fault> makeFaults() {
    const std::vector<Response> lost = always(1, "");
    const std::vector<Response> success = once(0, kSuccess);
    const std::vector<Response> untrusted = refusedByLibrary(CURLE_PEER_FAILED_VERIFICATION);
    const std::string json404 = R"({"code":0,"message":"moved away"})";
    const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

    // name, description, how to inject it, responses that the adapter receives, requests that reach a server
    return {
        // The network.
        withConnectTimeout(
            1s, in(Fault::kUnknownHost, {"NameNotResolved", "the host name cannot be resolved", refuse, lost, 0})),
        {"Refused", "the connection is refused", refuse, lost, 0},
        in(Fault::kOwnNetwork, {"Unreachable", "the network is unreachable", loseTheAddress, lost, 0}),
        withConnectTimeout(
            1s, in(Fault::kOwnNetwork,
                   {"Blackholed", "packets are lost while the client connects: timeout", loseEverything, lost, 0})),
        withTotalTimeout(
            1s, in(Fault::kOwnNetwork, {"BlackholedWhileConnected", "packets are lost on an open connection: timeout",
                                        [](CaseEnvironment&) { takeLoopbackDown(); }, lost, 0})),
        withConnectTimeout(
            1s, {"ConnectTimeout", "the server accepts no connection: timeout", acceptNoConnection, lost, 0}),

        // TLS.
        {"CertificateExpired", "the certificate has expired", certificate(CertificateFault::kExpired), untrusted, 0},
        {"CertificateSelfSigned", "the certificate is self-signed", certificate(CertificateFault::kSelfSigned),
         untrusted, 0},
        {"CertificateOfAnotherHost", "the certificate is for another host", certificate(CertificateFault::kOtherHost),
         untrusted, 0},
        {"CertificateOfUnknownAuthority", "the certificate's authority is unknown",
         certificate(CertificateFault::kUnknownAuthority), untrusted, 0},
        {"ProtocolTooOld", "the server supports TLS 1.1 at most", speakAnOldProtocol,
         refusedByLibrary(CURLE_SSL_CONNECT_ERROR), 0},
        {"HandshakeCutOff", "close during the handshake", onConnection(cutTheHandshake), lost, 0},
        {"HandshakeReset", "reset during the handshake", onConnection(resetTheHandshake), lost, 0},
        withConnectTimeout(1s, {"HandshakeTimeout", "the server is silent in the handshake: timeout",
                                onConnection([](Connection& connection) { connection.waitForClient(); }), lost, 0}),

        // The connection.
        {"ResetBeforeHeader", "reset before the response header", resetAfter(""), lost, kAttempts},
        {"ClosedBeforeHeader", "close before the response header", closeAfter(""), lost, kAttempts},
        {"ResetInsideHeader", "reset inside the response header", resetAfter("HTTP/1.1 200 OK\r\nContent-Le"), lost,
         kAttempts},
        {"ClosedInsideHeader", "close inside the response header", closeAfter("HTTP/1.1 200 OK\r\nContent-Le"), lost,
         kAttempts},
        {"ResetAfterHeader", "reset after the response header", resetAfter(kHeadOfSuccess), lost, kAttempts},
        {"ResetInsideBody", "reset inside the response body", resetAfter(kHeadOfSuccess + kHalf), always(1, kHalf),
         kAttempts},
        {"BodyTooShort", "close inside the response body", closeAfter(kHeadOfSuccess + kHalf), always(1, kHalf),
         kAttempts},
        {"ChunkingBroken", "a chunk without a valid length", respond(chunked + "f\r\n" + kHalf + "\r\nno length\r\n"),
         always(1, kHalf), kAttempts},
        withTotalTimeout(
            1s, {"TimeoutBeforeFirstByte", "no byte of the response: timeout", silentAfter(""), lost, kAttempts}),
        withTotalTimeout(2s, {"TimeoutInsideBody", "the server stops sending inside the body: timeout",
                              silentAfter(kHeadOfSuccess + kHalf), always(1, kHalf), kAttempts}),
        withTotalTimeout(1s, {"ByteASecond", "the server sends 1 byte per second: timeout",
                              byteBySecond(httpResponse(200, kSuccess)), lost, kAttempts}),
        {"RestartedBetweenTwoSends", "the server is restarted between two sends", restartBetweenTwoSends, success, 1},
        {"RestartedDuringARequest",
         "the server crashes during the request, refuses the next send and is restarted",
         restartDuringARequest,
         {{1, ""}, {1, ""}, {0, kSuccess}},
         2},

        // The response.
        {"Informational", "HTTP 103 before the response",
         respond("HTTP/1.1 103 Early Hints\r\n\r\n" + httpResponse(200, kSuccess)), success, 1},
        {"InformationalOnly", "HTTP 103, then close without a response", closeAfter("HTTP/1.1 103 Early Hints\r\n\r\n"),
         lost, kAttempts},
        {"Status204", "HTTP 204, without a body", respond("HTTP/1.1 204 No Content\r\n\r\n"), always(0, ""), kAttempts},
        {"Status301", "HTTP 301 to another host, with an HTML page",
         status(301, "Location: https://elsewhere.invalid/\r\n"), always(301, kPage), kAttempts},
        {"Status401", "HTTP 401 with an HTML page", status(401), always(401, kPage), kAttempts},
        {"Status404", "HTTP 404 with an HTML page", status(404), always(404, kPage), kAttempts},
        {"Status404Json", "HTTP 404 with JSON", respond(httpResponse(404, json404)), once(404, json404), 1},
        {"Status408", "HTTP 408 with an HTML page", status(408), always(1, kPage), kAttempts},
        {"Status425", "HTTP 425 with an HTML page", status(425), always(1, kPage), kAttempts},
        {"Status429", "HTTP 429 with an HTML page", status(429), always(1, kPage), kAttempts},
        {"Status500", "HTTP 500 with an HTML page", status(500), always(1, kPage), kAttempts},
        {"Status502", "HTTP 502 with an HTML page", status(502), always(1, kPage), kAttempts},
        {"Status503", "HTTP 503 with an HTML page", status(503), always(1, kPage), kAttempts},
        {"Status504", "HTTP 504 with an HTML page", status(504), always(1, kPage), kAttempts},
        {"Empty", "HTTP 200, without a body", respond(httpResponse(200, "")), always(0, ""), kAttempts},
        {"NotJson", "HTTP 200 with an HTML page", status(200), always(0, kPage), kAttempts},
        {"Gzip", "HTTP 200 with JSON, compressed with gzip",
         respond(httpResponse(200, kGzipOfSuccess, "Content-Encoding: gzip\r\n")), always(0, kGzipOfSuccess),
         kAttempts},
        {"OverTheLimit", "the Content-Length is over the limit of 1 MiB",
         respond(httpResponse(200, std::string(kLimit + 1, 'x'))), refusedByLibrary(CURLE_FILESIZE_EXCEEDED), 1},
        {"OverTheLimitInChunks", "the chunks together are over the limit of 1 MiB",
         respond(chunked + "100001\r\n" + std::string(kLimit + 1, 'x') + "\r\n0\r\n\r\n"),
         refusedByLibrary(CURLE_FILESIZE_EXCEEDED), 1},
        {"ServerRefuses", "JSON with the code -77",
         respond(httpResponse(200, R"({"code":-77,"message":"no such app"})")),
         once(0, R"({"code":-77,"message":"no such app"})"), 1},
        {"NoCode", "JSON without a code", respond(httpResponse(200, "{}")), once(0, "{}"), 1},

        // HTTP/2.
        {"Http2StreamReset", "HTTP/2: RST_STREAM before the response header",
         http2Respond([](Connection& connection, uint32_t stream) {
             connection.write(http2::resetStream(stream, http2::kInternalError));
         }),
         lost, kAttempts},
        {"Http2StreamRefused", "HTTP/2: RST_STREAM with the error REFUSED_STREAM",
         http2Respond([](Connection& connection, uint32_t stream) {
             connection.write(http2::resetStream(stream, http2::kRefusedStream));
         }),
         lost, kAttempts * kAttemptsOfLibrary},
        {"Http2StreamResetInsideBody", "HTTP/2: RST_STREAM inside the response body",
         http2Respond([](Connection& connection, uint32_t stream) {
             connection.write(http2::okHeaders(stream) + http2::data(stream, kHalf, false));
             connection.waitUntilRead();
             connection.write(http2::resetStream(stream, http2::kInternalError));
         }),
         always(1, kHalf), kAttempts},
        {"Http2GoAwayBeforeResponse", "HTTP/2: GOAWAY whose last stream id is below the request's",
         http2Respond([](Connection& connection, uint32_t) { connection.write(http2::goAway(0, http2::kNoError)); },
                      true),
         lost, kAttempts},
        {"Http2GoAwayAndResponse", "HTTP/2: GOAWAY whose last stream id covers the request, followed by the response",
         http2Respond([](Connection& connection, uint32_t stream) {
             connection.write(http2::goAway(stream, http2::kNoError) + http2::okHeaders(stream) +
                              http2::data(stream, kSuccess, true));
         }),
         success, 1},
        withTotalTimeout(3s, {"Http2ConnectionDead",
                              "HTTP/2: an open connection becomes silent: timeout",
                              fallSilentOnTheFirstConnection,
                              {{1, ""}, {0, kSuccess}},
                              2}),
        {"NginxReloaded", "HTTP/2: nginx reloads during the request, under load", reloadNginx, success, 1},
        {"NginxKilled",
         "HTTP/2: nginx is killed during the request, under load, then restarted",
         killNginx,
         {{1, ""}, {0, kSuccess}},
         2},
    };
}

}  // namespace

const std::vector<Fault>& faults() {
    static const std::vector<Fault> all = makeFaults();
    return all;
}
