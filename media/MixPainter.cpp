#include "media/MixPainter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <utility>

namespace vexalive {

namespace {

constexpr uint32_t kAbsent = 0x2b2b2b;  // the colour in the place of a picture that is not there

// A pool starts with none and makes what is needed: as many as the encoder holds at a time.
GstRef<GstBufferPool> makePool(GstVideoInfo info) {
    const GstRef<GstCaps> caps(gst_video_info_to_caps(&info));
    GstRef<GstBufferPool> pool(gst_video_buffer_pool_new());
    GstStructure* const config = gst_buffer_pool_get_config(pool.get());
    gst_buffer_pool_config_set_params(config, caps.get(), static_cast<guint>(GST_VIDEO_INFO_SIZE(&info)), 0, 0);
    gst_buffer_pool_set_config(pool.get(), config);
    gst_buffer_pool_set_active(pool.get(), TRUE);
    return pool;
}

// BT.601, of 16 to 235.
std::array<int, 3> yuvOf(uint32_t colour) {
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

void fill(GstVideoFrame& frame, const MixRectangle& area, uint32_t colour) {
    const std::array<int, 3> yuv = yuvOf(colour);
    for (int plane = 0; plane < 3; ++plane) {
        const int part = plane == 0 ? 1 : 2;
        for (int64_t y = area.y / part; y < (area.y + area.height) / part; ++y) {
            std::memset(lineOf(frame, plane, area.x / part, y), yuv[static_cast<size_t>(plane)],
                        static_cast<size_t>(area.width / part));
        }
    }
}

void copy(GstVideoFrame& picture, GstVideoFrame& canvas, const MixPlace& place) {
    for (int plane = 0; plane < 3; ++plane) {
        const int part = plane == 0 ? 1 : 2;
        for (int64_t y = 0; y < place.to.height / part; ++y) {
            std::memcpy(lineOf(canvas, plane, place.to.x / part, place.to.y / part + y),
                        lineOf(picture, plane, place.from.x / part, place.from.y / part + y),
                        static_cast<size_t>(place.to.width / part));
        }
    }
}

bool isHidden(const std::vector<MixRectangle>& places, size_t index) {
    return places[index].isEmpty() ||
           std::any_of(places.begin() + static_cast<ptrdiff_t>(index) + 1, places.end(),
                       [&](const MixRectangle& upper) { return covers(upper, places[index]); });
}

}  // namespace

GstVideoInfo mixPictureInfo(int width, int height) {
    GstVideoInfo info;
    gst_video_info_set_format(&info, GST_VIDEO_FORMAT_I420, static_cast<guint>(width), static_cast<guint>(height));
    gst_video_colorimetry_from_string(&info.colorimetry, GST_VIDEO_COLORIMETRY_BT601);
    info.chroma_site = GST_VIDEO_CHROMA_SITE_MPEG2;
    return info;
}

// Paints the pictures of one input; made anew when their kind or their place changes.
class MixPainter::Scaler {
public:
    Scaler(const GstVideoInfo& picture, const GstVideoInfo& canvas, const MixPlace& place)
        : mPicture(picture), mPlace(place) {
        const GstVideoColorimetry& colours = picture.colorimetry;
        if (place.from.width == place.to.width && place.from.height == place.to.height &&
            gst_video_colorimetry_is_equal(&colours, &canvas.colorimetry)) {
            return;
        }
        const auto number = [](int64_t value) { return static_cast<gint>(value); };
        GstVideoInfo from = picture;
        if (colours.range != canvas.colorimetry.range && colours.matrix == canvas.colorimetry.matrix) {
            from.colorimetry.matrix = GST_VIDEO_COLOR_MATRIX_FCC;  // nearly the same: for an equal one, the converter
        }                                                          // would leave the range as it is
        GstVideoInfo to = mixPictureInfo(number(place.to.width), number(place.to.height));
        const GstRef<GstBuffer> buffer(gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&to), nullptr));
        gst_video_frame_map(&mScaled, &to, buffer.get(), GST_MAP_READWRITE);  // the frame keeps it
        // Cubic for colour, too: the linear way, the usual one there, crashes where a picture is halved from an odd
        // column on.
        mConverter = gst_video_converter_new(
            &from, &to,
            gst_structure_new("scaler",                                                                   //
                              GST_VIDEO_CONVERTER_OPT_SRC_X, G_TYPE_INT, number(place.from.x),            //
                              GST_VIDEO_CONVERTER_OPT_SRC_Y, G_TYPE_INT, number(place.from.y),            //
                              GST_VIDEO_CONVERTER_OPT_SRC_WIDTH, G_TYPE_INT, number(place.from.width),    //
                              GST_VIDEO_CONVERTER_OPT_SRC_HEIGHT, G_TYPE_INT, number(place.from.height),  //
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

    bool isFor(const GstVideoInfo& picture, const MixPlace& place) const {
        return gst_video_info_is_equal(&mPicture, &picture) && mPlace.from == place.from && mPlace.to == place.to;
    }

    void paint(const MixPicture& picture, GstVideoFrame& canvas) {
        GstVideoFrame frame;
        GstVideoInfo info = picture.info;
        if (!gst_video_frame_map(&frame, &info, picture.buffer.get(), GST_MAP_READ)) {
            return;
        }
        if (mConverter) {
            gst_video_converter_frame(mConverter, &frame, &mScaled);
            copy(mScaled, canvas, {{0, 0, mPlace.to.width, mPlace.to.height}, mPlace.to});
        } else {
            copy(frame, canvas, mPlace);
        }
        gst_video_frame_unmap(&frame);
    }

private:
    const GstVideoInfo mPicture;
    const MixPlace mPlace;
    GstVideoConverter* mConverter = nullptr;  // null: the picture is copied as it stands
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
    mInfo = mixPictureInfo(width, height);
    mPool = makePool(mInfo);
    mScalers.clear();
}

GstRef<GstBuffer> MixPainter::paint(uint32_t colour, const std::vector<Part>& parts, bool cropCenter, int64_t now) {
    const MixRectangle whole{0, 0, GST_VIDEO_INFO_WIDTH(&mInfo), GST_VIDEO_INFO_HEIGHT(&mInfo)};
    GstBuffer* buffer = nullptr;
    GstVideoFrame canvas;
    if (gst_buffer_pool_acquire_buffer(mPool.get(), &buffer, nullptr) != GST_FLOW_OK ||
        !gst_video_frame_map(&canvas, &mInfo, buffer, GST_MAP_WRITE)) {
        return GstRef<GstBuffer>(buffer);
    }
    std::vector<MixRectangle> places;
    places.reserve(parts.size());
    for (const Part& part : parts) {
        places.push_back(visiblePart(part.rectangle, static_cast<int>(whole.width), static_cast<int>(whole.height)));
    }
    std::map<const MixFeed*, std::unique_ptr<Scaler>> scalers;
    fill(canvas, whole, colour);
    for (size_t i = 0; i < parts.size(); ++i) {
        MixPicture picture;
        const bool isThere = parts[i].feed->pictureAt(now, picture);
        if (isHidden(places, i)) {
            continue;
        }
        if (!isThere) {
            fill(canvas, places[i], kAbsent);
            continue;
        }
        const MixPlace place = placePicture(parts[i].rectangle, places[i], GST_VIDEO_INFO_WIDTH(&picture.info),
                                            GST_VIDEO_INFO_HEIGHT(&picture.info), cropCenter);
        std::unique_ptr<Scaler>& scaler = scalers[parts[i].feed.get()];
        scaler = std::move(mScalers[parts[i].feed.get()]);
        if (!scaler || !scaler->isFor(picture.info, place)) {
            scaler = std::make_unique<Scaler>(picture.info, mInfo, place);
        }
        scaler->paint(picture, canvas);
    }
    mScalers = std::move(scalers);
    gst_video_frame_unmap(&canvas);
    return GstRef<GstBuffer>(buffer);
}

}  // namespace vexalive
