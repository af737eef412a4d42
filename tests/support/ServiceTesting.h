// Helpers of the tests of the local service: valid requests, a temporary folder, a running service, and a client that
// can send any bytes.

#ifndef VEXALIVE_TESTS_SUPPORT_SERVICE_TESTING_H
#define VEXALIVE_TESTS_SUPPORT_SERVICE_TESTING_H

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "service/LiveService.h"
#include "support/HttpClient.h"
#include "support/Poll.h"

namespace servicetesting {

using nlohmann::json;

constexpr const char* kSuffix = "push.test";
constexpr const char* kGoodQuery = "sdkappid=1400&random=42&usersig=signature&parivMapKey=mapkey";

// "8888_" and 32 hex digits. Each number gives another id.
std::string streamIdOf(int number);
std::string ownStreamId();  // streamIdOf(1)

// Valid requests of the user whose stream is ownStreamId() or streamIdOf(number).
json addRelayBody();
json relayOf(int number, const std::string& destination = "rtmp://cdn.test/live/one");
json removeRelayBody();
json removalOf(int number);
json videoMixBody();  // a canvas, a video user, an audio user
json audioMixBody();  // two audio users
json cancelMixBody();
std::string interfaceOf(const json& body);

class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const std::string& path() const { return mPath; }

private:
    std::string mPath;
};

int occurrences(const std::string& text, const std::string& part);

std::string readAll(const std::string& path);
void writeAll(const std::string& path, const std::string& content);

// Calls `action` on `count` threads, with 0 to count - 1, and waits for all.
void runConcurrently(int count, const std::function<void(int thread)>& action);

// Calls `action` while this process cannot open any further descriptor.
void withoutDescriptors(const std::function<void()>& action);

// A state folder that all services of this process share, and with it their certificates.
const std::string& sharedStateFolder();

vexalive::LiveServiceOptions plainOptions();  // without TLS

// A service that listens when it is constructed.
class RunningService {
public:
    explicit RunningService(vexalive::LiveServiceOptions options = {});
    vexalive::LiveService* operator->() { return &mService; }
    json state() const { return json::parse(mService.stateJson()); }

    HttpClient client() const;   // connects to the service's port
    HttpClient console() const;  // connects to the console's port

    // Sends a request on a new connection.
    json post(const json& body, const std::string& query = kGoodQuery) const;

private:
    bool mTls;
    vexalive::LiveService mService;
};

// The response of the interface that `body` names. The test fails unless it is HTTP 200.
json post(HttpClient& client, const json& body, const std::string& query = kGoodQuery);

// The content of the error that a fake worker writes into its status.
struct WorkerReport {
    int configurations = 0;  // number of configurations that the worker has received
    pid_t pid = 0;
    json configuration = json::object();  // the last configuration; for a mix, only its canvas and number of inputs
};
WorkerReport parseWorkerReport(const std::string& error);  // empty if `error` is not from a fake worker

std::string targetOf(const json& body, const std::string& query = kGoodQuery);

// The bytes of an HTTP request.
std::string rawRequest(const std::string& method, const std::string& target, const std::string& body);

// A TCP connection. Calls that block return after 20 seconds.
class RawConnection {
public:
    explicit RawConnection(uint16_t port, const char* host = "127.0.0.1");
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;
    int socket() const { return mSocket; }
    void send(const std::string& bytes);
    void endSending();
    std::string readToEnd() { return read(std::string::npos); }
    std::string read(size_t size);  // at least `size` bytes; fewer if the connection ends

private:
    int mSocket;
};

// TLS on a connection. The connection must outlive this object.
class RawTls {
public:
    // Versions: TLS1_2_VERSION, …; 0: the default of OpenSSL.
    explicit RawTls(const RawConnection& connection, int minVersion = 0, int maxVersion = 0);

    // Requires a certificate that `caFile` has signed for `name`, a host name or numeric address.
    void trust(const std::string& caFile, const std::string& name);
    bool handshake();
    void send(const std::string& bytes);

private:
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> mContext;
    std::unique_ptr<SSL, decltype(&SSL_free)> mTls;
};

}  // namespace servicetesting

#endif
