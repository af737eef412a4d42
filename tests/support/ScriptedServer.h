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
    // One accepted connection, as an argument of the script.
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
        std::string readPlain();                                  // the next bytes of the socket, without TLS
        void writePlain(const std::string& bytes);                // to the socket, without TLS
        void reset();                                             // closes with RST
        void waitUntilRead();                                     // until the client has read everything
        bool clientClosesWithin(std::chrono::milliseconds time);  // also returns true when the server stops
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
        int highestProtocol = 0;  // TLS1_1_VERSION, …; 0: the highest version of OpenSSL
        bool http2 = false;       // the handshake negotiates HTTP/2; the script has to speak it
        int port = 0;             // 0: any free port
    };

    // Listens. Runs `script` for each connection, on a separate thread. The script calls handshake().
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

// The bytes of a complete response.
std::string httpResponse(int status, const std::string& body, const std::string& headers = "");

// A script that performs the handshake and responds to every request with the same bytes.
ScriptedServer::Script alwaysRespond(std::string bytes);

#endif
