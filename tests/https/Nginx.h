// nginx as an HTTP/2 proxy in front of a test server, and clients that load it.

#ifndef VEXALIVE_TESTS_HTTPS_NGINX_H
#define VEXALIVE_TESTS_HTTPS_NGINX_H

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class CVexaHttpSendRecv;

class Nginx {
public:
    static bool isInstalled();

    // Starts nginx and returns when it serves. It forwards to `backend` ("host:port") with `scheme` (http or https).
    Nginx(int port, const std::string& scheme, const std::string& backend);
    ~Nginx();
    Nginx(const Nginx&) = delete;
    Nginx& operator=(const Nginx&) = delete;

    void start();
    void reload();  // returns when a new worker process has started
    void killAll();

    // Waits until `requests` requests are logged; returns lines of the form "CONNECTION PROTOCOL STATUS".
    std::vector<std::string> log(size_t requests) const;

private:
    std::vector<pid_t> workers() const;

    const int mPort;
    const std::filesystem::path mFolder;
    pid_t mMaster = 0;
};

// Clients that send without a pause: each client sends a request when its previous request is complete.
class Load {
public:
    static constexpr const char* kInterfaceName = "load";

    explicit Load(int port);
    ~Load();
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

    void awaitResponses(size_t more);  // waits for `more` further responses

    struct Counts {
        size_t sent = 0;
        size_t succeeded = 0;  // return code 0
        size_t retryable = 0;  // return code 1
        size_t failed = 0;     // any other return code
        size_t clientsThatEnded = 0;

        size_t notified() const { return succeeded + retryable + failed; }
    };
    Counts end();  // stops sending and waits for the requests in flight

private:
    void send(CVexaHttpSendRecv& client);
    void receive(CVexaHttpSendRecv& client, int retCode);

    const std::string mUrl;
    std::mutex mMutex;
    std::condition_variable mChanged;
    Counts mCounts;
    bool mEnding = false;
    std::vector<std::unique_ptr<CVexaHttpSendRecv>> mClients;  // last member: callbacks use the other members
};

#endif
