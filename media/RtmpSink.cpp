#include "media/RtmpSink.h"

#include <gst/app/gstappsrc.h>

#include <utility>

#include "media/FlvStream.h"

namespace vexalive {

namespace {

// The number of buffers that rtmp2sink accepts before it is connected: it drops the FLV header and holds the first tag.
constexpr unsigned kBuffersBeforeConnected = 2;

}  // namespace

unsigned RtmpQueue::connection() const {
    const KstMutexLock lock(mMutex);
    return mConnection;
}

size_t RtmpQueue::bytes() const {
    const KstMutexLock lock(mMutex);
    return mAppsrc ? gst_app_src_get_current_level_bytes(GST_APP_SRC(mAppsrc.get())) : 0;
}

size_t RtmpQueue::frames() const {
    const KstMutexLock lock(mMutex);
    return mAppsrc ? gst_app_src_get_current_level_buffers(GST_APP_SRC(mAppsrc.get())) : 0;
}

void RtmpQueue::push(unsigned connection, const std::string& tag) {
    const KstMutexLock lock(mMutex);
    if (!mAppsrc || connection != mConnection) {
        return;
    }
    if (gst_app_src_get_current_level_bytes(GST_APP_SRC(mAppsrc.get())) == 0) {
        mProgress->resetIdleTime(connection);
    }
    pushBytes(tag);
}

void RtmpQueue::pushBytes(std::string_view bytes) {
    gst_app_src_push_buffer(GST_APP_SRC(mAppsrc.get()), gst_buffer_new_memdup(bytes.data(), bytes.size()));
}

void RtmpQueue::attach(unsigned connection, GstElement* appsrc) {
    const KstMutexLock lock(mMutex);
    mConnection = connection;
    mAppsrc.reset(GST_ELEMENT(gst_object_ref(appsrc)));
    pushBytes(kFlvHeader);
}

void RtmpQueue::detach() {
    const KstMutexLock lock(mMutex);
    if (mAppsrc) {
        gst_app_src_end_of_stream(GST_APP_SRC(mAppsrc.get()));
    }
    mConnection = 0;
    mAppsrc.reset();
}

RtmpSink::RtmpSink(Rules rules) : RtmpClient(std::move(rules)), mQueue(std::make_shared<RtmpQueue>(mProgress)) {}

std::unique_ptr<Pipeline> RtmpSink::open(const std::string& address, unsigned connection, Pipeline::OnEnded onEnded) {
    auto pipeline = std::make_unique<Pipeline>(
        // sync=false: a sink that waits for the clock would never send buffers, because these have no timestamps.
        "appsrc name=tags caps=video/x-flv format=time max-bytes=0 ! rtmp2sink name=sink sync=false async=false",
        std::move(onEnded));
    g_object_set(pipeline->find("sink"), "location", address.c_str(), nullptr);
    pipeline->onBuffer("sink", "sink", [progress = mProgress, connection, count = 0U](GstBuffer* buffer) mutable {
        count += count <= kBuffersBeforeConnected ? 1 : 0;
        progress->add(connection, gst_buffer_get_size(buffer), count > kBuffersBeforeConnected);
        return true;
    });
    mQueue->attach(connection, pipeline->find("tags"));
    return pipeline;
}

void RtmpSink::ended(const Result<void>& result) {
    if (mOnStopped) {
        mOnStopped();
        return;
    }
    RtmpClient::ended(result);
}

bool RtmpSink::isStalled(std::chrono::milliseconds timeout) const {
    return mQueue->bytes() > 0 && RtmpClient::isStalled(timeout);
}

void RtmpSink::stop(std::function<void()> done) {
    if (!isOpen()) {
        disconnect();
        done();
        return;
    }
    mOnStopped = std::move(done);
    mQueue->detach();
}

}  // namespace vexalive
