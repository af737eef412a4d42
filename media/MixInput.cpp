#include "media/MixInput.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <utility>

#include "media/FlvStream.h"
#include "media/MixPainter.h"
#include "media/MixTimeline.h"
#include "media/Worker.h"

namespace vexalive {

namespace {

constexpr int64_t kMillisecond = 1'000'000;
constexpr int64_t kSilent = 1100 * kMillisecond;       // and the publisher is taken for absent
constexpr int64_t kMaxSilent = 20'000 * kMillisecond;  // and the connection is given up
constexpr int64_t kSteady = 5'000 * kMillisecond;      // of media, and what has failed before is mended
constexpr int64_t kMaxWaited = 1'000 * kMillisecond;   // for the decoder; then video is left out up to a key frame
constexpr unsigned kMaxHeldBack = 16;                  // frames without a picture, by a decoder that sorts them
constexpr unsigned kMaxUndecoded = 20;                 // then it cannot decode them

// Of a tag's bytes, behind its header and before the size at its end.
constexpr size_t kTagHeader = 11;
constexpr size_t kTagSize = 4;
constexpr size_t kVideoHead = 5;  // kind of frame and codec, kind of packet, how much later it is shown (3)
constexpr size_t kAudioHead = 2;  // codec, kind of packet
constexpr unsigned kAvc = 7;
constexpr unsigned kAac = 10;

int64_t runningTime() {
    return static_cast<int64_t>(Pipeline::runningTime());
}

unsigned byteAt(const std::string& bytes, size_t place) {
    return static_cast<unsigned char>(bytes[place]);
}

// Signed, of three bytes.
int64_t presentationDelay(const std::string& bytes) {
    const unsigned value =
        byteAt(bytes, kTagHeader + 2) << 16 | byteAt(bytes, kTagHeader + 3) << 8 | byteAt(bytes, kTagHeader + 4);
    return value < 0x800000 ? static_cast<int64_t>(value) : static_cast<int64_t>(value) - 0x1000000;
}

GstRef<GstBuffer> bufferOf(const FlvTag& tag, size_t head) {
    const size_t begin = kTagHeader + head;
    return GstRef<GstBuffer>(gst_buffer_new_memdup(tag.bytes.data() + begin, tag.bytes.size() - begin - kTagSize));
}

void setCaps(GstElement* appsrc, GstStructure* structure, const FlvTag& setup, size_t head) {
    const GstRef<GstBuffer> data = bufferOf(setup, head);
    gst_structure_set(structure, "codec_data", GST_TYPE_BUFFER, data.get(), nullptr);
    const GstRef<GstCaps> caps(gst_caps_new_full(structure, nullptr));
    gst_app_src_set_caps(GST_APP_SRC(appsrc), caps.get());
}

// Lets a decoder hand out its pictures as they lie in its memory, with room at their edges.
GstPadProbeReturn allowRoom(GstPad*, GstPadProbeInfo* info, gpointer) {
    GstQuery* const query = gst_pad_probe_info_get_query(info);
    if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) {
        return GST_PAD_PROBE_OK;
    }
    gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
    return GST_PAD_PROBE_HANDLED;
}

// Keeps from an element the buffers for which `passes` is false.
void filter(GstElement* element, std::function<bool(const GstBuffer*)> passes) {
    const GstRef<GstPad> pad(gst_element_get_static_pad(element, "sink"));
    using Passes = std::function<bool(const GstBuffer*)>;
    gst_pad_add_probe(
        pad.get(), GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad*, GstPadProbeInfo* info, gpointer held) {
            return (*static_cast<Passes*>(held))(gst_pad_probe_info_get_buffer(info)) ? GST_PAD_PROBE_OK
                                                                                      : GST_PAD_PROBE_DROP;
        },
        new Passes(std::move(passes)), [](gpointer held) { delete static_cast<Passes*>(held); });
}

// Where the stream does not say what matrix its colours went through, it is the mix's own, as players take it. (Left to
// GStreamer, it would depend on the picture's size.)
GstVideoInfo readInfo(GstSample* sample) {
    const GstStructure* const caps = gst_caps_get_structure(gst_sample_get_caps(sample), 0);
    int width = 0;
    int height = 0;
    gst_structure_get_int(caps, "width", &width);
    gst_structure_get_int(caps, "height", &height);
    GstVideoInfo info = mixPictureInfo(width, height);
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

void takePicture(MixFeed& feed, GstSample* sample) {
    GstBuffer* const buffer = gst_sample_get_buffer(sample);
    if (GST_BUFFER_PTS_IS_VALID(buffer)) {
        feed.putPicture({static_cast<int64_t>(GST_BUFFER_PTS(buffer)), readInfo(sample),
                         GstRef<GstBuffer>(gst_buffer_ref(buffer))});
    }
}

void takeSound(MixFeed& feed, GstSample* sample) {
    GstBuffer* const buffer = gst_sample_get_buffer(sample);
    GstMapInfo map;
    if (!GST_BUFFER_PTS_IS_VALID(buffer) || !gst_buffer_map(buffer, &map, GST_MAP_READ)) {
        return;
    }
    const size_t count = map.size / sizeof(float) / MixSound::kChannels;
    feed.putSound(static_cast<int64_t>(GST_BUFFER_PTS(buffer)), reinterpret_cast<const float*>(map.data),
                  static_cast<int64_t>(count));
    gst_buffer_unmap(buffer, &map);
}

}  // namespace

// Takes apart what the connections bring, and hands it to the decoders. Any thread.
class MixInput::Demuxer {
public:
    // What an older connection still brings, counts for nothing.
    unsigned begin(GstElement* video, GstElement* audio) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mReader = FlvReader();
        mTimeline = MixTimeline();
        mVideo.reset(GST_ELEMENT(gst_object_ref(video)));
        mAudio.reset(GST_ELEMENT(gst_object_ref(audio)));
        mHasVideo = false;
        mAwaitsKeyFrame = true;
        mUndecoded = 0;
        mCannotRead.clear();
        mBegan = runningTime();
        mFirstCame = mCame = -1;
        return ++mConnection;
    }

    void wantPicture(bool isWanted) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mWantsPicture = isWanted;
    }

    void take(unsigned connection, std::string_view bytes) {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (connection == mConnection && !mReader.read(bytes, [this](const FlvTag& tag) { pass(tag); })) {
            mCannotRead = "the origin sent what is no FLV";
            mReader = FlvReader();
        }
    }

    // Whether a frame on its way to the decoder gets there.
    bool isDecoded(unsigned connection, const GstBuffer* frame) {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (connection != mConnection) {
            return false;
        }
        const bool isKeyFrame = !GST_BUFFER_FLAG_IS_SET(frame, GST_BUFFER_FLAG_DELTA_UNIT);
        const bool hasWaited = runningTime() - static_cast<int64_t>(GST_BUFFER_OFFSET(frame)) > kMaxWaited;
        mAwaitsKeyFrame = (mAwaitsKeyFrame && !isKeyFrame) || !mWantsPicture || hasWaited;
        const bool isDecoded = !mAwaitsKeyFrame && mUndecoded < kMaxUndecoded;
        mUndecoded += isDecoded ? 1 : 0;
        mNumbers.dropped += !isDecoded && mWantsPicture ? 1 : 0;
        return isDecoded;
    }
    void pictureCame() {
        const std::lock_guard<std::mutex> lock(mMutex);
        mUndecoded = 0;
    }
    bool cannotDecode() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mWantsPicture && mUndecoded >= kMaxUndecoded;
    }

    bool hasFlowed() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mCame >= 0;
    }
    bool isSteady() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mCame - mFirstCame > kSteady && (!mWantsPicture || mUndecoded <= kMaxHeldBack);
    }
    // Nanoseconds since something has come, or since the connection began.
    int64_t idle() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return runningTime() - (mCame >= 0 ? mCame : mBegan);
    }
    MediaNumbers numbers() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        MediaNumbers numbers = mNumbers;
        numbers.error = mCannotRead;
        return numbers;
    }

private:
    // The members below are used under mMutex.
    void pass(const FlvTag& tag) {
        mNumbers.bytes += tag.bytes.size();
        const size_t head = tag.kind == FlvTag::Kind::kVideo ? kVideoHead : kAudioHead;
        if (tag.kind == FlvTag::Kind::kScript || tag.bytes.size() <= kTagHeader + head + kTagSize) {
            return;
        }
        mCame = tag.isSetup() ? mCame : runningTime();
        mFirstCame = mFirstCame < 0 ? mCame : mFirstCame;
        if (tag.kind == FlvTag::Kind::kVideo) {
            passVideo(tag);
        } else {
            passAudio(tag);
        }
    }

    void passVideo(const FlvTag& tag) {
        if ((byteAt(tag.bytes, kTagHeader) & 0x0f) != kAvc) {
            mCannotRead = "its video is not H.264, and is not shown";
            return;
        }
        if (tag.isSetup()) {
            setCaps(mVideo.get(),
                    gst_structure_new("video/x-h264", "stream-format", G_TYPE_STRING, "avc", "alignment", G_TYPE_STRING,
                                      "au", nullptr),
                    tag, kVideoHead);
            return;
        }
        mHasVideo = true;
        ++mNumbers.frames;
        const int64_t decoding = turnOf(MixTimeline::kVideo, tag);
        GstRef<GstBuffer> buffer = bufferOf(tag, kVideoHead);
        const int64_t turn = std::max<int64_t>(decoding + presentationDelay(tag.bytes) * kMillisecond, 0);
        GST_BUFFER_DTS(buffer.get()) = static_cast<GstClockTime>(decoding);
        GST_BUFFER_PTS(buffer.get()) = static_cast<GstClockTime>(turn);
        GST_BUFFER_OFFSET(buffer.get()) = static_cast<guint64>(runningTime());  // to tell how long it has waited
        if (!tag.isKeyFrame()) {
            GST_BUFFER_FLAG_SET(buffer.get(), GST_BUFFER_FLAG_DELTA_UNIT);
        }
        gst_app_src_push_buffer(GST_APP_SRC(mVideo.get()), buffer.release());
    }

    void passAudio(const FlvTag& tag) {
        if (byteAt(tag.bytes, kTagHeader) >> 4 != kAac) {
            mCannotRead = "its audio is not AAC, and is not heard";
            return;
        }
        if (tag.isSetup()) {
            setCaps(mAudio.get(),
                    gst_structure_new("audio/mpeg", "mpegversion", G_TYPE_INT, 4, "stream-format", G_TYPE_STRING, "raw",
                                      nullptr),
                    tag, kAudioHead);
            return;
        }
        mNumbers.frames += mHasVideo ? 0 : 1;
        GstRef<GstBuffer> buffer = bufferOf(tag, kAudioHead);
        GST_BUFFER_PTS(buffer.get()) = static_cast<GstClockTime>(turnOf(MixTimeline::kAudio, tag));
        gst_app_src_push_buffer(GST_APP_SRC(mAudio.get()), buffer.release());
    }

    int64_t turnOf(MixTimeline::Kind kind, const FlvTag& tag) {
        return std::max<int64_t>(mTimeline.at(kind, tag.timestamp * kMillisecond, runningTime()), 0);
    }

    mutable std::mutex mMutex;
    unsigned mConnection = 0;
    FlvReader mReader;
    MixTimeline mTimeline;
    GstRef<GstElement> mVideo;  // the decoders' appsrc
    GstRef<GstElement> mAudio;
    bool mWantsPicture = false;
    bool mAwaitsKeyFrame = true;
    bool mHasVideo = false;
    unsigned mUndecoded = 0;  // frames that the decoder has got since its last picture
    std::string mCannotRead;
    int64_t mBegan = 0;
    int64_t mFirstCame = -1;
    int64_t mCame = -1;  // the last frame, or sound; -1: none yet
    MediaNumbers mNumbers;
};

MixInput::MixInput(std::string streamId, std::string source)
    : mStreamId(std::move(streamId)),
      mSource(std::move(source)),
      mFeed(std::make_shared<MixFeed>()),
      mDemuxer(std::make_shared<Demuxer>()) {
    connect();
}

MixInput::~MixInput() {
    if (mTimer != 0) {
        g_source_remove(mTimer);
    }
}

void MixInput::wantPicture(bool isWanted) {
    mDemuxer->wantPicture(isWanted);
}

void MixInput::connect() {
    mDecoders = std::make_unique<Pipeline>(
        "appsrc name=video format=time max-bytes=8000000 leaky-type=upstream"
        " ! h264parse name=parser ! avdec_h264 max-threads=1 ! videoconvert ! video/x-raw,format=I420"
        " ! appsink name=pictures sync=false async=false"
        " appsrc name=audio format=time max-bytes=0 max-time=1000000000 leaky-type=downstream"
        " ! aacparse ! avdec_aac ! audioconvert ! audioresample"
        " ! audio/x-raw,format=F32LE,layout=interleaved,rate=48000,channels=2"
        " ! appsink name=sound sync=false async=false",
        [this](const std::string& error) { decodingFailed(error); });
    const GstRef<GstPad> pictures(gst_element_get_static_pad(mDecoders->find("pictures"), "sink"));
    gst_pad_add_probe(pictures.get(), GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM, allowRoom, nullptr, nullptr);
    mDecoders->take("pictures", [feed = mFeed, demuxer = mDemuxer](GstSample* sample) {
        takePicture(*feed, sample);
        demuxer->pictureCame();
    });
    mDecoders->take("sound", [feed = mFeed](GstSample* sample) { takeSound(*feed, sample); });
    const unsigned connection = mDemuxer->begin(mDecoders->find("video"), mDecoders->find("audio"));
    // Not at the appsrc: the demuxer holds that, and each would keep the other alive.
    filter(mDecoders->find("parser"),
           [demuxer = mDemuxer, connection](const GstBuffer* frame) { return demuxer->isDecoded(connection, frame); });
    mDecoders->play();

    mConnection = std::make_unique<Pipeline>(
        "rtmp2src name=source ! appsink name=tags sync=false async=false", [this](const std::string& error) {
            reconnect(!error.empty() ? error : mDemuxer->hasFlowed() ? "its publisher has left" : "");
        });
    g_object_set(mConnection->find("source"), "location", mSource.c_str(), nullptr);
    mConnection->take("tags", [demuxer = mDemuxer, connection](GstSample* sample) {
        readBytes(sample, [&](std::string_view bytes) { demuxer->take(connection, bytes); });
    });
    mConnection->play();
}

void MixInput::reconnect(const std::string& error) {
    if (!error.empty()) {
        tell(mSource + ": " + error);
        mError = error;
        ++mReconnects;
    }
    mCannotDecode.clear();
    mConnection.reset();
    mDecoders.reset();
    connectAfter(mRetry.next());
}

// Until it is tried again, the connection stays: often, the sound of it can be decoded.
void MixInput::decodingFailed(const std::string& error) {
    mCannotDecode = "it cannot be decoded: " + error;
    tell(mSource + ": " + mCannotDecode);
    mError = mCannotDecode;
    ++mReconnects;
    connectAfter(mRetry.next());
}

void MixInput::connectAfter(std::chrono::milliseconds pause) {
    if (mTimer != 0) {
        g_source_remove(mTimer);
    }
    mTimer = callAfter(pause, [this] {
        mTimer = 0;
        connect();
    });
}

void MixInput::check() {
    if (mConnection && mDemuxer->idle() > kMaxSilent) {
        mError = status().numbers.error;
        mRetry.succeeded();  // it was long enough until now
        reconnect("");
    } else if (mTimer == 0 && mDemuxer->cannotDecode()) {
        decodingFailed("no picture comes of its video");
    } else if (mTimer == 0 && mDemuxer->isSteady()) {
        mCannotDecode.clear();
        mRetry.succeeded();
    }
}

InputStatus MixInput::status() const {
    MediaNumbers numbers = mDemuxer->numbers();
    const bool hasRun = numbers.frames > 0;
    if (mConnection && mDemuxer->hasFlowed() && mDemuxer->idle() < kSilent) {
        numbers.state = MediaState::kRunning;
        numbers.error = mCannotDecode.empty() ? numbers.error : mCannotDecode;
    } else {
        numbers.state = hasRun ? MediaState::kReconnecting : MediaState::kStarting;
        if (!mConnection || mDemuxer->idle() < kSilent) {
            numbers.error = mError;
        } else if (mDemuxer->hasFlowed()) {
            numbers.error = "nothing comes from " + mStreamId;
        } else {
            numbers.error = "no one publishes " + mStreamId + (hasRun ? " any more" : " yet");
        }
    }
    numbers.reconnects = mReconnects;
    return {mStreamId, numbers};
}

}  // namespace vexalive
