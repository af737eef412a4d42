#include "media/MixEncoder.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "media/MixFlv.h"
#include "media/MixPainter.h"

namespace vexalive {

namespace {

// The number of encoder threads grows with the pixel rate: a thread too many costs time, and each adds a slice.
constexpr int64_t kPixelsPerThread = 50'000'000;  // pixels per second
constexpr int64_t kMaxThreads = 8;

FlvTag readSequenceHeader(FlvTag::Kind kind, GstSample* sample) {
    const GstStructure* const caps = gst_caps_get_structure(gst_sample_get_caps(sample), 0);
    const GValue* const data = gst_structure_get_value(caps, "codec_data");
    return data ? sequenceHeaderTag(kind, MappedBytes(gst_value_get_buffer(data)).get()) : FlvTag();
}

// In milliseconds of running time. The segment is needed because x264enc shifts both its timestamps and its segment by
// 1000 hours.
int64_t timeOf(GstSample* sample) {
    const GstClockTime time = gst_segment_to_running_time(gst_sample_get_segment(sample), GST_FORMAT_TIME,
                                                          GST_BUFFER_PTS(gst_sample_get_buffer(sample)));
    return static_cast<int64_t>(GST_TIME_AS_MSECONDS(time));
}

// Starts the encoder. The sequence header is in the caps of the encoder's first sample.
std::unique_ptr<Pipeline> play(std::unique_ptr<Pipeline> encoder, FlvTag::Kind kind, MixMuxer::Header description,
                               std::shared_ptr<MixMuxer> muxer) {
    encoder->onSample("out", [kind, description = std::move(description), muxer = std::move(muxer),
                              header = std::shared_ptr<const MixMuxer::Header>()](GstSample* sample) mutable {
        if (!header) {
            description.tag = readSequenceHeader(kind, sample);
            header = std::make_shared<const MixMuxer::Header>(std::move(description));
        }
        GstBuffer* const buffer = gst_sample_get_buffer(sample);
        const MappedBytes bytes(buffer);
        const bool isKeyFrame = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
        muxer->put(header, kind == FlvTag::Kind::kVideo ? videoTag(bytes.get(), isKeyFrame) : audioTag(bytes.get()),
                   timeOf(sample));
    });
    encoder->play();
    return encoder;
}

}  // namespace

std::unique_ptr<Pipeline> makeEncoder(const VideoFormat& format, std::shared_ptr<MixMuxer> muxer,
                                      Pipeline::OnEnded onEnded) {
    const std::string bitrate = std::to_string(format.bitrate);
    const std::string keyFrames = std::to_string(format.keySeconds * format.frameRate);
    const int64_t pixels = int64_t{format.width} * format.height * format.frameRate;
    const std::string threads = std::to_string(1 + std::min<int64_t>(pixels / kPixelsPerThread, kMaxThreads - 1));
    auto pipeline = std::make_unique<Pipeline>(
        "appsrc name=in format=time max-bytes=0"
        " ! x264enc speed-preset=veryfast tune=zerolatency aud=false threads=" +
            threads + " bitrate=" + bitrate + " key-int-max=" + keyFrames +
            " ! video/x-h264,stream-format=avc,alignment=au"
            " ! appsink name=out sync=false async=false",
        std::move(onEnded));
    GstVideoInfo info = mixVideoInfo(format.width, format.height);
    const GstRef<GstCaps> caps(gst_video_info_to_caps(&info));
    gst_app_src_set_caps(GST_APP_SRC(pipeline->find("in")), caps.get());
    MixMuxer::Header description;
    description.video = format;
    return play(std::move(pipeline), FlvTag::Kind::kVideo, std::move(description), std::move(muxer));
}

std::unique_ptr<Pipeline> makeEncoder(const AudioFormat& format, std::shared_ptr<MixMuxer> muxer,
                                      Pipeline::OnEnded onEnded) {
    const std::string rate = std::to_string(format.sampleRate);
    const std::string channels = std::to_string(format.channels);
    const std::string bitrate = std::to_string(format.bitrate * 1000);
    MixMuxer::Header description;
    description.audio = format;
    return play(std::make_unique<Pipeline>("appsrc name=in format=time max-bytes=2000000 leaky-type=downstream"
                                           " caps=audio/x-raw,format=F32LE,layout=interleaved,rate=48000,channels=2"
                                           " ! audioconvert ! audioresample ! audio/x-raw,rate=" +
                                               rate + ",channels=" + channels + " ! avenc_aac bitrate=" + bitrate +
                                               " ! audio/mpeg,mpegversion=4,stream-format=raw"
                                               " ! appsink name=out sync=false async=false",
                                           std::move(onEnded)),
                FlvTag::Kind::kAudio, std::move(description), std::move(muxer));
}

}  // namespace vexalive
