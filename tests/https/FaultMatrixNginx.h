// An independent web server in front of a scripted one: nginx over HTTP/2, which is reloaded and killed while clients
// keep it busy.

#ifndef VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_NGINX_H
#define VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_NGINX_H

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
    static bool isThere();

    // Serves at once; what it gets it hands on to `upstream`, a port that speaks TLS.
    Nginx(int port, int upstream);
    ~Nginx();
    Nginx(const Nginx&) = delete;
    Nginx& operator=(const Nginx&) = delete;

    void start();
    void reload();  // returns when a new worker process is there
    void killAll();

private:
    std::vector<pid_t> workers() const;

    const int mPort;
    const std::filesystem::path mFolder;
    pid_t mMaster = 0;
};

// Clients that send without a pause, each its next request when the last one is complete.
class Load {
public:
    static constexpr const char* kInterfaceName = "load";

    explicit Load(int port);
    ~Load();
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

    void awaitAnswers(size_t more);  // waits for that many from now on

    struct Books {
        size_t sent = 0;
        size_t answered = 0;       // with 0
        size_t lost = 0;           // with 1
        size_t answeredBadly = 0;  // with anything else
        size_t clientsThatEnded = 0;

        size_t notified() const { return answered + lost + answeredBadly; }
    };
    Books end();  // no further request; waits for those in flight

private:
    void send(CVexaHttpSendRecv& client);
    void receive(CVexaHttpSendRecv& client, int retCode);

    const std::string mUrl;
    std::mutex mMutex;
    std::condition_variable mChanged;
    Books mBooks;
    bool mEnding = false;
    std::vector<std::unique_ptr<CVexaHttpSendRecv>> mClients;  // last: their callbacks use the others
};

#endif
