// The local live-interface service: a developer's own copy of the far side.
//
// It serves the three interfaces of the live-interface service over HTTPS, on loopback by default, with a certificate
// authority that it makes at first start. It checks every request strictly and says exactly which field is wrong, keeps
// the state of relays and mixes, and injects faults on request. Used by `vexalive serve` and, in-process, by tests:
//
//     vexalive::LiveService service({});
//     if (!service.start()) { ... service.error() ... }
//     // VEXALIVE_SERVICE_HOST=service.address(), VEXALIVE_CA_FILE=service.caFile()
//
// Over the wire:
//     POST   /v3/liveinterface/add_relay_stream_url       the three interfaces; service/RequestCheck.h tells what is
//     POST   /v3/liveinterface/remove_relay_stream_url    accepted and which codes refuse. Answered with HTTP 200 and
//     POST   /v3/liveinterface/set_live_mix_transcoding   {"code":0,"message":"ok"}, or a code and a message
//     GET    /state                                       as stateJson()
//     GET    /metrics                                     the same for Prometheus
//     GET    /snapshot?mix=<output stream id>             what the mix puts out, as a JPEG
//     GET    /faults                                   as faultsJson()
//     POST   /faults                                   a fault as JSON; the keys stand in Faults.h
//     DELETE /faults                                   as clearFaults()
//     POST   /origin/publish                              asked by the origin: may this be published?
//     GET    /                                            a page that shows all this, and what it needs
// All but the three interfaces are answered to loopback only, and over plain HTTP, too, on a port of their own.
//
// With media, the service does what it says: it keeps an origin that members publish to over RTMP, relays what is to be
// relayed and mixes what is to be mixed, each in a worker process.

#ifndef VEXALIVE_SERVICE_LIVE_SERVICE_H
#define VEXALIVE_SERVICE_LIVE_SERVICE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace vexalive {

// One answered request to one of the three interfaces, for a line on a display.
struct LiveServiceEvent {
    std::string interfaceName;
    std::string operation;  // "add", "remove", "start", "update", "cancel"; empty if refused or if a fault was injected
    int httpStatus = 200;   // 0: closed without an answer
    int code = 0;           // of the answer; 0: accepted, or an answer that carries none
    std::string message;    // of the answer; never shows a user signature or a map key
    std::string field;      // the field that was refused, as a path; empty otherwise
    int32_t appId = 0;      // the client's; 0 if the request was not accepted
    std::string streamId;   // relayed or mixed; empty if the request was not accepted
    std::string fault;      // its kind, as in Fault; empty if the service behaved
};

// What happens behind the service, for a line on a display.
struct LiveMediaEvent {
    enum class Kind {
        kState,           // the origin or a worker has another state, or another error
        kLine,            // it says something to people
        kRefusedPublish,  // the origin was told not to let someone publish
    };
    Kind kind = Kind::kState;
    std::string subject;    // "origin", "relay" or "mix"
    std::string streamId;   // relayed, mixed, or refused
    std::string state;      // kState: "starting", "running", "reconnecting", "stopping", "stopped" or "failed"
    std::string text;       // the last error, what is said, or why it is refused
    uint64_t restarts = 0;  // kState: of the process
};

struct LiveServiceOptions {
    std::string address = "127.0.0.1";  // a numeric address or a name of this machine
    uint16_t port = 0;                  // 0: a free one
    bool tls = true;                    // false: plain HTTP, on loopback only, for running behind a proxy

    // Where the certificates live. Empty: $XDG_STATE_HOME/vexalive, else ~/.local/state/vexalive.
    std::string stateFolder;

    // What follows the biz id and a dot in "domain". Empty: the environment's VEXALIVE_PUSH_DOMAIN, else the value
    // fixed at build time.
    std::string pushDomainSuffix;

    // Where the console is served: on this port of 127.0.0.1, 0 standing for a free one. None: only beside the three
    // interfaces; with media, a free one is taken.
    std::optional<uint16_t> consolePort;

    // Relay and mix in truth.
    bool media = false;
    std::string origin;         // "rtmp://HOST:PORT" of one that is running; empty: the service starts nginx
    std::string workerProgram;  // empty: the environment's VEXALIVE_MEDIA_WORKER, else vexalive-media beside this
                                // program, in ../libexec/vexalive, or in PATH

    // Called at what happens to media, on threads of the service's; as `observer`, and it must not make requests to
    // this service, which would wait for it.
    std::function<void(const LiveMediaEvent&)> mediaObserver;

    // Called just before each answer goes out, on the connection's thread, several at a time: it must be thread-safe,
    // must not throw, and delays that answer while it blocks. It must not call start() or stop().
    std::function<void(const LiveServiceEvent&)> observer;
};

// What the service shall do in place of answering truly. All but kDelay leave the state untouched.
struct Fault {
    enum class Kind {
        kDelay,       // the true answer, after delayMs
        kStatus,      // an HTTP status with an empty body; 301, 302, 303, 307 and 308 point to /redirected
        kEmpty,       // HTTP 200 without a body
        kCut,         // half of the announced body, then the connection ends
        kGarbage,     // HTTP 200 with a body that is no JSON
        kHuge,        // HTTP 200 with a JSON body of `size` bytes
        kServerCode,  // HTTP 200 with `code` and `message`
        kClose,       // the connection ends without an answer
    };
    Kind kind = Kind::kDelay;
    std::string interfaceName;           // empty: any of the three
    int times = 1;                       // for how many requests, up to 1,000,000; 0: until cleared
    int delayMs = 0;                     // before whatever `kind` does; 0 to 600,000, for kDelay at least 1
    int status = 503;                    // kStatus; 200 to 599
    size_t size = size_t{2} << 20;       // kHuge; 64 bytes to 1 GiB
    int code = 505;                      // kServerCode
    std::string message = "on request";  // kServerCode
    bool errorCodeKeys = false;          // kServerCode: "ErrorCode" and "ErrorInfo", not "code" and "message"
};

// Any thread may call any member, but for start() and stop(), which are for one thread at a time.
class LiveService {
public:
    explicit LiveService(LiveServiceOptions options);
    ~LiveService();  // stops
    LiveService(const LiveService&) = delete;
    LiveService& operator=(const LiveService&) = delete;

    // Makes or reads the certificates, takes the port and serves until stop(). False if that fails; error() tells why.
    // Ignores SIGPIPE for the whole process.
    bool start();
    const std::string& error() const;

    // Ends all connections and waits for their threads; well under a second, also with idle or delayed ones. With media
    // it may take three more, until all processes have ended. The state is kept; start() may follow.
    void stop();

    // After start(): where it listens, as a client needs it.
    uint16_t port() const;
    std::string address() const;         // "127.0.0.1:49152", "[::1]:49152"
    std::string consoleAddress() const;  // "127.0.0.1:49153"; empty if it has no port of its own
    std::string originAddress() const;   // "rtmp://127.0.0.1:49154"; empty without media
    const std::string& caFile()
        const;  // the authority's certificate (PEM) that clients have to trust; empty if not TLS

    // Relays, mixes, the last 200 requests and how the media are, as JSON text.
    std::string stateJson() const;

    // Faults wait in a queue: each request takes the first one that names its interface or any. Returns why it
    // is refused; empty if it is taken.
    std::string inject(const Fault& fault);
    std::string faultsJson() const;  // those that wait, as JSON text
    void clearFaults();

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

}  // namespace vexalive

#endif
