// The origin: the RTMP server that members publish to and that workers fetch from. nginx with its RTMP module, as a
// child on loopback, or one that is running elsewhere.
//
// Used by Media. Its applications: "live" takes what members publish under their stream ids, "mix" what mixes put out,
// and "cdn", which stands for a CDN, takes anything.

#ifndef VEXALIVE_SERVICE_ORIGIN_H
#define VEXALIVE_SERVICE_ORIGIN_H

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "service/Child.h"

namespace vexalive {

struct OriginAddress {
    std::string url;   // "rtmp://HOST:PORT", without an application
    std::string host;  // without brackets
    std::string port;
};

// Reads "rtmp://HOST" or "rtmp://HOST:PORT". Nothing if the text is something else.
std::optional<OriginAddress> readOriginAddress(const std::string& url);

struct SocketAddress {
    sockaddr_storage bytes{};
    socklen_t length = 0;
};

// All that the host means here. None if it means nothing; `error` tells why.
std::vector<SocketAddress> findAddresses(const OriginAddress& address, std::string& error);

// nginx, its files and its port. Holds a folder of its own among those of other services at work; what an earlier
// service left there is overwritten.
class Origin {
public:
    // Takes a folder below `stateFolder`, and a free port of 127.0.0.1. False if that fails, or if nginx or its
    // module is not installed; `error` tells why and what to do.
    bool prepare(const std::string& stateFolder, std::string& error);

    // Writes the configuration. Whoever wants to publish is asked about at `consolePort`.
    bool configure(uint16_t consolePort, std::string& error);

    // How nginx is started, as one process.
    std::vector<std::string> arguments() const;

    const OriginAddress& address() const { return mAddress; }

    // Gives the folder and the port back.
    void release() {
        mLock.reset();
        mPort.reset();
    }

private:
    bool takeFolder(const std::string& stateFolder, std::string& error);

    std::string mNginx;
    std::string mFolder;
    Descriptor mLock;  // of the folder
    Descriptor mPort;  // a socket that is bound to it and does not listen: no other program gets the port, nginx does
    OriginAddress mAddress;
};

// nginx's configuration. Paths in it are relative to nginx's folder.
std::string originConfiguration(const std::string& rtmpPort, uint16_t consolePort, bool isRoot);

// What a look at an origin found.
struct OriginLook {
    std::string error;        // what is wrong; empty if it answers as it should
    bool isOwnFault = false;  // this process lacks what it takes to look: the origin may be well
};

// Watches from a thread of its own whether an origin answers.
class OriginWatch {
public:
    // `told` is called on that thread after each look, several times a second while there is no answer, else once
    // a second.
    using Told = std::function<void(const OriginLook&)>;

    ~OriginWatch() { stop(); }

    // The origin is `name` in what is told, and answers at one of `addresses`.
    void start(const std::string& name, std::vector<SocketAddress> addresses, Told told);
    void stop();

private:
    void run();
    OriginLook look() const;
    OriginLook lookAt(const SocketAddress& address) const;
    bool await(int fd, short events, std::chrono::milliseconds patience) const;
    bool awaitStop(std::chrono::milliseconds patience) const;

    std::string mName;
    std::vector<SocketAddress> mAddresses;
    Told mTold;
    Descriptor mStop;  // readable once it is to stop
    std::thread mThread;
};

}  // namespace vexalive

#endif
