#include "media/RtmpSource.h"

#include <utility>

#include "media/Log.h"

namespace vexalive {

// Any thread.
class RtmpSource::Stream {
public:
    Stream(std::shared_ptr<RtmpProgress> progress, std::function<void(const FlvTag&, bool)> onTag)
        : mProgress(std::move(progress)), mOnTag(std::move(onTag)) {}

    void begin(unsigned connection) {
        const KstMutexLock lock(mMutex);
        mConnection = connection;
        mReader = FlvReader();
        mHasVideo = false;
    }

    void read(unsigned connection, std::string_view bytes) {
        const KstMutexLock lock(mMutex);
        if (connection != mConnection) {
            return;
        }
        if (!mReader.read(bytes, [this](const FlvTag& tag) KST_REQUIRES(mMutex) { handle(tag); })) {
            logLine("the origin sent data that is not FLV");
            mReader = FlvReader();
        }
    }

    uint64_t frames() const {
        const KstMutexLock lock(mMutex);
        return mFrames;
    }

private:
    void handle(const FlvTag& tag) KST_REQUIRES(mMutex) {
        mProgress->add(mConnection, tag.bytes.size(), tag.isFrame());
        mHasVideo = mHasVideo || tag.kind == FlvTag::Kind::kVideo;
        const bool isCounted = tag.isFrame() && (tag.kind == FlvTag::Kind::kVideo || !mHasVideo);
        mFrames += isCounted ? 1 : 0;
        mOnTag(tag, isCounted);
    }

    const std::shared_ptr<RtmpProgress> mProgress;
    const std::function<void(const FlvTag&, bool)> mOnTag;

    mutable KstMutex mMutex;
    unsigned mConnection KST_GUARDED_BY(mMutex) = 0;
    FlvReader mReader KST_GUARDED_BY(mMutex);
    bool mHasVideo KST_GUARDED_BY(mMutex) = false;
    uint64_t mFrames KST_GUARDED_BY(mMutex) = 0;
};

RtmpSource::RtmpSource(Rules rules, Handlers handlers)
    : RtmpClient(std::move(rules)),
      mOnConnecting(std::move(handlers.onConnecting)),
      mStream(std::make_shared<Stream>(mProgress, std::move(handlers.onTag))) {}

std::unique_ptr<Pipeline> RtmpSource::open(const std::string& address, unsigned connection, Pipeline::OnEnded onEnded) {
    mStream->begin(connection);
    mOnConnecting();
    auto pipeline = std::make_unique<Pipeline>("rtmp2src name=source ! appsink name=tags sync=false async=false",
                                               std::move(onEnded));
    g_object_set(pipeline->find("source"), "location", address.c_str(), nullptr);
    pipeline->onSample("tags", [stream = mStream, connection](GstSample* sample) {
        stream->read(connection, MappedBytes(gst_sample_get_buffer(sample)).get());
    });
    return pipeline;
}

bool RtmpSource::isFlowing(std::chrono::milliseconds timeout) const {
    return isOpen() && hasFlowed() && progress().idleTime() < timeout;
}

uint64_t RtmpSource::frames() const {
    return mStream->frames();
}

std::string absenceError(const std::string& streamId, bool hasRun) {
    return "no one publishes " + streamId + (hasRun ? " any more" : " yet");
}

}  // namespace vexalive
