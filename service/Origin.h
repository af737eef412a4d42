#ifndef VEXALIVE_SERVICE_ORIGIN_H
#define VEXALIVE_SERVICE_ORIGIN_H

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "common/Descriptor.h"
#include "common/Result.h"

namespace vexalive {

struct OriginAddress {
    std::string url;   // "rtmp://HOST:PORT", without an application name
    std::string host;  // without the brackets of an IPv6 address
    std::string port;
};

/// Parses "rtmp://HOST" or "rtmp://HOST:PORT". The error shows the URL.
Result<OriginAddress> parseOriginAddress(const std::string& url);

struct SocketAddress {
    sockaddr_storage bytes{};
    socklen_t length = 0;
};

/// Resolves the host to all of its addresses. Fails if it has none.
Result<std::vector<SocketAddress>> resolve(const OriginAddress& address);

/// The RTMP server to which members publish and from which workers read: nginx with its RTMP module, on loopback. nginx
/// has a folder that no other running service uses. The files of an earlier service in this folder are overwritten.
///
/// nginx has three RTMP applications: "live" accepts the streams of members, named by their stream ids; "mix" accepts
/// the output of mixes; "cdn" replaces a CDN and accepts every stream.
class Origin {
public:
    /// Reserves a folder below `stateFolder` and a free port of 127.0.0.1. Fails if this is not possible, or if nginx
    /// or its RTMP module is not installed.
    Result<void> prepare(const std::string& stateFolder);

    /// Writes nginx's configuration. Before nginx accepts a publisher, it sends a request to the service's console
    /// port.
    Result<void> configure(uint16_t consolePort);

    /// The command line that runs nginx as one process.
    std::vector<std::string> arguments() const;

    const OriginAddress& address() const { return mAddress; }

    /// Releases the folder and the port for other services.
    void release() {
        mLock.reset();
        mPort.reset();
    }

private:
    Result<void> lockFolder(const std::string& stateFolder);

    std::string mNginx;
    std::string mFolder;
    Descriptor mLock;  // an open, locked file in the folder
    Descriptor mPort;  // bound, not listening: reserves the port for nginx
    OriginAddress mAddress;
};

/// The content of nginx's configuration file. Paths in it are relative to nginx's folder.
std::string originConfiguration(const std::string& rtmpPort, uint16_t consolePort, bool isRoot);

/// Why a check of an origin failed.
struct OriginError : Error {
    bool isLocalFault = false;  ///< this process could not check the origin, e.g. for lack of a free descriptor
};

/// A value if the origin responds correctly.
using OriginCheck = Result<void, OriginError>;

/// Checks on its own thread whether an origin responds: the service's nginx, or a remote one.
class OriginMonitor {
public:
    /// Called on the monitor's thread after each check: several times per second while the origin does not respond,
    /// else once per second.
    using Callback = std::function<void(const OriginCheck&)>;

    ~OriginMonitor() { stop(); }

    /// Starts the checks. `name` is the name of the origin in errors. A check succeeds if one of `addresses` responds.
    void start(const std::string& name, std::vector<SocketAddress> addresses, Callback callback);
    void stop();

private:
    void run();
    OriginCheck check() const;
    OriginCheck check(const SocketAddress& address) const;
    bool wait(int fd, short events, std::chrono::milliseconds timeout) const;
    bool waitForStop(std::chrono::milliseconds timeout) const;

    std::string mName;
    std::vector<SocketAddress> mAddresses;
    Callback mCallback;
    Descriptor mStop;  // becomes readable when stop() is called
    std::thread mThread;
};

}  // namespace vexalive

#endif
