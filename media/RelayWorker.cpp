#include "media/RelayWorker.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>

#include <chrono>
#include <mutex>
#include <nlohmann/json.hpp>
#include <utility>

#include "media/FlvStream.h"

namespace vexalive {

namespace {

constexpr int64_t kSilent = 3'000;      // milliseconds; and the other side is taken for absent
constexpr int64_t kMaxSilent = 20'000;  // and the connection is given up
constexpr std::chrono::seconds kLookPause{1};

int64_t millisecondsNow() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

GstBuffer* bufferOf(const std::string& bytes) {
    return gst_buffer_new_memdup(bytes.data(), bytes.size());
}

}  // namespace

// What lies between the two sides. Any thread.
class RelayWorker::Stream {
public:
    // Returns the number of the connection: what an old one still brings, counts for nothing.
    unsigned sourceBegins() {
        const std::lock_guard<std::mutex> lock(mMutex);
        mReader = FlvReader();
        mTime.beginConnection();
        mSourceCame = millisecondsNow();
        mGate.forgetSetup();
        mHasVideo = false;
        return ++mSource;
    }

    void sourceEnds() {
        const std::lock_guard<std::mutex> lock(mMutex);
        mSourceFlows = false;
    }

    unsigned destinationBegins(GstElement* appsrc) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mDestination.reset(GST_ELEMENT(gst_object_ref(appsrc)));
        mDelivered = 0;
        mDestinationTook = millisecondsNow();
        mGate.shut();
        push(std::string(kFlvHeader));
        return ++mSink;
    }

    void destinationEnds() {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mDestination) {
            gst_app_src_end_of_stream(GST_APP_SRC(mDestination.get()));
        }
        mDestination.reset();
        mDelivered = 0;
    }

    void take(unsigned connection, std::string_view bytes) {
        const std::lock_guard<std::mutex> lock(mMutex);
        const int64_t now = millisecondsNow();
        if (connection == mSource && !mReader.read(bytes, [&](const FlvTag& tag) { pass(tag, now); })) {
            tell("the origin sent what is no FLV");
            mReader = FlvReader();
        }
    }

    // The destination has taken a buffer.
    void delivered(unsigned connection, size_t bytes) {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (connection == mSink) {
            ++mDelivered;
            mDestinationTook = millisecondsNow();
        }
        mOut.bytes += bytes;
    }

    // Media have come on this connection.
    bool sourceHasRun() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mSourceFlows;
    }
    bool destinationHasRun() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return hasDelivered();
    }
    // And come now.
    bool sourceRuns() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return isSourceAlive();
    }
    bool destinationRuns() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return isSourceAlive() && hasDelivered() && millisecondsNow() - mDestinationTook < kSilent;
    }
    // Nothing has come for so long that the connection may be dead.
    bool sourceIsSilent() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return millisecondsNow() - mSourceCame > kMaxSilent;
    }
    // Nothing is taken of what waits.
    bool destinationIsStuck(int64_t milliseconds) const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mDestination && millisecondsNow() - mDestinationTook >= milliseconds &&
               gst_app_src_get_current_level_bytes(GST_APP_SRC(mDestination.get())) > 0;
    }
    MediaNumbers in() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mIn;
    }
    MediaNumbers out() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mOut;
    }

private:
    // The members below are used under mMutex.
    bool isSourceAlive() const { return mSourceFlows && millisecondsNow() - mSourceCame < kSilent; }
    bool hasDelivered() const { return mDelivered > kBuffersBeforeConnected; }

    void pass(const FlvTag& tag, int64_t now) {
        const int64_t time = tag.isMedia() ? mTime.at(tag.timestamp, now) : mTime.last();
        if (tag.isMedia()) {
            mSourceFlows = true;
            mSourceCame = now;
        }
        mHasVideo = mHasVideo || tag.kind == FlvTag::Kind::kVideo;
        mGate.see(tag, now);
        const uint64_t frames = isFrame(tag) ? 1 : 0;
        mIn.bytes += tag.bytes.size();
        mIn.frames += frames;
        if (!mDestination) {
            return;
        }
        const size_t waiting = gst_app_src_get_current_level_bytes(GST_APP_SRC(mDestination.get()));
        mDestinationTook = waiting == 0 ? now : mDestinationTook;  // it is not late with what it has not been given
        const bool isPassed = mGate.pass(tag, waiting, [&](const FlvTag& each) { push(each.at(time)); });
        (isPassed ? mOut.frames : mOut.dropped) += frames;
    }

    bool isFrame(const FlvTag& tag) const {
        return !tag.isSetup() && tag.kind == (mHasVideo ? FlvTag::Kind::kVideo : FlvTag::Kind::kAudio);
    }

    void push(const std::string& bytes) { gst_app_src_push_buffer(GST_APP_SRC(mDestination.get()), bufferOf(bytes)); }

    mutable std::mutex mMutex;
    unsigned mSource = 0;  // connections that have begun
    unsigned mSink = 0;
    FlvReader mReader;
    SteadyTime mTime;
    FlvGate mGate;
    bool mHasVideo = false;
    bool mSourceFlows = false;
    int64_t mSourceCame = 0;          // the last of the media, or the connection
    GstRef<GstElement> mDestination;  // the appsrc of its pipeline; null: none now
    uint64_t mDelivered = 0;          // buffers, on this connection
    int64_t mDestinationTook = 0;
    MediaNumbers mIn;
    MediaNumbers mOut;
};

RelayWorker::RelayWorker() : mStream(std::make_shared<Stream>()) {
    look();
}

RelayWorker::~RelayWorker() {
    g_source_remove(mLook);
}

void RelayWorker::configure(const nlohmann::json& wish) {
    const std::string source = wish.at("source").get<std::string>();
    const std::string destination = wish.at("destination").get<std::string>();
    mStreamId = source.substr(source.rfind('/') + 1);
    if (source != mSource.address) {
        mSource.address = source;
        connectSource();
    }
    if (destination != mDestination.address) {
        mDestination.address = destination;
        mDestination.retry = Retry();
        mDestination.error.clear();
        connectDestination();
    }
}

void RelayWorker::connectSource() {
    begin(mSource);
    const unsigned connection = mStream->sourceBegins();
    mSource.pipeline = std::make_unique<Pipeline>(
        "rtmp2src name=source ! appsink name=tags sync=false max-buffers=0",
        [this](const std::string& error) { sourceEnded(error.empty() ? "its publisher has left" : error); });
    g_object_set(mSource.pipeline->find("source"), "location", mSource.address.c_str(), nullptr);
    mSource.pipeline->take("tags", [stream = mStream, connection](GstSample* sample) {
        readBytes(sample, [&](std::string_view bytes) { stream->take(connection, bytes); });
    });
    mSource.pipeline->play();
}

void RelayWorker::connectDestination() {
    begin(mDestination);
    mDestination.pipeline = std::make_unique<Pipeline>(
        // Never in step with the clock: what comes is sent. A sink that waits for the clock sends nothing at all here.
        "appsrc name=tags caps=video/x-flv format=time max-bytes=0 ! rtmp2sink name=sink sync=false async=false",
        [this](const std::string& error) {
            if (mStopped) {
                mStopped();
                return;
            }
            destinationEnded(error.empty() ? "it ended the stream" : error);
        });
    GstElement* const sink = mDestination.pipeline->find("sink");
    g_object_set(sink, "location", mDestination.address.c_str(), nullptr);
    const unsigned connection = mStream->destinationBegins(mDestination.pipeline->find("tags"));
    mDestination.pipeline->watch("sink", "sink", [stream = mStream, connection](GstBuffer* buffer) {
        stream->delivered(connection, gst_buffer_get_size(buffer));
    });
    mDestination.pipeline->play();
}

void RelayWorker::sourceEnded(const std::string& error) {
    const bool hasRun = mStream->sourceHasRun();
    mStream->sourceEnds();
    reconnect(mSource, hasRun, error, [this] { connectSource(); });
}

void RelayWorker::destinationEnded(const std::string& error) {
    const bool hasRun = mStream->destinationHasRun();
    mStream->destinationEnds();
    reconnect(mDestination, hasRun, error, [this] { connectDestination(); });
}

// A connection whose other end has vanished says nothing of it.
void RelayWorker::look() {
    if (mSource.pipeline && mStream->sourceHasRun() && mStream->sourceIsSilent()) {
        sourceEnded("nothing came from it any more");
    }
    if (mDestination.pipeline && mStream->destinationIsStuck(kMaxSilent)) {
        destinationEnded("it took nothing any more");
    }
    mLook = callAfter(kLookPause, [this] { look(); });
}

void RelayWorker::reconnect(Side& side, bool hasRun, const std::string& error, std::function<void()> connect) {
    tell(side.name + (": " + error));  // not the address, which may end in a key
    side.error = error;
    side.pipeline.reset();
    if (hasRun) {
        side.retry.succeeded();
    }
    side.timer = callAfter(side.retry.next(), [&side, connect = std::move(connect)] {
        side.timer = 0;
        connect();
    });
}

void RelayWorker::begin(Side& side) {
    callOff(side);
    ++side.connections;
}

void RelayWorker::callOff(Side& side) {
    if (side.timer != 0) {
        g_source_remove(side.timer);
        side.timer = 0;
    }
}

// The last error is of before its connection, if that has run.
MediaNumbers RelayWorker::complete(MediaNumbers numbers, const Side& side, bool hasRun, bool isRunning) {
    if (isRunning) {
        numbers.state = MediaState::kRunning;
    } else {
        numbers.state = side.connections > 1 || numbers.frames > 0 ? MediaState::kReconnecting : MediaState::kStarting;
        numbers.error = hasRun ? "" : side.error;
    }
    numbers.reconnects = side.connections > 1 ? side.connections - 1 : 0;
    return numbers;
}

WorkerStatus RelayWorker::status() const {
    MediaNumbers in = complete(mStream->in(), mSource, mStream->sourceHasRun(), mStream->sourceRuns());
    MediaNumbers out = complete(mStream->out(), mDestination, mStream->destinationHasRun(), mStream->destinationRuns());
    if (in.state != MediaState::kRunning && in.error.empty()) {
        in.error =
            mStream->sourceHasRun() ? "nothing comes from " + mStreamId : "no one publishes " + mStreamId + " yet";
    }
    if (out.state != MediaState::kRunning && out.error.empty()) {
        out.error = mStream->destinationIsStuck(kSilent) ? "it takes nothing any more" : in.error;
    }
    return {out, {{mStreamId, in}}};
}

void RelayWorker::stop(std::function<void()> done) {
    callOff(mSource);
    callOff(mDestination);
    mSource.pipeline.reset();
    if (!mDestination.pipeline) {
        done();
        return;
    }
    mStopped = std::move(done);
    mStream->destinationEnds();  // the sink takes its leave of the server, then the pipeline ends
}

}  // namespace vexalive
