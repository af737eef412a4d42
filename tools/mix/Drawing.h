// A drawing of boxes and strings that can be written as SVG or as PNG. Strings are measured when they are added.

#ifndef VEXALIVE_TOOLS_MIX_DRAWING_H
#define VEXALIVE_TOOLS_MIX_DRAWING_H

#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace vexalive {

using Colour = uint32_t;  // 0xRRGGBB

struct Box {
    double x = 0;
    double y = 0;
    double w = 0;
    double h = 0;

    double right() const { return x + w; }
    double bottom() const { return y + h; }
};

struct BoxStyle {
    Colour fill;
    Colour line;
    double lineWidth = 1;
    double corner = 0;  // radius of the rounded corners
    bool hatched = false;
};

struct TextStyle {
    double size;
    Colour colour;
    bool bold = false;
    bool mono = false;
};

enum class Anchor { kLeft, kMiddle, kRight };  // which point of a string is at the coordinate x

// Units are pixels; y grows downwards. The background is white. Not thread-safe.
class Drawing {
public:
    explicit Drawing(double width);
    ~Drawing();
    Drawing(const Drawing&) = delete;
    Drawing& operator=(const Drawing&) = delete;

    double width() const { return mWidth; }
    double height() const { return mHeight; }
    void setHeight(double height) { mHeight = height; }

    // `name` becomes the class of the SVG element. It must be a literal.
    void box(const char* name, const Box& box, const BoxStyle& style);
    // `y` is the baseline. `text` may contain any bytes.
    void text(const char* name, double x, double y, const std::string& text, const TextStyle& style,
              Anchor anchor = Anchor::kLeft);
    // The shapes between open() and close() are a group. `about` is the title of the group.
    void open(const char* name, const std::string& about);
    void close();

    double widthOf(const std::string& text, const TextStyle& style);
    // Truncates the string to `width`, with "…" at its end. Returns "" if no character fits.
    std::string fitted(const std::string& text, const TextStyle& style, double width);
    // Breaks the string at spaces into lines of at most `width`.
    std::vector<std::string> wrapped(const std::string& text, const TextStyle& style, double width);

    std::string svg() const;
    // Returns "" if there is not enough memory or the drawing is too large.
    std::string png() const;

private:
    struct BoxShape {
        const char* name;
        Box box;
        BoxStyle style;
    };
    struct TextShape {
        const char* name;
        double x, y, width;
        std::string text;
        TextStyle style;
    };
    struct Opening {
        const char* name;
        std::string about;
    };
    struct Closing {};
    using Shape = std::variant<BoxShape, TextShape, Opening, Closing>;
    class Ruler;
    class SvgWriter;
    class CairoPainter;

    const double mWidth;
    double mHeight = 0;
    std::vector<Shape> mShapes;
    std::unique_ptr<Ruler> mRuler;
};

}  // namespace vexalive

#endif
