#include "media/RelayWorker.h"

#include <chrono>
#include <nlohmann/json.hpp>
#include <utility>

#include "base/Mutex.h"
#include "media/FlvStream.h"

namespace vexalive {

namespace {

constexpr std::chrono::seconds kCheckInterval{1};
// For the source and for the destination alike.
constexpr std::chrono::seconds kIdleTimeout{3};    // time without progress until the stream counts as not running
constexpr std::chrono::seconds kStallTimeout{20};  // time without progress until the stream reconnects

int64_t millisecondsNow() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

}  // namespace

// Passes tags from the source to the destination's queue. Any thread.
class RelayWorker::Forwarder {
public:
    struct Counts {
        uint64_t frames = 0;
        uint64_t dropped = 0;
    };

    explicit Forwarder(std::shared_ptr<RtmpQueue> queue) : mQueue(std::move(queue)) {}

    void beginSource() {
        const KstMutexLock lock(mMutex);
        mTime.beginConnection();
        mGate.forgetHeaders();
    }

    void forward(const FlvTag& tag, bool isCounted) {
        const KstMutexLock lock(mMutex);
        const int64_t now = millisecondsNow();
        const int64_t time = tag.isMedia() ? mTime.convert(tag.timestamp, now) : mTime.last();
        mGate.observe(tag, now);
        const unsigned connection = mQueue->connection();
        if (connection != mConnection) {
            mConnection = connection;
            mGate.close();
        }
        if (connection == 0) {
            return;
        }
        const bool isPassed = mGate.pass(
            tag, mQueue->bytes(), [&](const FlvTag& each) { mQueue->push(connection, each.withTimestamp(time)); });
        (isPassed ? mCounts.frames : mCounts.dropped) += isCounted ? 1 : 0;
    }

    Counts counts() const {
        const KstMutexLock lock(mMutex);
        return mCounts;
    }

private:
    const std::shared_ptr<RtmpQueue> mQueue;

    mutable KstMutex mMutex;
    SteadyTime mTime KST_GUARDED_BY(mMutex);
    FlvGate mGate KST_GUARDED_BY(mMutex);
    unsigned mConnection KST_GUARDED_BY(mMutex) = 0;  // the queue's connection at the last tag
    Counts mCounts KST_GUARDED_BY(mMutex);
};

RelayWorker::RelayWorker()
    : mDestination({"destination", kStallTimeout}),
      mForwarder(std::make_shared<Forwarder>(mDestination.queue())),
      mSource({"source", kStallTimeout},
              {[this] { mForwarder->beginSource(); },
               [forwarder = mForwarder](const FlvTag& tag, bool isCounted) { forwarder->forward(tag, isCounted); }}) {
    check();
}

RelayWorker::~RelayWorker() = default;

Result<void> RelayWorker::configure(const nlohmann::json& configuration) {
    std::string source;
    std::string destination;
    try {
        source = configuration.at("source").get<std::string>();
        destination = configuration.at("destination").get<std::string>();
    } catch (const nlohmann::json::exception& error) {
        return failure(error.what());
    }
    mStreamId = source.substr(source.rfind('/') + 1);
    mSource.setAddress(source);
    mDestination.setAddress(destination);
    return {};
}

void RelayWorker::check() {
    mSource.check();
    mDestination.check();
    mTimer.start(kCheckInterval, [this] { check(); });
}

StreamStatus RelayWorker::sourceStatus() const {
    StreamStatus status;
    status.bytes = mSource.progress().bytes();
    status.frames = mSource.frames();
    status.reconnects = mSource.reconnects();
    if (mSource.isFlowing(kIdleTimeout)) {
        status.state = WorkerState::kRunning;
        return status;
    }
    if (mStreamId.empty()) {  // no configuration yet
        return status;
    }
    status.state = status.reconnects > 0 || status.frames > 0 ? WorkerState::kReconnecting : WorkerState::kStarting;
    if (mSource.hasFlowed()) {
        status.error = "no media from " + mStreamId;
    } else {
        status.error = mSource.error().empty() ? absenceError(mStreamId, status.frames > 0) : mSource.error();
    }
    return status;
}

StreamStatus RelayWorker::destinationStatus(const StreamStatus& source) const {
    const Forwarder::Counts counts = mForwarder->counts();
    StreamStatus status;
    status.bytes = mDestination.progress().bytes();
    status.frames = counts.frames;
    status.dropped = counts.dropped;
    status.reconnects = mDestination.reconnects();
    const bool isStalled = mDestination.isStalled(kIdleTimeout);
    if (source.state == WorkerState::kRunning && mDestination.hasFlowed() && !isStalled) {
        status.state = WorkerState::kRunning;
        return status;
    }
    status.state = status.reconnects > 0 || status.frames > 0 ? WorkerState::kReconnecting : WorkerState::kStarting;
    if (!mDestination.hasFlowed() && !mDestination.error().empty()) {
        status.error = mDestination.error();
    } else {
        status.error = isStalled ? RtmpSink::kStalledError : source.error;
    }
    return status;
}

WorkerStatus RelayWorker::status() const {
    const StreamStatus source = sourceStatus();
    return {destinationStatus(source), {{mStreamId, source}}};
}

void RelayWorker::stop(std::function<void()> done) {
    mTimer.cancel();
    mSource.stop();
    mDestination.stop(std::move(done));
}

}  // namespace vexalive
