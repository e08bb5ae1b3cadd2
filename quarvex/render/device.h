#pragma once
// The page-drawing interface between the language interpreters and the devices that draw.
//
// Interpreters know nothing of pixels: they describe each page in page space, whose unit is the
// point (1/72 inch), whose origin is the top-left corner of the physical sheet as it comes out
// of the printer, x to the right and y down. A device maps page space to its own pixels (see
// pageToDevice()); the rasterising device does so for the resolution and page size of the
// command line, the recording device writes the calls down for tests.
//
// Colours are additive RGB, 8 bits a channel, white = 255. Raster operations (ROP3) combine
// three operands bit by bit on those channel values, as printers do:
//   D  the destination already on the page,
//   S  the source: the image pixel for drawImage(), ink (black) for every other call,
//   T  the texture: the paint of the call (solid colour or pattern tile).
// result bit = (rop3 >> (T*4 + S*2 + D)) & 1; the default 252 (T or S) paints the paint.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qx {

struct Point {
    double x = 0;
    double y = 0;
};

// Affine transform: x' = a*x + c*y + e, y' = b*x + d*y + f.
struct Matrix {
    double a = 1, b = 0, c = 0, d = 1, e = 0, f = 0;

    static Matrix translate(double x, double y) { return {1, 0, 0, 1, x, y}; }
    static Matrix scale(double sx, double sy) { return {sx, 0, 0, sy, 0, 0}; }
    static Matrix rotate(double radians) {
        const double c = std::cos(radians), s = std::sin(radians);
        return {c, s, -s, c, 0, 0};
    }

    Point apply(Point p) const { return {a * p.x + c * p.y + e, b * p.x + d * p.y + f}; }
    Point applyVector(Point p) const { return {a * p.x + c * p.y, b * p.x + d * p.y}; }

    // (m * n) applies n first, then m.
    Matrix operator*(const Matrix& n) const {
        return {a * n.a + c * n.b,       b * n.a + d * n.b,       a * n.c + c * n.d,
                b * n.c + d * n.d,       a * n.e + c * n.f + e,   b * n.e + d * n.f + f};
    }

    std::optional<Matrix> inverted() const {
        const double det = a * d - b * c;
        if (det == 0 || !std::isfinite(det))
            return std::nullopt;
        const double ia = d / det, ib = -b / det, ic = -c / det, id = a / det;
        return Matrix{ia, ib, ic, id, -(ia * e + ic * f), -(ib * e + id * f)};
    }
};

enum class FillRule : uint8_t { NonZero, EvenOdd };

// A path in page space: subpaths of lines and cubic Béziers.
class Path {
public:
    enum class Op : uint8_t { Move, Line, Curve, Close };

    void moveTo(Point p) { m_ops.push_back(Op::Move); m_points.push_back(p); }
    void lineTo(Point p) { m_ops.push_back(Op::Line); m_points.push_back(p); }
    void curveTo(Point c1, Point c2, Point p) {
        m_ops.push_back(Op::Curve);
        m_points.push_back(c1);
        m_points.push_back(c2);
        m_points.push_back(p);
    }
    void close() { m_ops.push_back(Op::Close); }
    void addRect(double x, double y, double w, double h) {
        moveTo({x, y});
        lineTo({x + w, y});
        lineTo({x + w, y + h});
        lineTo({x, y + h});
        close();
    }
    void append(const Path& other) {
        m_ops.insert(m_ops.end(), other.m_ops.begin(), other.m_ops.end());
        m_points.insert(m_points.end(), other.m_points.begin(), other.m_points.end());
    }
    void clear() { m_ops.clear(); m_points.clear(); }

    bool empty() const { return m_ops.empty(); }
    const std::vector<Op>& ops() const { return m_ops; }
    // Move and Line take one point each, Curve three, Close none.
    const std::vector<Point>& points() const { return m_points; }

    Path transformed(const Matrix& m) const {
        Path out = *this;
        for (Point& p : out.m_points)
            p = m.apply(p);
        return out;
    }

private:
    std::vector<Op> m_ops;
    std::vector<Point> m_points;
};

struct Rgb {
    uint8_t r = 0, g = 0, b = 0;
    bool operator==(const Rgb&) const = default;
    static constexpr Rgb black() { return {0, 0, 0}; }
    static constexpr Rgb white() { return {255, 255, 255}; }
};

// A repeating tile of colour, laid on the page by tileToPage (tile pixel space to page space).
// Its pure white pixels are the ones the pattern transparency rule leaves out.
struct PatternTile {
    int width = 0;
    int height = 0;
    std::vector<Rgb> pixels; // row-major, width * height
    Matrix tileToPage;
};

struct Paint {
    enum class Kind : uint8_t { None, Solid, Pattern };
    Kind kind = Kind::Solid;
    Rgb color = Rgb::black();
    std::shared_ptr<const PatternTile> pattern;

    static Paint none() { return {Kind::None, {}, nullptr}; }
    static Paint solid(Rgb c) { return {Kind::Solid, c, nullptr}; }
    static Paint tiled(std::shared_ptr<const PatternTile> t) { return {Kind::Pattern, {}, std::move(t)}; }
};

struct StrokeStyle {
    enum class Cap : uint8_t { Butt, Round, Square };
    enum class Join : uint8_t { Miter, Round, Bevel };
    double width = 1;          // page space; 0 = the thinnest line the device can draw
    Cap cap = Cap::Butt;
    Join join = Join::Miter;
    double miterLimit = 10;
    std::vector<double> dashes; // on/off lengths in page space; empty = solid
    double dashOffset = 0;
};

// The intersection of all paths in it; no clip at all is a null pointer.
struct ClipRegion {
    struct Entry {
        Path path;
        FillRule rule = FillRule::NonZero;
    };
    std::vector<Entry> entries;
};

struct RenderState {
    uint8_t rop3 = 252;
    bool sourceTransparent = true;  // white source pixels leave the page alone
    bool patternTransparent = true; // white texture pixels leave the page alone
    std::shared_ptr<const ClipRegion> clip;
};

// Colour image data; rows top to bottom, pixels left to right.
struct Image {
    enum class Format : uint8_t { Gray8, Rgb24 };
    int width = 0;
    int height = 0;
    Format format = Format::Rgb24;
    size_t stride = 0; // bytes per row
    std::vector<uint8_t> data;
};

// One bit a pixel, most significant bit first, 1 = ink (painted with the paint), 0 = nothing.
struct Mask {
    int width = 0;
    int height = 0;
    size_t stride = 0; // bytes per row
    std::vector<uint8_t> bits;
};

struct PageSpec {
    double widthPt = 612;  // the whole physical sheet, as printed (after orientation)
    double heightPt = 792;
    double declaredDpiX = 0; // the resolution the job asks for; 0 = it says nothing
    double declaredDpiY = 0;
};

class Device {
public:
    virtual ~Device() = default;

    virtual void beginPage(const PageSpec& page) = 0;
    virtual void endPage() = 0;
    // Ends the current page without printing it: what was drawn on it is thrown away and it
    // does not count as a page (a page whose job asks for zero copies).
    virtual void discardPage() = 0;
    // Page space to device pixels for the current page (valid between beginPage and endPage).
    // Interpreters use it to snap to the pixel grid and to render glyphs at device size.
    virtual Matrix pageToDevice() const = 0;

    virtual void fillPath(const Path& path, FillRule rule, const Paint& paint, const RenderState& rs) = 0;
    virtual void strokePath(const Path& path, const StrokeStyle& style, const Paint& paint,
                            const RenderState& rs) = 0;
    // S = the image's pixels, sampled nearest-neighbour; T = texture.
    virtual void drawImage(const Image& image, const Matrix& imageToPage, const Paint& texture,
                           const RenderState& rs) = 0;
    // Where the mask has ink, S = black; elsewhere nothing is drawn.
    virtual void fillMask(const Mask& mask, const Matrix& maskToPage, const Paint& paint,
                          const RenderState& rs) = 0;
};

} // namespace qx
