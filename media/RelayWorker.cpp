#include "media/RelayWorker.h"

#include <chrono>
#include <nlohmann/json.hpp>
#include <utility>

#include "base/Mutex.h"
#include "media/FlvStream.h"

namespace vexalive {

namespace {

constexpr std::chrono::seconds kCheckInterval{1};
constexpr std::chrono::seconds kIdleTimeout{3};    // without progress, and a side is not running
constexpr std::chrono::seconds kStallTimeout{20};  // without progress, and a side reconnects

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
        const int64_t time = tag.isMedia() ? mTime.at(tag.timestamp, now) : mTime.last();
        mGate.observe(tag, now);
        const unsigned connection = mQueue->connection();
        if (connection != mConnection) {
            mConnection = connection;
            mGate.close();
        }
        if (connection == 0) {
            return;
        }
        const bool isPassed =
            mGate.pass(tag, mQueue->bytes(), [&](const FlvTag& each) { mQueue->push(connection, each.at(time)); });
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
    unsigned mConnection KST_GUARDED_BY(mMutex) = 0;  // of the queue, as of the last tag
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

void RelayWorker::configure(const nlohmann::json& configuration) {
    const std::string source = configuration.at("source").get<std::string>();
    const std::string destination = configuration.at("destination").get<std::string>();
    mStreamId = source.substr(source.rfind('/') + 1);
    mSource.setAddress(source);
    mDestination.setAddress(destination);
}

void RelayWorker::check() {
    mSource.check();
    mDestination.check();
    mTimer.start(kCheckInterval, [this] { check(); });
}

MediaNumbers RelayWorker::sourceNumbers() const {
    MediaNumbers numbers;
    numbers.bytes = mSource.progress().bytes();
    numbers.frames = mSource.frames();
    numbers.reconnects = mSource.reconnects();
    if (mSource.isFlowing(kIdleTimeout)) {
        numbers.state = MediaState::kRunning;
        return numbers;
    }
    numbers.state = numbers.reconnects > 0 || numbers.frames > 0 ? MediaState::kReconnecting : MediaState::kStarting;
    if (mSource.hasFlowed()) {
        numbers.error = "nothing comes from " + mStreamId;
    } else {
        numbers.error = mSource.error().empty() ? absenceOf(mStreamId, numbers.frames > 0) : mSource.error();
    }
    return numbers;
}

MediaNumbers RelayWorker::destinationNumbers(const MediaNumbers& source) const {
    const Forwarder::Counts counts = mForwarder->counts();
    MediaNumbers numbers;
    numbers.bytes = mDestination.progress().bytes();
    numbers.frames = counts.frames;
    numbers.dropped = counts.dropped;
    numbers.reconnects = mDestination.reconnects();
    const bool isStalled = mDestination.isStalled(kIdleTimeout);
    if (source.state == MediaState::kRunning && mDestination.hasFlowed() && !isStalled) {
        numbers.state = MediaState::kRunning;
        return numbers;
    }
    numbers.state = numbers.reconnects > 0 || numbers.frames > 0 ? MediaState::kReconnecting : MediaState::kStarting;
    if (!mDestination.hasFlowed() && !mDestination.error().empty()) {
        numbers.error = mDestination.error();
    } else {
        numbers.error = isStalled ? RtmpSink::kStalledError : source.error;
    }
    return numbers;
}

WorkerStatus RelayWorker::status() const {
    const MediaNumbers source = sourceNumbers();
    return {destinationNumbers(source), {{mStreamId, source}}};
}

void RelayWorker::stop(std::function<void()> done) {
    mTimer.cancel();
    mSource.stop();
    mDestination.stop(std::move(done));
}

}  // namespace vexalive
