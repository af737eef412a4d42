// A TLS server on loopback that runs a script of the test on each connection, and so can send any bytes.

#ifndef VEXALIVE_TESTS_SUPPORT_SCRIPTED_SERVER_H
#define VEXALIVE_TESTS_SUPPORT_SCRIPTED_SERVER_H

#include <openssl/ssl.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <list>
#include <string>
#include <thread>

#include "support/TestCertificates.h"

class ScriptedServer {
public:
    // One accepted connection, as its script sees it.
    class Connection {
    public:
        Connection(int socket, SSL_CTX* context, std::atomic<bool>& stopping);
        ~Connection();
        Connection(const Connection&) = delete;
        Connection& operator=(const Connection&) = delete;

        // False if the handshake failed.
        bool handshake();
        // The next request, head and body; empty if the client has closed.
        std::string readRequest();
        // The next bytes, one at least; empty if the client has closed.
        std::string read();
        void write(const std::string& bytes);
        std::string readPlain();                                  // what comes next, past TLS
        void writePlain(const std::string& bytes);                // past TLS
        void reset();                                             // RST instead of an orderly end
        void waitUntilRead();                                     // until the client has read everything
        bool clientClosesWithin(std::chrono::milliseconds time);  // true also if the server stops
        void waitForClient() { clientClosesWithin(std::chrono::hours(1)); }

    private:
        bool awaitBytes() const;

        int mSocket;
        SSL* mSsl;
        std::atomic<bool>& mStopping;
    };

    using Script = std::function<void(Connection& connection)>;

    struct Options {
        CertificateFault fault = CertificateFault::kNone;
        int highestProtocol = 0;  // TLS1_1_VERSION, …; 0 for the library's highest
        bool http2 = false;       // negotiated in the handshake; the script has to speak it
        int port = 0;             // 0 for a free one
    };

    // Listens; each connection runs `script` on a thread of its own. The script handshakes.
    explicit ScriptedServer(Script script) : ScriptedServer(Options(), std::move(script)) {}
    ScriptedServer(const Options& options, Script script);
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    int port() const { return mPort; }
    std::string url(const std::string& path = "/v3/liveinterface/add_relay_stream_url?usersig=s") const;
    int accepted() const { return mAccepted; }

private:
    void acceptAll();

    const Script mScript;
    SSL_CTX* mContext;
    TestCertificate mCertificate;
    int mListener;
    int mPort = 0;
    std::atomic<int> mAccepted{0};
    std::atomic<bool> mStopping{false};
    std::list<std::future<void>> mConnections;  // used by mAcceptor while it runs
    std::thread mAcceptor;
};

// A complete response.
std::string httpResponse(int status, const std::string& body, const std::string& headers = "");

// Handshakes, then responds to every request of a connection with the same bytes.
ScriptedServer::Script answering(std::string bytes);

#endif
