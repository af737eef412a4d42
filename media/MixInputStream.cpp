#include "media/MixInputStream.h"

#include <gst/app/gstappsrc.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <utility>

#include "base/Mutex.h"
#include "media/FlvStream.h"
#include "media/Log.h"
#include "media/MixPainter.h"
#include "media/MixTimeline.h"

namespace vexalive {

namespace {

constexpr std::chrono::milliseconds kIdleTimeout{1'100};  // time without media until the publisher counts as absent
constexpr std::chrono::seconds kStallTimeout{20};         // time without media until the input reconnects
constexpr std::chrono::seconds kSteadyTime{5};            // time with media until the retry pauses restart
constexpr int64_t kMillisecond = 1'000'000;
// If a frame has waited longer for the decoder, video is dropped until the next key frame.
constexpr int64_t kMaxQueueTime = 1'000 * kMillisecond;
constexpr unsigned kMaxReordered = 16;  // number of frames that a decoder may need before its first output
constexpr unsigned kMaxUndecoded = 20;  // after so many frames without output, decoding has failed

GstRef<GstBuffer> payloadOf(const FlvTag& tag) {
    const std::string_view payload = tag.payload();
    return GstRef<GstBuffer>(gst_buffer_new_memdup(payload.data(), payload.size()));
}

void setCaps(GstElement* appsrc, GstStructure* structure, const FlvTag& sequenceHeader) {
    const GstRef<GstBuffer> data = payloadOf(sequenceHeader);
    gst_structure_set(structure, "codec_data", GST_TYPE_BUFFER, data.get(), nullptr);
    const GstRef<GstCaps> caps(gst_caps_new_full(structure, nullptr));
    gst_app_src_set_caps(GST_APP_SRC(appsrc), caps.get());
}

// Allows a decoder to output frames in its own memory layout, with padding at the edges, which saves a copy.
GstPadProbeReturn allowPadding(GstPad*, GstPadProbeInfo* info, gpointer) {
    GstQuery* const query = gst_pad_probe_info_get_query(info);
    if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) {
        return GST_PAD_PROBE_OK;
    }
    gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
    return GST_PAD_PROBE_HANDLED;
}

// Reads the format of a decoded frame. If the stream does not declare its colour matrix, the mix's matrix is used, as
// players do. GStreamer would choose a matrix by the size of the frame.
GstVideoInfo readInfo(GstSample* sample) {
    const GstStructure* const caps = gst_caps_get_structure(gst_sample_get_caps(sample), 0);
    int width = 0;
    int height = 0;
    gst_structure_get_int(caps, "width", &width);
    gst_structure_get_int(caps, "height", &height);
    GstVideoInfo info = mixVideoInfo(width, height);
    const char* const declared = gst_structure_get_string(caps, "colorimetry");
    GstVideoColorimetry colours;
    if (declared && gst_video_colorimetry_from_string(&colours, declared)) {
        info.colorimetry.range = colours.range;
        if (colours.matrix != GST_VIDEO_COLOR_MATRIX_UNKNOWN) {
            info.colorimetry = colours;
        }
    }
    return info;
}

void putFrame(MixFeed& feed, GstSample* sample) {
    GstBuffer* const buffer = gst_sample_get_buffer(sample);
    if (GST_BUFFER_PTS_IS_VALID(buffer)) {
        feed.putFrame({static_cast<int64_t>(GST_BUFFER_PTS(buffer)), readInfo(sample),
                       GstRef<GstBuffer>(gst_buffer_ref(buffer))});
    }
}

void putAudio(MixFeed& feed, GstSample* sample) {
    GstBuffer* const buffer = gst_sample_get_buffer(sample);
    if (GST_BUFFER_PTS_IS_VALID(buffer)) {
        const MappedBytes bytes(buffer);
        const size_t count = bytes.get().size() / sizeof(float) / AudioRing::kChannels;
        feed.putAudio(static_cast<int64_t>(GST_BUFFER_PTS(buffer)), reinterpret_cast<const float*>(bytes.get().data()),
                      static_cast<int64_t>(count));
    }
}

}  // namespace

// Passes the frames in FLV tags to the decoders. Any thread.
class MixInputStream::Demuxer {
public:
    // Registers new decoders and returns their id. mayDecode() drops the frames that are queued for older decoders.
    unsigned begin(GstElement* video, GstElement* audio) {
        const KstMutexLock lock(mMutex);
        mTimeline = MixTimeline();
        mVideo.reset(GST_ELEMENT(gst_object_ref(video)));
        mAudio.reset(GST_ELEMENT(gst_object_ref(audio)));
        mAwaitsKeyFrame = true;
        mUndecoded = 0;
        mError.clear();
        return ++mDecoders;
    }

    void enableVideo(bool isEnabled) {
        const KstMutexLock lock(mMutex);
        mIsVideoEnabled = isEnabled;
    }

    void pass(const FlvTag& tag) {
        const KstMutexLock lock(mMutex);
        if (!tag.isMedia() || tag.payload().empty()) {
            return;
        }
        if (tag.kind == FlvTag::Kind::kVideo) {
            passVideo(tag);
        } else {
            passAudio(tag);
        }
    }

    // Whether a queued frame is still to be decoded.
    bool mayDecode(unsigned decoders, const GstBuffer* frame) {
        const KstMutexLock lock(mMutex);
        if (decoders != mDecoders) {
            return false;
        }
        const bool isKeyFrame = !GST_BUFFER_FLAG_IS_SET(frame, GST_BUFFER_FLAG_DELTA_UNIT);
        const bool isLate = Pipeline::runningTime() - static_cast<int64_t>(GST_BUFFER_OFFSET(frame)) > kMaxQueueTime;
        mAwaitsKeyFrame = (mAwaitsKeyFrame && !isKeyFrame) || !mIsVideoEnabled || isLate;
        const bool mayPass = !mAwaitsKeyFrame && mUndecoded < kMaxUndecoded;
        mUndecoded += mayPass ? 1 : 0;
        mDropped += !mayPass && mIsVideoEnabled ? 1 : 0;
        return mayPass;
    }
    void onFrameDecoded() {
        const KstMutexLock lock(mMutex);
        mUndecoded = 0;
    }
    bool cannotDecode() const {
        const KstMutexLock lock(mMutex);
        return mIsVideoEnabled && mUndecoded >= kMaxUndecoded;
    }
    bool decodes() const {
        const KstMutexLock lock(mMutex);
        return !mIsVideoEnabled || mUndecoded <= kMaxReordered;
    }

    std::string error() const {
        const KstMutexLock lock(mMutex);
        return mError;
    }
    uint64_t dropped() const {
        const KstMutexLock lock(mMutex);
        return mDropped;
    }

private:
    void passVideo(const FlvTag& tag) KST_REQUIRES(mMutex) {
        if (tag.codec() != kFlvAvc) {
            mError = "its video is not H.264, and is not shown";
            return;
        }
        if (tag.isStreamHeader()) {
            setCaps(mVideo.get(),
                    gst_structure_new("video/x-h264", "stream-format", G_TYPE_STRING, "avc", "alignment", G_TYPE_STRING,
                                      "au", nullptr),
                    tag);
            return;
        }
        const int64_t decodingTime = timeOf(MixTimeline::kVideo, tag);
        const int64_t presentationTime = std::max<int64_t>(decodingTime + tag.compositionTime() * kMillisecond, 0);
        GstRef<GstBuffer> buffer = payloadOf(tag);
        GST_BUFFER_DTS(buffer.get()) = static_cast<GstClockTime>(decodingTime);
        GST_BUFFER_PTS(buffer.get()) = static_cast<GstClockTime>(presentationTime);
        GST_BUFFER_OFFSET(buffer.get()) = static_cast<guint64>(Pipeline::runningTime());  // for mayDecode()
        if (!tag.isKeyFrame()) {
            GST_BUFFER_FLAG_SET(buffer.get(), GST_BUFFER_FLAG_DELTA_UNIT);
        }
        gst_app_src_push_buffer(GST_APP_SRC(mVideo.get()), buffer.release());
    }

    void passAudio(const FlvTag& tag) KST_REQUIRES(mMutex) {
        if (tag.codec() != kFlvAac) {
            mError = "its audio is not AAC and is not mixed";
            return;
        }
        if (tag.isStreamHeader()) {
            setCaps(mAudio.get(),
                    gst_structure_new("audio/mpeg", "mpegversion", G_TYPE_INT, 4, "stream-format", G_TYPE_STRING, "raw",
                                      nullptr),
                    tag);
            return;
        }
        GstRef<GstBuffer> buffer = payloadOf(tag);
        GST_BUFFER_PTS(buffer.get()) = static_cast<GstClockTime>(timeOf(MixTimeline::kAudio, tag));
        gst_app_src_push_buffer(GST_APP_SRC(mAudio.get()), buffer.release());
    }

    int64_t timeOf(MixTimeline::Kind kind, const FlvTag& tag) KST_REQUIRES(mMutex) {
        return std::max<int64_t>(mTimeline.toRunningTime(kind, tag.timestamp * kMillisecond, Pipeline::runningTime()),
                                 0);
    }

    mutable KstMutex mMutex;
    unsigned mDecoders KST_GUARDED_BY(mMutex) = 0;  // id of the current decoders; 0: none yet
    MixTimeline mTimeline KST_GUARDED_BY(mMutex);
    GstRef<GstElement> mVideo KST_GUARDED_BY(mMutex);  // the appsrc elements of the decoders
    GstRef<GstElement> mAudio KST_GUARDED_BY(mMutex);
    bool mIsVideoEnabled KST_GUARDED_BY(mMutex) = false;
    bool mAwaitsKeyFrame KST_GUARDED_BY(mMutex) = true;
    unsigned mUndecoded KST_GUARDED_BY(mMutex) = 0;  // frames that the decoder has received since its last output
    uint64_t mDropped KST_GUARDED_BY(mMutex) = 0;
    std::string mError KST_GUARDED_BY(mMutex);
};

MixInputStream::MixInputStream(std::string streamId, std::string address)
    : mStreamId(std::move(streamId)),
      mAddress(std::move(address)),
      mFeed(std::make_shared<MixFeed>()),
      mDemuxer(std::make_shared<Demuxer>()),
      mSource({mAddress, kStallTimeout, kSteadyTime},
              {[this] { makeDecoders(); }, [demuxer = mDemuxer](const FlvTag& tag, bool) { demuxer->pass(tag); }}) {
    mSource.setAddress(mAddress);
}

MixInputStream::~MixInputStream() = default;

void MixInputStream::enableVideo(bool isEnabled) {
    mDemuxer->enableVideo(isEnabled);
}

void MixInputStream::makeDecoders() {
    if (mSource.error() != mDecodingError) {
        mDecodingError.clear();  // the stream with that error has ended; the new stream may be decodable
    }
    mDecoders = std::make_unique<Pipeline>(
        "appsrc name=video format=time max-bytes=8000000 leaky-type=upstream"
        " ! h264parse name=parser ! avdec_h264 max-threads=1 ! videoconvert ! video/x-raw,format=I420"
        " ! appsink name=frames sync=false async=false"
        " appsrc name=audio format=time max-bytes=0 max-time=1000000000 leaky-type=downstream"
        " ! aacparse ! avdec_aac ! audioconvert ! audioresample"
        " ! audio/x-raw,format=F32LE,layout=interleaved,rate=48000,channels=2"
        " ! appsink name=samples sync=false async=false",
        [this](const Result<void>& result) { decodingFailed(result ? "its stream ended" : result.error().message); });
    const GstRef<GstPad> frames(gst_element_get_static_pad(mDecoders->find("frames"), "sink"));
    gst_pad_add_probe(frames.get(), GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM, allowPadding, nullptr, nullptr);
    mDecoders->onSample("frames", [feed = mFeed, demuxer = mDemuxer](GstSample* sample) {
        putFrame(*feed, sample);
        demuxer->onFrameDecoded();
    });
    mDecoders->onSample("samples", [feed = mFeed](GstSample* sample) { putAudio(*feed, sample); });
    const unsigned decoders = mDemuxer->begin(mDecoders->find("video"), mDecoders->find("audio"));
    // The probe is not on the appsrc: the probe owns the demuxer, and the demuxer owns the appsrc. They would never be
    // destroyed.
    mDecoders->onBuffer("parser", "sink", [demuxer = mDemuxer, decoders](const GstBuffer* frame) {
        return demuxer->mayDecode(decoders, frame);
    });
    mDecoders->play();
}

// The connection stays open until the next attempt, because its audio can often be decoded.
void MixInputStream::decodingFailed(const std::string& error) {
    mDecodingError = "it cannot be decoded: " + error;
    mSource.reconnectLater(mDecodingError);
}

void MixInputStream::check() {
    mSource.check();
    if (mSource.isReconnecting()) {
        return;
    }
    if (mDemuxer->cannotDecode()) {
        decodingFailed("the decoder outputs no frames");
    } else if (mSource.isSteady() && mDemuxer->decodes()) {
        mDecodingError.clear();
    }
}

InputStatus MixInputStream::status() const {
    StreamStatus stream;
    stream.bytes = mSource.progress().bytes();
    stream.frames = mSource.frames();
    stream.dropped = mDemuxer->dropped();
    stream.reconnects = mSource.reconnects();
    const bool hasRun = stream.frames > 0;
    if (mSource.isFlowing(kIdleTimeout)) {
        stream.state = WorkerState::kRunning;
        stream.error = mDecodingError.empty() ? mDemuxer->error() : mDecodingError;
        return {mStreamId, stream};
    }
    stream.state = hasRun ? WorkerState::kReconnecting : WorkerState::kStarting;
    const bool isNew = !mSource.isOpen() || mSource.progress().idleTime() < kIdleTimeout;
    if (isNew && !mSource.error().empty()) {
        stream.error = mSource.error();
    } else if (mSource.hasFlowed()) {
        stream.error = "no media from " + mStreamId;
    } else if (!isNew || mSource.progress().connections() > 1) {
        stream.error = absenceError(mStreamId, hasRun);
    }
    return {mStreamId, stream};
}

}  // namespace vexalive
