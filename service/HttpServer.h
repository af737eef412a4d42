// An HTTP/1.1 server for a few known paths: it listens, keeps one thread for each connection, and hands each request to
// one handler.
//
// Used by LiveService. cpp-httplib reads the requests and writes the answers; sockets and threads are kept here, so
// that idle connections cost nothing, hundreds of them are served, and stop() ends them at once.

#ifndef VEXALIVE_SERVICE_HTTP_SERVER_H
#define VEXALIVE_SERVICE_HTTP_SERVER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/Mutex.h"

struct ssl_ctx_st;

namespace vexalive {

struct HttpRequest {
    std::string method;
    std::string path;
    std::string query;      // as sent, without its "?"
    std::string host;       // header
    std::string origin;     // header; the web site that a browser asks for
    std::string fetchSite;  // header Sec-Fetch-Site; where that is, as seen from here: "cross-site"
    std::string body;
    bool isFromLoopback = false;
};

struct HttpResponse {
    enum class Delivery {
        kComplete,
        kCut,    // half of the announced body is sent, then the connection is closed
        kClose,  // nothing is sent, the connection is closed
    };
    int status = 200;
    std::string contentType = "application/json";
    std::map<std::string, std::string> headers;  // further ones
    std::string body;
    size_t padding = 0;  // so many "x" follow the body, then the tail
    std::string tail;
    Delivery delivery = Delivery::kComplete;
};

class HttpServer {
public:
    static constexpr size_t kMaxConnections = 1024;  // at a time; further ones wait to be accepted
    static constexpr size_t kMaxBodyBytes = size_t{1} << 20;

    struct Options {
        std::string address;
        uint16_t port = 0;
        std::string pem;  // certificate and private key; empty: plain HTTP, refused but on loopback
    };
    using Routes = std::map<std::string, std::vector<std::string>>;           // path to methods
    using Handler = std::function<HttpResponse(const HttpRequest& request)>;  // on many threads at a time

    // Requests that match no route, or that cannot be read, are answered without the handler: 400, 404, 405, 413, 414,
    // 415, with a JSON object with a "message".
    HttpServer(Routes routes, Handler handler);
    ~HttpServer();  // stops

    // False if it cannot listen; `error` tells why.
    bool start(const Options& options, std::string& error);
    void stop();
    bool isRunning() const { return mAcceptor.joinable(); }
    uint16_t port() const { return mPort; }

    // For a handler that wants to wait; false if the server stops meanwhile.
    bool pause(std::chrono::milliseconds time);

private:
    struct Peer {
        int socket;
        bool isOnLoopback;
        bool hasEnded = false;
        std::thread thread;
    };
    class Connection;

    bool openSocket(const Options& options, std::string& error);
    void acceptAll();
    bool awaitRoom();
    void accept(int socket, bool isOnLoopback);
    void serve(Peer& peer);

    const Routes mRoutes;
    const Handler mHandler;
    std::shared_ptr<ssl_ctx_st> mTls;  // null: plain
    int mListener = -1;
    uint16_t mPort = 0;
    std::thread mAcceptor;

    KstMutex mMutex;
    KstCondition mChanged;  // a connection ended, or the server stops
    bool mIsStopping KST_GUARDED_BY(mMutex) = false;
    std::list<Peer> mPeers KST_GUARDED_BY(mMutex);
};

}  // namespace vexalive

#endif
