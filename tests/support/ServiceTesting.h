// What the tests of the local service share: well-formed requests, a folder of their own, a running service, and two
// clients, one that speaks HTTPS and one that sends whatever bytes it is given.

#ifndef VEXALIVE_TESTS_SUPPORT_SERVICE_TESTING_H
#define VEXALIVE_TESTS_SUPPORT_SERVICE_TESTING_H

#include <gtest/gtest.h>
#include <httplib.h>
#include <openssl/ssl.h>

#include <chrono>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "service/LiveService.h"

namespace servicetesting {

using nlohmann::json;

constexpr const char* kSuffix = "push.test";
constexpr const char* kGoodQuery = "sdkappid=1400&random=42&usersig=signature&parivMapKey=mapkey";

// "8888_" and 32 hex digits; another id for each number.
std::string streamIdOf(int number);
std::string ownStreamId();  // streamIdOf(1)

// Accepted as they stand.
json addRelayBody();
json removeRelayBody();
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

// Looks again and again, for 20 seconds if not notified otherwise; false if it never held.
bool eventually(const std::function<bool()>& holds,
                std::chrono::milliseconds patience = std::chrono::milliseconds(20'000));

int occurrences(const std::string& text, const std::string& part);

std::string readAll(const std::string& path);
void writeAll(const std::string& path, const std::string& content);

// A folder with certificates, made once for all tests of the process.
const std::string& sharedStateFolder();

vexalive::LiveServiceOptions plainOptions();  // without TLS

// A service that listens when it is constructed.
class RunningService {
public:
    explicit RunningService(vexalive::LiveServiceOptions options = {});
    vexalive::LiveService* operator->() { return &mService; }
    json state() const { return json::parse(mService.stateJson()); }

    // An HTTPS client, or HTTP if the service is plain, that keeps its connection and checks the certificate.
    std::unique_ptr<httplib::Client> client();

private:
    bool mTls;
    vexalive::LiveService mService;
};

// What came back from one of the interfaces. The test fails if nothing did.
json post(httplib::Client& client, const json& body, const std::string& query = kGoodQuery);

// One request on one connection, as a plain text.
std::string rawRequest(const std::string& method, const std::string& target, const std::string& body);

// A TCP connection to 127.0.0.1, or to ::1. Waits end after 20 seconds with what there is.
class RawConnection {
public:
    explicit RawConnection(uint16_t port, bool isIpv6 = false);
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;
    int socket() const { return mSocket; }
    void send(const std::string& bytes);
    void endSending();
    std::string readToEnd();

private:
    int mSocket;
};

// TLS on a connection, which must outlive it. Unlike a Client it shows what happens below HTTP.
class RawTls {
public:
    // Versions as in TLS1_2_VERSION.
    explicit RawTls(const RawConnection& connection, int lowestVersion = 0, int highestVersion = 0);

    // Trust only `caFile`, and only for the host name or numeric address `name`.
    void trust(const std::string& caFile, const std::string& name);
    bool handshake();
    void send(const std::string& bytes);

private:
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> mContext;
    std::unique_ptr<SSL, decltype(&SSL_free)> mTls;
};

}  // namespace servicetesting

#endif
