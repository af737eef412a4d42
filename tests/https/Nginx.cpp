#include "Nginx.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>

#include "base/CVexaHttpSendRecv.h"
#include "support/Poll.h"
#include "support/TestCertificates.h"

namespace {

constexpr const char* kProgram = "/usr/sbin/nginx";

void waitUntil(const char* what, const std::function<bool()>& condition) {
    if (!pollUntil(condition)) {
        std::fprintf(stderr, "nginx: timeout while waiting until %s\n", what);
        std::abort();
    }
}

bool isServed(int port) {
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    const bool connected = connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    return connected;
}

std::string configuration(int port, const std::string& scheme, const std::string& backend) {
    return std::string(getuid() == 0 ? "user root;\n" : "") +
           "daemon off;\n"
           "worker_processes 1;\n"
           "pid nginx.pid;\n"
           "error_log error.log;\n"
           "events { worker_connections 512; }\n"
           "http {\n"
           "  log_format connections '$connection $server_protocol $status';\n"
           "  access_log access.log connections;\n"
           "  client_body_temp_path body; proxy_temp_path proxy; fastcgi_temp_path fastcgi;\n"
           "  uwsgi_temp_path uwsgi; scgi_temp_path scgi;\n"
           "  ssl_certificate server.pem; ssl_certificate_key server.key;\n"
           "  upstream backend { server " +
           backend +
           "; keepalive 32; }\n"
           "  server {\n"
           "    listen 127.0.0.1:" +
           std::to_string(port) +
           " ssl http2;\n"
           "    location / {\n"
           "      proxy_pass " +
           scheme +
           "://backend;\n"
           "      proxy_http_version 1.1; proxy_set_header Connection \"\"; proxy_read_timeout 1h;\n"
           "    }\n"
           "  }\n"
           "}\n";
}

}  // namespace

bool Nginx::isInstalled() {
    return access(kProgram, X_OK) == 0;
}

Nginx::Nginx(int port, const std::string& scheme, const std::string& backend)
    : mPort(port), mFolder(std::filesystem::temp_directory_path() / ("vexalive-nginx-" + std::to_string(getpid()))) {
    std::filesystem::create_directory(mFolder);
    const TestCertificate certificate = makeServerCertificate();
    std::ofstream(mFolder / "server.pem") << certificate.pem();
    std::ofstream(mFolder / "server.key") << certificate.keyPem();
    std::ofstream(mFolder / "nginx.conf") << configuration(port, scheme, backend);
    start();
}

Nginx::~Nginx() {
    kill(mMaster, SIGTERM);
    waitpid(mMaster, nullptr, 0);
    std::filesystem::remove_all(mFolder);
}

void Nginx::start() {
    const std::string folder = mFolder.string() + "/";
    const std::string log = folder + "error.log";
    mMaster = fork();
    if (mMaster == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);  // ends with the test
        execl(kProgram, kProgram, "-p", folder.c_str(), "-c", "nginx.conf", "-e", log.c_str(), nullptr);
        _exit(127);
    }
    waitUntil("it serves", [this] { return isServed(mPort); });
}

void Nginx::reload() {
    const std::vector<pid_t> before = workers();
    kill(mMaster, SIGHUP);
    waitUntil("a new worker has started", [&] {
        const std::vector<pid_t> now = workers();
        return std::any_of(now.begin(), now.end(), [&](pid_t worker) {
            return std::find(before.begin(), before.end(), worker) == before.end();
        });
    });
}

void Nginx::killAll() {
    const std::vector<pid_t> all = workers();
    kill(mMaster, SIGKILL);
    for (const pid_t worker : all) {
        kill(worker, SIGKILL);
    }
    waitpid(mMaster, nullptr, 0);
    waitUntil("it has stopped", [this] { return !isServed(mPort); });
}

std::vector<std::string> Nginx::log(size_t requests) const {
    std::vector<std::string> lines;
    pollUntil([&] {
        lines.clear();
        std::ifstream file(mFolder / "access.log");
        for (std::string line; std::getline(file, line);) {
            lines.push_back(line);
        }
        return lines.size() >= requests;
    });
    return lines;
}

std::vector<pid_t> Nginx::workers() const {
    const std::string master = std::to_string(mMaster);
    std::ifstream children("/proc/" + master + "/task/" + master + "/children");
    std::vector<pid_t> all;
    for (pid_t child = 0; children >> child;) {
        all.push_back(child);
    }
    return all;
}

// ---- Load -----------------------------------------------------------------------------------------------------------

namespace {

constexpr size_t kClients = 8;

}  // namespace

Load::Load(int port) : mUrl("https://127.0.0.1:" + std::to_string(port) + "/" + kInterfaceName) {
    mCounts.sent = kClients;
    for (size_t i = 0; i < kClients; ++i) {
        mClients.push_back(std::make_unique<CVexaHttpSendRecv>());
    }
    for (const auto& client : mClients) {
        send(*client);
    }
}

Load::~Load() {
    end();
}

void Load::awaitResponses(size_t more) {
    std::unique_lock<std::mutex> lock(mMutex);
    const size_t wanted = mCounts.notified() + more;
    mChanged.wait_for(lock, kTestTimeout, [&] { return mCounts.notified() >= wanted; });
}

Load::Counts Load::end() {
    std::unique_lock<std::mutex> lock(mMutex);
    mEnding = true;
    mChanged.wait_for(lock, kTestTimeout, [&] { return mCounts.clientsThatEnded == kClients; });
    return mCounts;
}

void Load::send(CVexaHttpSendRecv& client) {
    KstCopyOnWriteBuffer body;
    client.sendHttpsRequest(body, mUrl,
                            [this, &client](int retCode, KstCopyOnWriteBuffer&) { receive(client, retCode); });
}

void Load::receive(CVexaHttpSendRecv& client, int retCode) {
    bool more = false;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        ++(retCode == 0 ? mCounts.succeeded : retCode == 1 ? mCounts.retryable : mCounts.failed);
        more = !mEnding;
        ++(more ? mCounts.sent : mCounts.clientsThatEnded);
        mChanged.notify_all();
    }
    if (more) {
        send(client);
    }
}
