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
#include "common/Descriptor.h"
#include "common/Result.h"

struct ssl_ctx_st;

namespace vexalive {

struct HttpRequest {
    std::string method;
    std::string path;
    std::string query;      ///< not decoded, without the "?"
    std::string host;       ///< header Host
    std::string origin;     ///< header Origin: the web site whose page sends the request
    std::string fetchSite;  ///< header Sec-Fetch-Site: relation of that web site to this server, e.g. "cross-site"
    std::string body;
    bool isFromLoopback = false;
};

struct HttpResponse {
    enum class Delivery {
        kComplete,
        kCut,    ///< the head and half of the body are sent; then the connection is closed
        kClose,  ///< nothing is sent; the connection is closed
    };
    int status = 200;
    std::string contentType = "application/json";
    std::map<std::string, std::string> headers;  ///< further header fields
    /// What is sent is `body`, then the letter x `padding` times, then `tail`.
    std::string body;
    size_t padding = 0;
    std::string tail;
    Delivery delivery = Delivery::kComplete;
};

/// An HTTP/1.1 server for a few known paths. It has one thread for each connection. It passes all requests to one
/// handler.
///
/// Call start() and stop() from one thread at a time. Any thread may call the other member functions.
class HttpServer {
public:
    static constexpr size_t kMaxConnections = 1024;  ///< further connections wait until one of these is closed
    static constexpr size_t kMaxBodyBytes = size_t{1} << 20;

    struct Options {
        std::string address;  ///< numeric, or a name of this machine
        uint16_t port = 0;    ///< 0: a free port
        std::string pem;      ///< certificate and private key; empty: plain HTTP, on loopback only
    };
    using Routes = std::map<std::string, std::vector<std::string>>;           ///< the allowed methods of each path
    using Handler = std::function<HttpResponse(const HttpRequest& request)>;  ///< called on several threads at once

    /// Requests that match no route or are malformed do not reach `handler`. The response is then 400, 404, 405, 411,
    /// 413, 414 or 415 with a JSON object that has a "message", and the connection is closed.
    HttpServer(Routes routes, Handler handler);
    ~HttpServer();  ///< calls stop()

    /// Listens and serves until stop(). Makes the whole process ignore SIGPIPE.
    Result<void> start(const Options& options);

    /// Closes all connections at once and waits for the handlers that are running.
    void stop();
    bool isRunning() const { return mAcceptor.joinable(); }
    uint16_t port() const { return mPort; }

    /// Blocks the calling handler for `time`. Returns false as soon as the server stops, otherwise true.
    bool pause(std::chrono::milliseconds time);

private:
    struct Connection {
        Descriptor socket;  // closed just before the thread ends
        bool isFromLoopback = false;
        std::thread thread;
    };

    Result<void> openListener(const Options& options);
    void acceptAll();
    bool awaitCapacity();
    void accept(Descriptor socket, bool isFromLoopback);
    void serve(Connection& connection);

    const Routes mRoutes;
    const Handler mHandler;
    std::shared_ptr<ssl_ctx_st> mTls;  // null: plain HTTP
    Descriptor mListener;
    uint16_t mPort = 0;
    std::thread mAcceptor;

    KstMutex mMutex;
    KstCondition mChanged;  // notified when a connection is closed or the server stops
    bool mIsStopping KST_GUARDED_BY(mMutex) = false;
    std::list<Connection> mConnections KST_GUARDED_BY(mMutex);
};

}  // namespace vexalive

#endif
