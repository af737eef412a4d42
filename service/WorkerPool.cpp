#include "service/WorkerPool.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "service/Child.h"
#include "service/MediaRules.h"

namespace vexalive {

using nlohmann::json;

namespace {

const WorkerKey kOriginKey = {WorkerKey::Kind::kOrigin, ""};
constexpr const char* kWorkerName = "vexalive-media";
constexpr std::chrono::seconds kOriginTimeout(15);
// The origin refuses a second publisher of a stream until the first has exited.
constexpr std::chrono::milliseconds kHandover(300);
constexpr std::chrono::milliseconds kMaxSnapshotAge(250);
constexpr std::chrono::milliseconds kSnapshotTimeout(1000);
constexpr int kSnapshotWidth = 640;

bool isOfRelay(const AcceptedRequest& request) {
    return request.kind == AcceptedRequest::Kind::kAddRelay || request.kind == AcceptedRequest::Kind::kRemoveRelay;
}

WorkerKey keyOf(const AcceptedRequest& request) {
    return {isOfRelay(request) ? WorkerKey::Kind::kRelay : WorkerKey::Kind::kMix, request.streamId};
}

LiveMediaEvent eventOf(LiveMediaEvent::Kind kind, const WorkerKey& key) {
    LiveMediaEvent event;
    event.kind = kind;
    event.subject = nameOf(key.kind);
    event.streamId = key.streamId;
    return event;
}

// Decodes Base64. Empty if `text` is malformed.
std::string decodeBase64(const std::string& text) {
    std::string bytes(text.size() / 4 * 3, '\0');
    const int size =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                        reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    const auto padding = static_cast<size_t>(
        std::count(text.end() - std::min<std::ptrdiff_t>(2, text.end() - text.begin()), text.end(), '='));
    bytes.resize(size < static_cast<int>(padding) ? 0 : static_cast<size_t>(size) - padding);
    return bytes;
}

std::string programFolder() {
    std::error_code failure;
    return std::filesystem::read_symlink("/proc/self/exe", failure).parent_path().string();
}

}  // namespace

// ---- Starting and stopping ------------------------------------------------------------------------------------------

WorkerPool::WorkerPool(const LiveServiceOptions& options)
    : mOptions(options),
      mSupervisor({[this](const WorkerKey& key, const ProcessStatus& status) { notifyState(key, status); },
                   [this](const WorkerKey& key, const std::string& line) { notifyLine(key, line); },
                   [this](const WorkerKey& key, const json& message) { handleMessage(key, message); }}) {}

WorkerPool::~WorkerPool() {
    stop();
}

Result<void> WorkerPool::prepare() {
    if (Result<void> found = findWorker(); !found) {
        return found;
    }
    OriginAddress address;
    if (!mOptions.origin.empty()) {
        const Result<OriginAddress> given = parseOriginAddress(mOptions.origin);
        if (!given) {
            return tl::unexpected(given.error());
        }
        address = *given;
    } else if (mOptions.stateFolder.empty()) {
        return failure("no folder for the origin: neither XDG_STATE_HOME nor HOME is set");
    } else if (Result<void> prepared = mOrigin.prepare(mOptions.stateFolder); !prepared) {
        return prepared;
    } else {
        address = mOrigin.address();
    }
    KstMutexLock lock(mMutex);
    mAddress = address;
    mRemoteStatus = {};
    return {};
}

Result<void> WorkerPool::findWorker() {
    const std::string here = programFolder();
    const Result<std::string> found = mOptions.workerProgram.empty()
                                          ? findProgram(kWorkerName, here + ":" + here + "/../libexec/vexalive")
                                          : mOptions.workerProgram;
    if (!found) {
        return failure(std::string("media needs the program ") + kWorkerName +
                       ", which is neither beside this one nor in ../libexec/vexalive nor in PATH: it is built with "
                       "this one where GStreamer's development packages are installed");
    }
    mWorker = *found;
    if (::access(mWorker.c_str(), X_OK) != 0) {
        return failure("cannot run " + mWorker + ": " + systemMessage(errno));
    }
    return {};
}

Result<void> WorkerPool::start(uint16_t consolePort, const std::vector<AcceptedRequest>& running) {
    Result<void> started = mSupervisor.start();
    if (started && mOptions.origin.empty()) {
        started = mOrigin.configure(consolePort).and_then([this] {
            return mSupervisor.configure(kOriginKey, {mOrigin.arguments(), kOriginTimeout, SIGTERM}, "");
        });
    }
    if (!started) {
        return started;
    }
    Result<std::vector<SocketAddress>> addresses = resolve(address());
    if (!addresses) {
        return tl::unexpected(addresses.error());
    }
    mMonitor.start(address().url, std::move(*addresses), [this](const OriginCheck& check) { handleCheck(check); });
    for (const AcceptedRequest& request : running) {
        if (const Result<void, Refusal> begun = begin(request); !begun) {
            notifyLine(keyOf(request), begun.error().message);
        }
    }
    return {};
}

void WorkerPool::endWaits() {
    KstMutexLock lock(mMutex);
    mSnapshots.clear();
    mSnapshotChanged.notifyAll();
}

void WorkerPool::stop() {
    endWaits();
    mMonitor.stop();
    mSupervisor.stop();
    mOrigin.release();
}

OriginAddress WorkerPool::address() const {
    KstMutexLock lock(mMutex);
    return mAddress;
}

// ---- Relays and mixes -----------------------------------------------------------------------------------------------

Result<void, Refusal> WorkerPool::begin(const AcceptedRequest& request) {
    const bool isRelay = isOfRelay(request);
    const OriginAddress origin = address();
    if (isRelay) {
        if (const Result<void> checked = checkDestination(request.destination, origin); !checked) {
            return refused(Refusal::kUnsupported, "dest_stream_url",
                           "found " + checked.error().message +
                               ", must be an address such as \"rtmp://host/app/stream\": media are relayed over RTMP "
                               "only, and not to where members and mixes publish");
        }
    }
    const WorkerKey key = keyOf(request);
    bool isNew = false;
    bool isFull = false;
    {
        KstMutexLock lock(mMutex);
        isNew = mSnapshots.try_emplace(key).second;
        isFull = isNew && mSnapshots.size() > kMaxWorkers;
    }
    Result<void, Refusal> result;
    if (isFull) {
        result = refused(Refusal::kFull, isRelay ? "stream_id" : "session_id",
                         std::to_string(kMaxWorkers) + " relays and mixes are running, the maximum");
    } else {
        Supervisor::Program worker{{mWorker, nameOf(key.kind)}};
        worker.handover = kHandover;
        const Result<void> configured = mSupervisor.configure(
            key, worker, isRelay ? relayConfiguration(request, origin.url) : mixConfiguration(request, origin.url));
        if (!configured) {
            result = refused(Refusal::kUnavailable, "", "no worker could be started: " + configured.error().message);
        }
    }
    if (!result && isNew) {
        KstMutexLock lock(mMutex);
        mSnapshots.erase(key);
    }
    return result;
}

void WorkerPool::end(const AcceptedRequest& request) {
    const WorkerKey key = keyOf(request);
    mSupervisor.remove(key);
    KstMutexLock lock(mMutex);
    mSnapshots.erase(key);
    mSnapshotChanged.notifyAll();
}

bool WorkerPool::allowsPublish(const std::string& form) {
    const std::string name = publishedName(form);
    const Result<void> checked = checkPublishedName(name);
    if (!checked) {
        LiveMediaEvent event = eventOf(LiveMediaEvent::Kind::kRefusedPublish, kOriginKey);
        event.streamId = name;
        event.text = checked.error().message;
        notify(event);
    }
    return checked.has_value();
}

// If several callers need the same JPEG at once, the worker receives one request.
std::string WorkerPool::snapshotJpeg(const std::string& streamId) {
    using SteadyClock = std::chrono::steady_clock;
    const WorkerKey key = {WorkerKey::Kind::kMix, streamId};
    const SteadyClock::time_point started = SteadyClock::now();
    const SteadyClock::time_point deadline = started + kSnapshotTimeout;
    KstMutexLock lock(mMutex);
    while (SteadyClock::now() < deadline) {
        const auto found = mSnapshots.find(key);
        if (found == mSnapshots.end()) {
            break;
        }
        Snapshot& snapshot = found->second;
        if (snapshot.received + kMaxSnapshotAge >= started) {
            return snapshot.jpeg;
        }
        if (snapshot.requested <= snapshot.received || snapshot.requested + kSnapshotTimeout < started) {
            snapshot.requested = SteadyClock::now();
            mSupervisor.send(key, json({{"snapshot", {{"width", kSnapshotWidth}}}}).dump());
        }
        mSnapshotChanged.waitUntil(mMutex, deadline);
    }
    return "";
}

// ---- Events ---------------------------------------------------------------------------------------------------------

void WorkerPool::notify(const LiveMediaEvent& event) const {
    if (mOptions.mediaObserver) {
        mOptions.mediaObserver(event);
    }
}

void WorkerPool::notifyState(const WorkerKey& key, const ProcessStatus& status) {
    LiveMediaEvent event = eventOf(LiveMediaEvent::Kind::kState, key);
    event.state = nameOf(status.worker.output.state);
    event.text = status.worker.output.error;
    event.restarts = status.restarts;
    notify(event);
}

void WorkerPool::notifyLine(const WorkerKey& key, const std::string& line) {
    LiveMediaEvent event = eventOf(LiveMediaEvent::Kind::kLine, key);
    event.text = line;
    notify(event);
}

void WorkerPool::handleMessage(const WorkerKey& key, const json& message) {
    const auto snapshot = message.find("snapshot");
    if (snapshot == message.end() || !snapshot->is_string()) {
        return;
    }
    KstMutexLock lock(mMutex);
    const auto found = mSnapshots.find(key);
    if (found != mSnapshots.end()) {
        found->second.jpeg = decodeBase64(snapshot->get<std::string>());
        found->second.received = std::chrono::steady_clock::now();
        mSnapshotChanged.notifyAll();
    }
}

// The supervisor detects whether nginx runs; the monitor detects whether it responds. The state of a remote origin
// depends on the monitor alone.
void WorkerPool::handleCheck(const OriginCheck& check) {
    const std::optional<ProcessStatus> process = originStatus();
    const std::optional<StreamStatus> before = process ? std::optional(process->worker.output) : std::nullopt;
    ProcessStatus now;
    StreamStatus& output = now.worker.output;
    output.error = check ? "" : check.error().message;
    const bool wasRunning = before && before->state != WorkerState::kStarting;
    output.state = check                                  ? WorkerState::kRunning
                   : check.error().isLocalFault && before ? before->state
                   : wasRunning                           ? WorkerState::kReconnecting
                                                          : WorkerState::kStarting;
    if (mOptions.origin.empty()) {
        if (check || (before && before->state == WorkerState::kRunning)) {
            mSupervisor.setStatus(kOriginKey, now.worker);
        }
        return;
    }
    {
        KstMutexLock lock(mMutex);
        mRemoteStatus = now;
    }
    if (before->state != output.state || before->error != output.error) {
        notifyState(kOriginKey, now);
    }
}

std::optional<ProcessStatus> WorkerPool::originStatus() const {
    if (mOptions.origin.empty()) {
        return mSupervisor.status(kOriginKey);
    }
    KstMutexLock lock(mMutex);
    return mRemoteStatus;
}

void WorkerPool::addTo(ServiceSnapshot& snapshot) const {
    ProcessStatus stopped;
    stopped.worker.output.state = WorkerState::kStopped;
    const std::string origin = address().url;
    const auto mediaOf = [&](WorkerKey::Kind kind, const std::string& streamId, const char* application) {
        return MediaSnapshot{origin + application + streamId, mSupervisor.status({kind, streamId}).value_or(stopped)};
    };
    snapshot.origin = MediaSnapshot{origin, originStatus().value_or(stopped)};
    for (RelaySnapshot& relay : snapshot.relays) {
        relay.media = mediaOf(WorkerKey::Kind::kRelay, relay.request.streamId, "/live/");
    }
    for (MixSnapshot& mix : snapshot.mixes) {
        mix.media = mediaOf(WorkerKey::Kind::kMix, mix.request.streamId, "/mix/");
    }
}

}  // namespace vexalive
