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
    std::string query;      ///< as sent, without its "?"
    std::string host;       ///< header Host
    std::string origin;     ///< header Origin: the web site whose page sends the request
    std::string fetchSite;  ///< header Sec-Fetch-Site: how that site relates to this one, "cross-site" for example
    std::string body;
    bool isFromLoopback = false;
};

struct HttpResponse {
    enum class Delivery {
        kComplete,
        kCut,    ///< half of the announced body is sent, then the connection is closed
        kClose,  ///< nothing is sent, the connection is closed
    };
    int status = 200;
    std::string contentType = "application/json";
    std::map<std::string, std::string> headers;  ///< further ones
    std::string body;
    size_t padding = 0;  ///< number of "x" between body and tail
    std::string tail;
    Delivery delivery = Delivery::kComplete;
};

/// An HTTP/1.1 server for a few known paths. It has one thread for each connection and passes each request to one
/// handler.
///
/// start() and stop() are for one thread at a time; any thread may call the other members.
class HttpServer {
public:
    static constexpr size_t kMaxConnections = 1024;  ///< at a time; further ones wait to be accepted
    static constexpr size_t kMaxBodyBytes = size_t{1} << 20;

    struct Options {
        std::string address;  ///< numeric, or a name of this machine
        uint16_t port = 0;    ///< 0: a free one
        std::string pem;      ///< certificate and private key; empty: plain HTTP, on loopback only
    };
    using Routes = std::map<std::string, std::vector<std::string>>;           ///< path to methods
    using Handler = std::function<HttpResponse(const HttpRequest& request)>;  ///< called on many threads at a time

    /// Requests that match no route, or that cannot be read, do not reach the handler. The response is 400, 404, 405,
    /// 411, 413, 414 or 415 with a JSON object with a "message", and the connection is closed.
    HttpServer(Routes routes, Handler handler);
    ~HttpServer();  ///< stops

    /// Ignores SIGPIPE for the whole process.
    Result<void> start(const Options& options);

    /// Closes all connections at once and waits for the handlers that are running.
    void stop();
    bool isRunning() const { return mAcceptor.joinable(); }
    uint16_t port() const { return mPort; }

    /// Blocks a handler for that time. Returns false at once if the server stops.
    bool pause(std::chrono::milliseconds time);

private:
    struct Connection {
        Descriptor socket;  // closed when the thread is about to end
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
    std::shared_ptr<ssl_ctx_st> mTls;  // null: plain
    Descriptor mListener;
    uint16_t mPort = 0;
    std::thread mAcceptor;

    KstMutex mMutex;
    KstCondition mChanged;  // a connection closed, or the server stops
    bool mIsStopping KST_GUARDED_BY(mMutex) = false;
    std::list<Connection> mConnections KST_GUARDED_BY(mMutex);
};

}  // namespace vexalive

#endif
