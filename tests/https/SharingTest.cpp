// A hundred adapters and one connection: the local service behind nginx, which speaks HTTP/2 and writes down on which
// connection each request came.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/ServiceAddress.h"
#include "platform/Platform.h"
#include "service/LiveService.h"
#include "support/RoomMember.h"
#include "support/TestCertificates.h"

namespace {

using namespace std::chrono_literals;

constexpr int kAdapters = 100;

// nginx as a child in a folder of its own.
class Nginx {
public:
    Nginx(const std::filesystem::path& folder, const std::string& host, const std::string& backend) : mFolder(folder) {
        const TestCertificate certificate = makeServerCertificate();
        std::ofstream(folder / "server.pem") << certificate.pem();
        FILE* key = std::fopen((folder / "server.key").c_str(), "w");
        PEM_write_PrivateKey(key, certificate.key.get(), nullptr, nullptr, 0, nullptr, nullptr);
        std::fclose(key);
        std::ofstream(folder / "nginx.conf")
            << "daemon off; master_process off; pid nginx.pid; error_log error.log;\n"
               "events { worker_connections 512; }\n"
               "http {\n"
               "  client_body_temp_path body; proxy_temp_path proxy; fastcgi_temp_path fastcgi;\n"
               "  uwsgi_temp_path uwsgi; scgi_temp_path scgi;\n"
               "  log_format connections '$connection $server_protocol $status';\n"
               "  access_log access.log connections;\n"
               "  server {\n"
               "    listen "
            << host
            << " ssl http2;\n"
               "    ssl_certificate server.pem; ssl_certificate_key server.key;\n"
               "    location / { proxy_pass http://"
            << backend
            << "; }\n"
               "  }\n"
               "}\n";
        std::string prefix = folder.string() + "/";
        std::string errors = prefix + "error.log";
        char* const arguments[] = {
            const_cast<char*>("nginx"),      const_cast<char*>("-p"), prefix.data(), const_cast<char*>("-c"),
            const_cast<char*>("nginx.conf"), const_cast<char*>("-e"), errors.data(), nullptr};
        mStarted = posix_spawnp(&mChild, "nginx", nullptr, nullptr, arguments, environ) == 0;
    }

    ~Nginx() {
        if (mStarted) {
            kill(mChild, SIGTERM);
            waitpid(mChild, nullptr, 0);
        }
    }

    bool started() const { return mStarted; }

    // The line that it printed for each request, once that many are complete.
    std::vector<std::string> log(size_t requests) const {
        const auto patience = std::chrono::steady_clock::now() + kTestTimeout;
        std::vector<std::string> lines;
        do {
            lines.clear();
            std::ifstream file(mFolder / "access.log");
            for (std::string line; std::getline(file, line);) {
                lines.push_back(line);
            }
            std::this_thread::yield();
        } while (lines.size() < requests && std::chrono::steady_clock::now() < patience);
        return lines;
    }

private:
    const std::filesystem::path mFolder;
    pid_t mChild = 0;
    bool mStarted = false;
};

// Waits until the address accepts connections.
bool waitForServer(const std::string& host) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(std::stoi(host.substr(host.find(':') + 1))));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto patience = std::chrono::steady_clock::now() + kTestTimeout;
    while (std::chrono::steady_clock::now() < patience) {
        const int probe = socket(AF_INET, SOCK_STREAM, 0);
        const int refused = connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address);
        close(probe);
        if (!refused) {
            return true;
        }
        std::this_thread::yield();
    }
    return false;
}

// The request that all adapters send at once.
struct Start {
    const char* name;
    void (*ask)(LiveTranscodingAdapter& adapter);
    Call notified;
};

class ConnectionSharing : public testing::TestWithParam<Start> {
protected:
    static void SetUpTestSuite() {
        folder() = std::filesystem::temp_directory_path() / ("vexalive-sharing-test-" + std::to_string(getpid()));
        std::filesystem::create_directories(folder());
        std::ofstream(folder() / "ca.pem") << testAuthority().pem();
        vexalive::HttpOptions http;
        http.caFile = folder() / "ca.pem";
        ASSERT_TRUE(vexalive::setHttpOptions(http));
        vexalive::setLogSink([](auto&&...) {});
        vexalive::setEventSink([](auto&&...) {});
    }

    static void TearDownTestSuite() { std::filesystem::remove_all(folder()); }

    static std::filesystem::path& folder() {
        static std::filesystem::path path;
        return path;
    }
};

INSTANTIATE_TEST_SUITE_P(
    , ConnectionSharing,
    testing::Values(Start{"ARelay",
                          [](LiveTranscodingAdapter& adapter) { adapter.startPublishStreamUrl(relayParam()); },
                          {"startRelay", 0, "sucess"}},
                    Start{"AMix",
                          [](LiveTranscodingAdapter& adapter) { adapter.setLiveMixTranscoding(mixConfig()); },
                          {"setMix", 0, "sucess"}}),
    [](const auto& test) { return test.param.name; });

TEST_P(ConnectionSharing, AHundredAdaptersThatStartAtOnceShareOneConnection) {
    vexalive::LiveServiceOptions options;
    options.tls = false;
    vexalive::LiveService service(options);
    ASSERT_TRUE(service.start());
    std::filesystem::remove(folder() / "access.log");
    const Nginx nginx(folder(), kstf_get_live_service_host(), service.address());
    ASSERT_TRUE(nginx.started()) << "nginx is not installed";
    ASSERT_TRUE(waitForServer(kstf_get_live_service_host()));

    std::vector<std::unique_ptr<Member>> members;
    for (int i = 0; i < kAdapters; ++i) {
        members.push_back(std::make_unique<Member>("u" + std::to_string(i)));
    }
    for (const auto& member : members) {
        GetParam().ask(*member->adapter);
    }
    for (const auto& member : members) {
        EXPECT_EQ(GetParam().notified, member->listener->calls.waitFor(1).at(0));
    }

    std::set<std::string> kinds;
    const auto lines = nginx.log(kAdapters);
    EXPECT_EQ(size_t{kAdapters}, lines.size());
    kinds.insert(lines.begin(), lines.end());
    EXPECT_EQ(1u, kinds.size());
    for (const std::string& kind : kinds) {
        std::printf("%zu requests; connection, protocol, status: %s\n", lines.size(), kind.c_str());
        EXPECT_NE(std::string::npos, kind.find(" HTTP/2.0 200"));
    }
    members.clear();
    service.stop();
}

}  // namespace
