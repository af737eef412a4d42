#include "support/ServiceTesting.h"

#include <netdb.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <sstream>
#include <utility>
#include <vector>

namespace servicetesting {

std::string streamIdOf(int number) {
    char digits[33];
    std::snprintf(digits, sizeof digits, "%032x", static_cast<unsigned>(number));
    return std::string("8888_") + digits;
}

std::string ownStreamId() {
    return streamIdOf(1);
}

namespace {

json commonFields(const char* interfaceName) {
    return {{"interface", interfaceName},
            {"timestamp", 4711},
            {"event_id", 1700000011},
            {"appid", 1234},
            {"path", "live"},
            {"domain", std::string("8888.") + kSuffix}};
}

json userInput(int number, int type, int layer) {
    return {{"input_stream_id", streamIdOf(number)},
            {"layout_params",
             {{"input_type", type},
              {"image_layer", layer},
              {"image_width", 320},
              {"image_height", 240},
              {"location_x", 10},
              {"location_y", 20}}}};
}

json mixBody(json inputs) {
    json body = commonFields("set_live_mix_transcoding");
    body["session_id"] = ownStreamId();
    body["output_param"] = json::parse(R"({
        "output_stream_type":0,"output_stream_bitrate":1500,"output_stream_gop":2,"output_stream_frame_rate":20,
        "output_audio_sample_rate":48000,"output_audio_bitrate":64,"output_audio_channels":2,"output_sei":"{}"})");
    body["output_param"]["output_stream_id"] = ownStreamId();
    body["input_stream_list"] = std::move(inputs);
    body["use_mix_crop_center"] = 1;
    return body;
}

}  // namespace

json addRelayBody() {
    return relayOf(1);
}

json relayOf(int number, const std::string& destination) {
    json body = commonFields("add_relay_stream_url");
    body["stream_id"] = streamIdOf(number);
    body["dest_stream_url"] = destination;
    body["use_mix_crop_center"] = 1;
    return body;
}

json removeRelayBody() {
    return removalOf(1);
}

json removalOf(int number) {
    json body = commonFields("remove_relay_stream_url");
    body["stream_id"] = streamIdOf(number);
    return body;
}

json videoMixBody() {
    const json canvas = json::parse(R"({"input_stream_id":"canvas1","layout_params":{
        "input_type":3,"image_layer":1,"image_width":1280,"image_height":720,"location_x":0,"location_y":0,
        "color":"0x000000"}})");
    return mixBody({canvas, userInput(1, 0, 2), userInput(2, 4, 3)});
}

json audioMixBody() {
    return mixBody({userInput(1, 4, 1), userInput(2, 4, 2)});
}

json cancelMixBody() {
    json body = commonFields("set_live_mix_transcoding");
    body["session_id"] = ownStreamId();
    body["output_param"] = {{"output_stream_id", ownStreamId()}};
    body["input_stream_list"] =
        json::array({{{"input_stream_id", ownStreamId()}, {"layout_params", {{"image_layer", 1}}}}});
    return body;
}

std::string interfaceOf(const json& body) {
    return body.at("interface").get<std::string>();
}

TemporaryFolder::TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vexalive-test-XXXXXX").string();
    mPath = ::mkdtemp(pattern.data()) ? pattern : "";
    EXPECT_FALSE(mPath.empty());
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

int occurrences(const std::string& text, const std::string& part) {
    int count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

std::string readAll(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeAll(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

void runConcurrently(int count, const std::function<void(int thread)>& action) {
    std::vector<std::future<void>> threads;
    for (int thread = 0; thread < count; ++thread) {
        threads.push_back(std::async(std::launch::async, action, thread));
    }
}

void withoutDescriptors(const std::function<void()>& action) {
    rlimit before{};
    EXPECT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
    const rlimit none = {3, before.rlim_max};
    EXPECT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
    action();
    EXPECT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &before));
}

const std::string& sharedStateFolder() {
    static const TemporaryFolder folder;
    return folder.path();
}

vexalive::LiveServiceOptions plainOptions() {
    vexalive::LiveServiceOptions options;
    options.tls = false;
    return options;
}

RunningService::RunningService(vexalive::LiveServiceOptions options)
    : mTls(options.tls), mService([&options] {
          options.stateFolder = options.stateFolder.empty() ? sharedStateFolder() : options.stateFolder;
          options.pushDomainSuffix = kSuffix;
          return options;
      }()) {
    const vexalive::Result<void> started = mService.start();
    EXPECT_TRUE(started) << started.error().message;
}

HttpClient RunningService::client() const {
    return mTls ? HttpClient("https://" + mService.address(), mService.caFile())
                : HttpClient("http://" + mService.address());
}

HttpClient RunningService::console() const {
    return HttpClient("http://" + mService.consoleAddress());
}

json RunningService::post(const json& body, const std::string& query) const {
    HttpClient connection = client();
    return servicetesting::post(connection, body, query);
}

json post(HttpClient& client, const json& body, const std::string& query) {
    const HttpResponse response = client.post(targetOf(body, query), body.dump());
    EXPECT_EQ(200, response.status) << response.error;
    return json::parse(response.body, nullptr, false);
}

WorkerReport parseWorkerReport(const std::string& error) {
    std::istringstream words(error);
    std::string word, configuration;
    WorkerReport report;
    if (words >> word >> report.configurations >> word >> report.pid && std::getline(words, configuration)) {
        report.configuration = json::parse(configuration.substr(configuration.find('{')));
        return report;
    }
    return {};
}

std::string targetOf(const json& body, const std::string& query) {
    return "/v3/liveinterface/" + interfaceOf(body) + "?" + query;
}

std::string rawRequest(const std::string& method, const std::string& target, const std::string& body) {
    return method + " " + target +
           " HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

RawConnection::RawConnection(uint16_t port, const char* host) {
    addrinfo* found = nullptr;
    EXPECT_EQ(0, ::getaddrinfo(host, std::to_string(port).c_str(), nullptr, &found));
    mSocket = ::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval timeout{20, 0};
    ::setsockopt(mSocket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(mSocket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    EXPECT_EQ(0, ::connect(mSocket, found->ai_addr, found->ai_addrlen));
    ::freeaddrinfo(found);
}

RawConnection::~RawConnection() {
    ::close(mSocket);
}

void RawConnection::send(const std::string& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t count = ::send(mSocket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            return;  // the service has closed the connection
        }
        sent += static_cast<size_t>(count);
    }
}

void RawConnection::endSending() {
    ::shutdown(mSocket, SHUT_WR);
}

std::string RawConnection::read(size_t size) {
    std::string received;
    char buffer[4096];
    ssize_t count = 0;
    while (received.size() < size && (count = ::recv(mSocket, buffer, sizeof buffer, 0)) > 0) {
        received.append(buffer, static_cast<size_t>(count));
    }
    return received;
}

RawTls::RawTls(const RawConnection& connection, int minVersion, int maxVersion)
    : mContext(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free), mTls(nullptr, &SSL_free) {
    SSL_CTX_set_security_level(mContext.get(), 0);  // the default level disables old versions
    SSL_CTX_set_min_proto_version(mContext.get(), minVersion);
    SSL_CTX_set_max_proto_version(mContext.get(), maxVersion);
    mTls.reset(SSL_new(mContext.get()));
    SSL_set_fd(mTls.get(), connection.socket());
}

void RawTls::trust(const std::string& caFile, const std::string& name) {
    X509_STORE* store = SSL_CTX_get_cert_store(mContext.get());
    EXPECT_EQ(1, X509_STORE_load_file(store, caFile.c_str()));
    X509_VERIFY_PARAM* parameters = SSL_get0_param(mTls.get());
    if (X509_VERIFY_PARAM_set1_ip_asc(parameters, name.c_str()) != 1) {
        EXPECT_EQ(1, X509_VERIFY_PARAM_set1_host(parameters, name.c_str(), 0));
    }
    SSL_set_verify(mTls.get(), SSL_VERIFY_PEER, nullptr);
}

bool RawTls::handshake() {
    return SSL_connect(mTls.get()) == 1;
}

void RawTls::send(const std::string& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
        const size_t piece = std::min<size_t>(bytes.size() - sent, size_t{16} << 10);
        const int count = SSL_write(mTls.get(), bytes.data() + sent, static_cast<int>(piece));
        if (count <= 0) {
            return;
        }
        sent += static_cast<size_t>(count);
    }
}

}  // namespace servicetesting
