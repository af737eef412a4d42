#include "media/MixOutput.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "media/MixFlv.h"
#include "media/Worker.h"

namespace vexalive {

namespace {

constexpr int64_t kMaxWaiting = 2000;   // milliseconds of frames; then they are thrown away up to a key frame
constexpr int64_t kMaxAwaited = 300;    // milliseconds that one kind waits for the other, to be sent in order
constexpr guint64 kMaxHandedOver = 16;  // frames: the others can still be thrown away
constexpr int64_t kIdle = 3000;         // milliseconds, and it does not run
constexpr int64_t kMaxIdle = 10000;     // milliseconds, and it is given up

int64_t millisecondsNow() {
    return static_cast<int64_t>(GST_TIME_AS_MSECONDS(Pipeline::runningTime()));
}

}  // namespace

MixOutput::Frames::Frames(std::function<void()> requestKeyFrame) : mRequestKeyFrame(std::move(requestKeyFrame)) {}

void MixOutput::Frames::expectVideo(bool isExpected) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mExpectsVideo && !isExpected) {
        mAwaitsKeyFrame = false;
        mVideoSetup.reset();  // with the next frame, the destination is told what comes from now on
        mAudioSetup.reset();
        const auto isVideo = [](const Frame& frame) { return frame.tag.kind == FlvTag::Kind::kVideo; };
        const auto from = std::remove_if(mFrames.begin(), mFrames.end(), isVideo);
        mNumbers.dropped += static_cast<uint64_t>(mFrames.end() - from);
        mFrames.erase(from, mFrames.end());
    }
    mExpectsVideo = isExpected;
}

void MixOutput::Frames::put(std::shared_ptr<const Setup> setup, FlvTag tag, int64_t time) {
    const std::lock_guard<std::mutex> lock(mMutex);
    const bool isVideo = tag.kind == FlvTag::Kind::kVideo;
    int64_t& newest = isVideo ? mNewestVideo : mNewestAudio;
    Frame frame{std::move(setup), std::move(tag), time};
    // The last ones of an encoder that has been replaced may come too late.
    if (time <= newest || (isVideo && !mExpectsVideo)) {
        drop(frame);
        return;
    }
    newest = time;
    mAwaitsKeyFrame = mAwaitsKeyFrame && !frame.tag.isKeyFrame();
    if (!mAppsrc || mAwaitsKeyFrame) {
        drop(frame);
        return;
    }
    putInOrder(std::move(frame));
    makeRoom();
    send();
}

void MixOutput::Frames::putInOrder(Frame frame) {
    auto place = mFrames.end();
    while (place != mFrames.begin() && std::prev(place)->time > frame.time) {
        --place;
    }
    mFrames.insert(place, std::move(frame));
}

void MixOutput::Frames::makeRoom() {
    if (mFrames.back().time - mFrames.front().time <= kMaxWaiting) {
        return;
    }
    auto last = mFrames.end();
    while (last != mFrames.begin() && !std::prev(last)->tag.isKeyFrame()) {
        --last;
    }
    auto from = last == mFrames.begin() ? last : std::prev(last);
    if (from == mFrames.begin()) {  // no key frame, or only the first
        from = mFrames.end();
        mAwaitsKeyFrame = mExpectsVideo;
    }
    std::for_each(mFrames.begin(), from, [this](const Frame& frame) { drop(frame); });
    mFrames.erase(mFrames.begin(), from);
    if (mAwaitsKeyFrame) {
        mRequestKeyFrame();
    }
}

bool MixOutput::Frames::isCounted(const FlvTag& tag) const {
    return tag.kind == (mExpectsVideo ? FlvTag::Kind::kVideo : FlvTag::Kind::kAudio);
}

void MixOutput::Frames::drop(const Frame& frame) {
    mNumbers.dropped += isCounted(frame.tag) ? 1 : 0;
}

bool MixOutput::Frames::isInOrder(const Frame& frame) const {
    if (!mExpectsVideo) {
        return true;
    }
    const int64_t other = frame.tag.kind == FlvTag::Kind::kVideo ? mNewestAudio : mNewestVideo;
    return other >= frame.time || mFrames.back().time - frame.time > kMaxAwaited;
}

void MixOutput::Frames::send() {
    while (!mFrames.empty() && isInOrder(mFrames.front()) &&
           gst_app_src_get_current_level_buffers(GST_APP_SRC(mAppsrc.get())) < kMaxHandedOver) {
        sendFrame(mFrames.front());
        mFrames.pop_front();
    }
}

void MixOutput::Frames::sendFrame(const Frame& frame) {
    const bool isVideo = frame.tag.kind == FlvTag::Kind::kVideo;
    mFirst = mFirst < 0 ? frame.time : mFirst;
    mLast = std::max(mLast, frame.time - mFirst);
    if (isVideo) {
        mLast = mLastVideo = std::max(mLast, mLastVideo + 1);  // a frame that came very late has a moment of its own
    }
    std::shared_ptr<const Setup>& known = isVideo ? mVideoSetup : mAudioSetup;
    if (known != frame.setup) {
        known = frame.setup;
        push(metadataTag(mVideoSetup ? mVideoSetup->video : std::nullopt,
                         mAudioSetup ? mAudioSetup->audio : std::nullopt)
                 .at(mLast));
        push(frame.setup->tag.at(mLast));
    }
    push(frame.tag.at(mLast));
    mNumbers.frames += isCounted(frame.tag) ? 1 : 0;
}

void MixOutput::Frames::push(const std::string& bytes) {
    gst_app_src_push_buffer(GST_APP_SRC(mAppsrc.get()), gst_buffer_new_memdup(bytes.data(), bytes.size()));
}

unsigned MixOutput::Frames::begin(GstElement* appsrc) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mAppsrc.reset(GST_ELEMENT(gst_object_ref(appsrc)));
    mVideoSetup.reset();
    mAudioSetup.reset();
    mDelivered = 0;
    mDeliveredAt = millisecondsNow();
    mAwaitsKeyFrame = mExpectsVideo;
    push(std::string(kFlvHeader));
    mRequestKeyFrame();
    return ++mConnection;
}

void MixOutput::Frames::end() {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mAppsrc) {
        gst_app_src_end_of_stream(GST_APP_SRC(mAppsrc.get()));
    }
    mAppsrc.reset();
    for (const Frame& frame : mFrames) {
        drop(frame);
    }
    mFrames.clear();
    mDelivered = 0;
}

void MixOutput::Frames::delivered(unsigned connection, size_t bytes) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (connection != mConnection) {
        return;
    }
    ++mDelivered;
    mDeliveredAt = millisecondsNow();
    mHasEverFlowed = mHasEverFlowed || mDelivered > kBuffersBeforeConnected;
    mNumbers.bytes += bytes;
}

bool MixOutput::Frames::hasFlowed() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mDelivered > kBuffersBeforeConnected;
}

bool MixOutput::Frames::hasEverFlowed() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mHasEverFlowed;
}

int64_t MixOutput::Frames::millisecondsIdle() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return millisecondsNow() - mDeliveredAt;
}

MediaNumbers MixOutput::Frames::numbers() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mNumbers;
}

MixOutput::MixOutput(std::function<void()> requestKeyFrame)
    : mFrames(std::make_shared<Frames>(std::move(requestKeyFrame))) {}

MixOutput::~MixOutput() = default;

void MixOutput::setDestination(const std::string& destination) {
    if (destination == mDestination) {
        return;
    }
    mDestination = destination;
    mFrames->end();
    connect();
}

void MixOutput::connect() {
    if (mTimer != 0) {
        g_source_remove(mTimer);
        mTimer = 0;
    }
    ++mConnections;
    // Never in step with the clock: what comes is sent. A sink that waits for the clock sends nothing at all here.
    mPipeline = std::make_unique<Pipeline>(
        "appsrc name=tags caps=video/x-flv format=time max-bytes=0 ! rtmp2sink name=sink sync=false async=false",
        [this](const std::string& error) {
            if (mStopped) {
                mStopped();
                return;
            }
            reconnect(error.empty() ? "it ended the stream" : error);
        });
    g_object_set(mPipeline->find("sink"), "location", mDestination.c_str(), nullptr);
    const unsigned connection = mFrames->begin(mPipeline->find("tags"));
    mPipeline->watch("sink", "sink", [frames = mFrames, connection](GstBuffer* buffer) {
        frames->delivered(connection, gst_buffer_get_size(buffer));
    });
    mPipeline->play();
}

void MixOutput::reconnect(const std::string& error) {
    tell(mDestination + ": " + error);
    mError = error;
    if (mFrames->hasFlowed()) {
        mRetry.succeeded();
    }
    mFrames->end();
    mPipeline.reset();
    mTimer = callAfter(mRetry.next(), [this] {
        mTimer = 0;
        connect();
    });
}

void MixOutput::check() {
    if (mPipeline && !mStopped && mFrames->millisecondsIdle() > kMaxIdle) {
        reconnect("it takes nothing any more");
    }
}

MediaNumbers MixOutput::numbers() const {
    MediaNumbers numbers = mFrames->numbers();
    if (mPipeline && mFrames->hasFlowed() && mFrames->millisecondsIdle() < kIdle) {
        numbers.state = MediaState::kRunning;
    } else {
        numbers.state = mFrames->hasEverFlowed() ? MediaState::kReconnecting : MediaState::kStarting;
        numbers.error = mError;
    }
    numbers.reconnects = mConnections > 1 ? mConnections - 1 : 0;
    return numbers;
}

void MixOutput::stop(std::function<void()> done) {
    if (mTimer != 0) {
        g_source_remove(mTimer);
        mTimer = 0;
    }
    if (!mPipeline) {
        done();
        return;
    }
    mStopped = std::move(done);
    mFrames->end();  // the sink takes its leave of the server, then the pipeline ends
}

}  // namespace vexalive
