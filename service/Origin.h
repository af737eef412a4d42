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

#include "common/Descriptor.h"
#include "common/Result.h"

namespace vexalive {

struct OriginAddress {
    std::string url;   // "rtmp://HOST:PORT", without an application
    std::string host;  // without brackets
    std::string port;
};

/// Parses "rtmp://HOST" or "rtmp://HOST:PORT"; std::nullopt for anything else.
std::optional<OriginAddress> parseOriginAddress(const std::string& url);

struct SocketAddress {
    sockaddr_storage bytes{};
    socklen_t length = 0;
};

/// All addresses of the host, at least one.
Result<std::vector<SocketAddress>> resolve(const OriginAddress& address);

/// The RTMP server to which members publish and from which workers read: nginx with its RTMP module, on loopback. It
/// has a folder that no other running service uses, and overwrites the files of an earlier service.
///
/// Its applications: "live" accepts the streams of members, named by their stream ids; "mix" accepts the output of
/// mixes; "cdn" replaces a CDN and accepts every stream.
class Origin {
public:
    /// Reserves a folder below `stateFolder` and a free port of 127.0.0.1. Also fails if nginx or its RTMP module is
    /// not installed.
    Result<void> prepare(const std::string& stateFolder);

    /// Writes the configuration. nginx queries `consolePort` before it accepts a publisher.
    Result<void> configure(uint16_t consolePort);

    /// The command line that runs nginx as one process.
    std::vector<std::string> arguments() const;

    const OriginAddress& address() const { return mAddress; }

    /// Frees the folder and the port.
    void release() {
        mLock.reset();
        mPort.reset();
    }

private:
    Result<void> lockFolder(const std::string& stateFolder);

    std::string mNginx;
    std::string mFolder;
    Descriptor mLock;  // of the folder
    Descriptor mPort;  // bound, not listening: reserves the port for nginx
    OriginAddress mAddress;
};

/// nginx's configuration. Its paths are relative to nginx's folder.
std::string originConfiguration(const std::string& rtmpPort, uint16_t consolePort, bool isRoot);

/// The result of one check of an origin.
struct OriginCheck {
    std::string error;          ///< empty if the origin responds correctly
    bool isLocalFault = false;  ///< this process could not check, for example without a free descriptor
};

/// Checks on its own thread whether an origin responds: the service's nginx, or a remote one.
class OriginMonitor {
public:
    /// Called on that thread after each check: several times a second while the origin does not respond, else once a
    /// second.
    using Callback = std::function<void(const OriginCheck&)>;

    ~OriginMonitor() { stop(); }

    /// `name` is the name of the origin in errors. The origin responds at one of `addresses`.
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
    Descriptor mStop;  // readable after stop() was called
    std::thread mThread;
};

}  // namespace vexalive

#endif
