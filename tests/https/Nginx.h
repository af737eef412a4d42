// An independent web server in front of one of ours: nginx over HTTP/2, and clients that load it.

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

    // Serves at once and forwards to `backend`, a host and port that speaks `scheme`.
    Nginx(int port, const std::string& scheme, const std::string& backend);
    ~Nginx();
    Nginx(const Nginx&) = delete;
    Nginx& operator=(const Nginx&) = delete;

    void start();
    void reload();  // returns when a new worker process has started
    void killAll();

    // "CONNECTION PROTOCOL STATUS" of each request, once that many are complete.
    std::vector<std::string> log(size_t requests) const;

private:
    std::vector<pid_t> workers() const;

    const int mPort;
    const std::filesystem::path mFolder;
    pid_t mMaster = 0;
};

// Clients that send without a pause: each sends its next request when the previous one is complete.
class Load {
public:
    static constexpr const char* kInterfaceName = "load";

    explicit Load(int port);
    ~Load();
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

    void awaitResponses(size_t more);  // waits for that many from now on

    struct Counts {
        size_t sent = 0;
        size_t succeeded = 0;  // with 0
        size_t retryable = 0;  // with 1
        size_t failed = 0;     // with anything else
        size_t clientsThatEnded = 0;

        size_t notified() const { return succeeded + retryable + failed; }
    };
    Counts end();  // no further request; waits for those in flight

private:
    void send(CVexaHttpSendRecv& client);
    void receive(CVexaHttpSendRecv& client, int retCode);

    const std::string mUrl;
    std::mutex mMutex;
    std::condition_variable mChanged;
    Counts mCounts;
    bool mEnding = false;
    std::vector<std::unique_ptr<CVexaHttpSendRecv>> mClients;  // last: their callbacks use the others
};

#endif
