#include "media/MixPainter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <utility>

namespace vexalive {

namespace {

constexpr uint32_t kPlaceholder = 0x2b2b2b;  // the colour of an input without a frame

// The pool has no size limit. It grows to the number of buffers that the encoder holds at the same time.
GstRef<GstBufferPool> makePool(GstVideoInfo info) {
    const GstRef<GstCaps> caps(gst_video_info_to_caps(&info));
    GstRef<GstBufferPool> pool(gst_video_buffer_pool_new());
    GstStructure* const config = gst_buffer_pool_get_config(pool.get());
    gst_buffer_pool_config_set_params(config, caps.get(), static_cast<guint>(GST_VIDEO_INFO_SIZE(&info)), 0, 0);
    gst_buffer_pool_set_config(pool.get(), config);
    gst_buffer_pool_set_active(pool.get(), TRUE);
    return pool;
}

// Converts RGB to BT.601 YUV of limited range.
std::array<int, 3> toYuv(uint32_t colour) {
    const double red = (colour >> 16 & 0xff) / 255.0;
    const double green = (colour >> 8 & 0xff) / 255.0;
    const double blue = (colour & 0xff) / 255.0;
    return {static_cast<int>(std::lround(16 + 65.481 * red + 128.553 * green + 24.966 * blue)),
            static_cast<int>(std::lround(128 - 37.797 * red - 74.203 * green + 112.0 * blue)),
            static_cast<int>(std::lround(128 + 112.0 * red - 93.786 * green - 18.214 * blue))};
}

uint8_t* lineOf(GstVideoFrame& frame, int plane, int64_t x, int64_t y) {
    return static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane)) +
           y * GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane) + x;
}

void fill(GstVideoFrame& frame, const Rectangle& area, uint32_t colour) {
    const std::array<int, 3> yuv = toYuv(colour);
    for (int plane = 0; plane < 3; ++plane) {
        const int subsampling = plane == 0 ? 1 : 2;
        for (int64_t y = area.y / subsampling; y < (area.y + area.height) / subsampling; ++y) {
            std::memset(lineOf(frame, plane, area.x / subsampling, y), yuv[static_cast<size_t>(plane)],
                        static_cast<size_t>(area.width / subsampling));
        }
    }
}

void copy(GstVideoFrame& frame, GstVideoFrame& canvas, const Placement& placement) {
    for (int plane = 0; plane < 3; ++plane) {
        const int subsampling = plane == 0 ? 1 : 2;
        for (int64_t y = 0; y < placement.target.height / subsampling; ++y) {
            std::memcpy(lineOf(canvas, plane, placement.target.x / subsampling, placement.target.y / subsampling + y),
                        lineOf(frame, plane, placement.source.x / subsampling, placement.source.y / subsampling + y),
                        static_cast<size_t>(placement.target.width / subsampling));
        }
    }
}

bool isHidden(const std::vector<Rectangle>& targets, size_t index) {
    return targets[index].isEmpty() ||
           std::any_of(targets.begin() + static_cast<ptrdiff_t>(index) + 1, targets.end(),
                       [&](const Rectangle& upper) { return covers(upper, targets[index]); });
}

}  // namespace

GstVideoInfo mixVideoInfo(int width, int height) {
    GstVideoInfo info;
    gst_video_info_set_format(&info, GST_VIDEO_FORMAT_I420, static_cast<guint>(width), static_cast<guint>(height));
    gst_video_colorimetry_from_string(&info.colorimetry, GST_VIDEO_COLORIMETRY_BT601);
    info.chroma_site = GST_VIDEO_CHROMA_SITE_MPEG2;
    return info;
}

// Paints the frames of one input. A scaler is replaced when the format or the placement of the frames changes.
class MixPainter::Scaler {
public:
    Scaler(const GstVideoInfo& frame, const GstVideoInfo& canvas, const Placement& placement)
        : mFrame(frame), mPlacement(placement) {
        const GstVideoColorimetry& colours = frame.colorimetry;
        if (placement.source.width == placement.target.width && placement.source.height == placement.target.height &&
            gst_video_colorimetry_is_equal(&colours, &canvas.colorimetry)) {
            return;
        }
        const auto number = [](int64_t value) { return static_cast<gint>(value); };
        GstVideoInfo from = frame;
        if (colours.range != canvas.colorimetry.range && colours.matrix == canvas.colorimetry.matrix) {
            // The converter converts the range only if the matrices differ. FCC is nearly the same matrix as BT.601.
            from.colorimetry.matrix = GST_VIDEO_COLOR_MATRIX_FCC;
        }
        GstVideoInfo to = mixVideoInfo(number(placement.target.width), number(placement.target.height));
        const GstRef<GstBuffer> buffer(gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&to), nullptr));
        gst_video_frame_map(&mScaled, &to, buffer.get(), GST_MAP_READWRITE);  // takes a reference
        // Chroma needs the cubic method: the default, linear, crashes when it halves a frame from an odd column.
        mConverter = gst_video_converter_new(
            &from, &to,
            gst_structure_new("scaler",                                                                         //
                              GST_VIDEO_CONVERTER_OPT_SRC_X, G_TYPE_INT, number(placement.source.x),            //
                              GST_VIDEO_CONVERTER_OPT_SRC_Y, G_TYPE_INT, number(placement.source.y),            //
                              GST_VIDEO_CONVERTER_OPT_SRC_WIDTH, G_TYPE_INT, number(placement.source.width),    //
                              GST_VIDEO_CONVERTER_OPT_SRC_HEIGHT, G_TYPE_INT, number(placement.source.height),  //
                              GST_VIDEO_CONVERTER_OPT_CHROMA_RESAMPLER_METHOD, GST_TYPE_VIDEO_RESAMPLER_METHOD,
                              GST_VIDEO_RESAMPLER_METHOD_CUBIC, nullptr));
    }
    ~Scaler() {
        if (mConverter) {
            gst_video_converter_free(mConverter);
            gst_video_frame_unmap(&mScaled);
        }
    }
    Scaler(const Scaler&) = delete;
    Scaler& operator=(const Scaler&) = delete;

    bool isFor(const GstVideoInfo& frame, const Placement& placement) const {
        return gst_video_info_is_equal(&mFrame, &frame) && mPlacement.source == placement.source &&
               mPlacement.target == placement.target;
    }

    void paint(const VideoFrame& source, GstVideoFrame& canvas) {
        GstVideoFrame frame;
        GstVideoInfo info = source.info;
        if (!gst_video_frame_map(&frame, &info, source.buffer.get(), GST_MAP_READ)) {
            return;
        }
        if (mConverter) {
            gst_video_converter_frame(mConverter, &frame, &mScaled);
            copy(mScaled, canvas, {{0, 0, mPlacement.target.width, mPlacement.target.height}, mPlacement.target});
        } else {
            copy(frame, canvas, mPlacement);
        }
        gst_video_frame_unmap(&frame);
    }

private:
    const GstVideoInfo mFrame;
    const Placement mPlacement;
    GstVideoConverter* mConverter = nullptr;  // null: frames are copied unchanged
    GstVideoFrame mScaled{};
};

MixPainter::MixPainter() = default;
MixPainter::~MixPainter() {
    if (mPool) {
        gst_buffer_pool_set_active(mPool.get(), FALSE);
    }
}

void MixPainter::setCanvas(int width, int height) {
    if (mPool && width == GST_VIDEO_INFO_WIDTH(&mInfo) && height == GST_VIDEO_INFO_HEIGHT(&mInfo)) {
        return;
    }
    if (mPool) {
        gst_buffer_pool_set_active(mPool.get(), FALSE);
    }
    mInfo = mixVideoInfo(width, height);
    mPool = makePool(mInfo);
    mScalers.clear();
}

GstRef<GstBuffer> MixPainter::paint(uint32_t colour, const std::vector<Layer>& layers, bool cropCenter, int64_t now) {
    const Rectangle whole{0, 0, GST_VIDEO_INFO_WIDTH(&mInfo), GST_VIDEO_INFO_HEIGHT(&mInfo)};
    GstBuffer* buffer = nullptr;
    GstVideoFrame canvas;
    if (gst_buffer_pool_acquire_buffer(mPool.get(), &buffer, nullptr) != GST_FLOW_OK ||
        !gst_video_frame_map(&canvas, &mInfo, buffer, GST_MAP_WRITE)) {
        return GstRef<GstBuffer>(buffer);
    }
    std::vector<Rectangle> targets;
    targets.reserve(layers.size());
    for (const Layer& layer : layers) {
        targets.push_back(visiblePart(layer.rectangle, static_cast<int>(whole.width), static_cast<int>(whole.height)));
    }
    std::map<const MixFeed*, std::unique_ptr<Scaler>> scalers;
    fill(canvas, whole, colour);
    for (size_t i = 0; i < layers.size(); ++i) {
        VideoFrame frame;
        const bool hasFrame = layers[i].feed->frameAt(now, frame);
        if (isHidden(targets, i)) {
            continue;
        }
        if (!hasFrame) {
            fill(canvas, targets[i], kPlaceholder);
            continue;
        }
        const Placement placement = placeFrame(layers[i].rectangle, targets[i], GST_VIDEO_INFO_WIDTH(&frame.info),
                                               GST_VIDEO_INFO_HEIGHT(&frame.info), cropCenter);
        std::unique_ptr<Scaler>& scaler = scalers[layers[i].feed.get()];
        scaler = std::move(mScalers[layers[i].feed.get()]);
        if (!scaler || !scaler->isFor(frame.info, placement)) {
            scaler = std::make_unique<Scaler>(frame.info, mInfo, placement);
        }
        scaler->paint(frame, canvas);
    }
    mScalers = std::move(scalers);
    gst_video_frame_unmap(&canvas);
    return GstRef<GstBuffer>(buffer);
}

}  // namespace vexalive
