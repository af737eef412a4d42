#include "media/MixEncoder.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "media/MixFlv.h"
#include "media/MixPainter.h"

namespace vexalive {

namespace {

// More threads than needed cost time, and each cuts the picture into another slice.
constexpr int64_t kPixelsAThread = 50'000'000;  // a second
constexpr int64_t kMaxThreads = 8;

// Holds a buffer's bytes.
class Bytes {
public:
    explicit Bytes(GstBuffer* buffer) : mBuffer(buffer) { gst_buffer_map(buffer, &mMap, GST_MAP_READ); }
    ~Bytes() { gst_buffer_unmap(mBuffer, &mMap); }
    Bytes(const Bytes&) = delete;
    Bytes& operator=(const Bytes&) = delete;

    std::string_view get() const { return {reinterpret_cast<const char*>(mMap.data), mMap.size}; }

private:
    GstBuffer* mBuffer;
    GstMapInfo mMap{};
};

FlvTag readSetup(FlvTag::Kind kind, GstSample* sample) {
    const GstStructure* const caps = gst_caps_get_structure(gst_sample_get_caps(sample), 0);
    const GValue* const data = gst_structure_get_value(caps, "codec_data");
    return data ? setupTag(kind, Bytes(gst_value_get_buffer(data)).get()) : FlvTag();
}

// Milliseconds of running time. x264enc moves its timestamps and its segment by 1000 hours; the difference holds.
int64_t timeOf(GstSample* sample) {
    const GstClockTime time = gst_segment_to_running_time(gst_sample_get_segment(sample), GST_FORMAT_TIME,
                                                          GST_BUFFER_PTS(gst_sample_get_buffer(sample)));
    return static_cast<int64_t>(GST_TIME_AS_MSECONDS(time));
}

// Makes tags of samples and hands them on; the setup is that of the first.
std::unique_ptr<Pipeline> play(std::unique_ptr<Pipeline> pipeline, FlvTag::Kind kind, MixOutput::Setup description,
                               std::shared_ptr<MixOutput::Frames> frames) {
    pipeline->take("out", [kind, description = std::move(description), frames = std::move(frames),
                           setup = std::shared_ptr<const MixOutput::Setup>()](GstSample* sample) mutable {
        if (!setup) {
            description.tag = readSetup(kind, sample);
            setup = std::make_shared<const MixOutput::Setup>(std::move(description));
        }
        GstBuffer* const buffer = gst_sample_get_buffer(sample);
        const Bytes bytes(buffer);
        frames->put(setup,
                    kind == FlvTag::Kind::kVideo
                        ? videoTag(bytes.get(), !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT))
                        : audioTag(bytes.get()),
                    timeOf(sample));
    });
    pipeline->play();
    return pipeline;
}

}  // namespace

std::unique_ptr<Pipeline> makeEncoder(const MixVideo& video, std::shared_ptr<MixOutput::Frames> frames,
                                      Pipeline::Ended ended) {
    const std::string bitrate = std::to_string(video.bitrate);
    const std::string keyFrames = std::to_string(video.keySeconds * video.frameRate);
    const int64_t pixels = int64_t{video.width} * video.height * video.frameRate;
    const std::string threads = std::to_string(1 + std::min<int64_t>(pixels / kPixelsAThread, kMaxThreads - 1));
    auto pipeline = std::make_unique<Pipeline>(
        "appsrc name=in format=time max-bytes=0"
        " ! x264enc speed-preset=veryfast tune=zerolatency aud=false threads=" +
            threads + " bitrate=" + bitrate + " key-int-max=" + keyFrames +
            " ! video/x-h264,stream-format=avc,alignment=au"
            " ! appsink name=out sync=false async=false",
        std::move(ended));
    GstVideoInfo info = mixPictureInfo(video.width, video.height);
    const GstRef<GstCaps> caps(gst_video_info_to_caps(&info));
    gst_app_src_set_caps(GST_APP_SRC(pipeline->find("in")), caps.get());
    MixOutput::Setup description;
    description.video = video;
    return play(std::move(pipeline), FlvTag::Kind::kVideo, std::move(description), std::move(frames));
}

std::unique_ptr<Pipeline> makeEncoder(const MixAudio& audio, std::shared_ptr<MixOutput::Frames> frames,
                                      Pipeline::Ended ended) {
    const std::string rate = std::to_string(audio.sampleRate);
    const std::string channels = std::to_string(audio.channels);
    const std::string bitrate = std::to_string(audio.bitrate * 1000);
    MixOutput::Setup description;
    description.audio = audio;
    return play(std::make_unique<Pipeline>("appsrc name=in format=time max-bytes=2000000 leaky-type=downstream"
                                           " caps=audio/x-raw,format=F32LE,layout=interleaved,rate=48000,channels=2"
                                           " ! audioconvert ! audioresample ! audio/x-raw,rate=" +
                                               rate + ",channels=" + channels + " ! avenc_aac bitrate=" + bitrate +
                                               " ! audio/mpeg,mpegversion=4,stream-format=raw"
                                               " ! appsink name=out sync=false async=false",
                                           std::move(ended)),
                FlvTag::Kind::kAudio, std::move(description), std::move(frames));
}

}  // namespace vexalive
