// A picture made of boxes and texts, written as SVG or as PNG from the same list of shapes.
//
// Texts are measured when they are placed, so whoever draws can keep them within bounds. Used by the preview.

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
    double corner = 0;  // radius
    bool hatched = false;
};

struct TextStyle {
    double size;
    Colour colour;
    bool bold = false;
    bool mono = false;
};

enum class Anchor { kLeft, kMiddle, kRight };  // which point of a text is placed

// Units are pixels; y grows downwards. The page is white. For one thread.
class Drawing {
public:
    explicit Drawing(double width);
    ~Drawing();
    Drawing(const Drawing&) = delete;
    Drawing& operator=(const Drawing&) = delete;

    double width() const { return mWidth; }
    double height() const { return mHeight; }
    void setHeight(double height) { mHeight = height; }

    // `name` says what the shape is, for whoever reads the SVG: its class. A literal.
    void box(const char* name, const Box& box, const BoxStyle& style);
    // `y` is the base line. The text may hold anything.
    void text(const char* name, double x, double y, const std::string& text, const TextStyle& style,
              Anchor anchor = Anchor::kLeft);
    // What stands between both belongs together; `about` names it.
    void open(const char* name, const std::string& about);
    void close();

    double widthOf(const std::string& text, const TextStyle& style);
    // As much of the text as fits, with "…" if something is left out; nothing if not a single character does.
    std::string fitted(const std::string& text, const TextStyle& style, double width);
    // The text in lines that fit, broken at blanks.
    std::vector<std::string> wrapped(const std::string& text, const TextStyle& style, double width);

    std::string svg() const;
    // Empty if there is not enough memory.
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
