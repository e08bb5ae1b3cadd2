#pragma once
// The EMF+ object table: brushes, pens, paths, fonts, images and string formats as the
// EmfPlusObject records define them, read into the shapes the drawing records need.

#include "emf/bytes.h"
#include "render/device.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qx::emf {

inline constexpr size_t kPlusObjectSlots = 64;

// An ARGB colour as EMF+ stores it (0xAARRGGBB, little-endian).
struct Argb {
    uint8_t a = 255, r = 0, g = 0, b = 0;
    static Argb of(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }
    // The colour on white paper: partly transparent colours are blended with white.
    Rgb onWhite() const {
        auto mix = [&](uint8_t c) { return uint8_t((c * a + 255 * (255 - a) + 127) / 255); };
        return {mix(r), mix(g), mix(b)};
    }
};

struct PlusBrush {
    enum class Kind : uint8_t { Solid, Hatch, Linear, Texture };
    Kind kind = Kind::Solid;
    Argb color;           // Solid: the colour; Hatch: the fore colour; Linear: the start colour
    Argb back;            // Hatch: the back colour; Linear: the end colour
    uint32_t hatch = 0;   // HatchStyle
    // Linear: the colours go from the left to the right edge of this rectangle in the brush's
    // own space, which gradient maps to world space (for Texture: image pixels to world units).
    double x = 0, y = 0, w = 0, h = 0;
    Matrix gradient;
    std::shared_ptr<const Image> texture;
};

struct PlusPen {
    double width = 1;     // in unit
    int unit = 0;         // UnitWorld unless given
    uint32_t startCap = 0, endCap = 0, join = 0;
    double miterLimit = 10;
    int lineStyle = 0;    // 0 solid, 1 dash, 2 dot, 3 dash-dot, 4 dash-dot-dot, 5 custom
    std::vector<double> dashes; // custom dash lengths, in pen widths
    double dashOffset = 0;
    PlusBrush brush;
};

// A path in world units.
struct PlusPath {
    Path path;
};

struct PlusFont {
    double emSize = 12;
    int unit = 3;         // UnitPoint
    uint32_t style = 0;   // 1 bold, 2 italic, 4 underline, 8 strikeout
    std::string family;   // ASCII (others as '?')
};

struct PlusStringFormat {
    uint32_t flags = 0;
    uint32_t alignment = 0;     // 0 near, 1 centre, 2 far
    uint32_t lineAlignment = 0;
};

struct PlusObject {
    enum class Kind : uint8_t { None, Brush, Pen, Path, Region, Image, Font, StringFormat, Other };
    Kind kind = Kind::None;
    PlusBrush brush;
    PlusPen pen;
    PlusPath path;
    std::shared_ptr<const Image> image;
    bool imageHasAlpha = false;
    PlusFont font;
    PlusStringFormat format;
    // Region: the paths whose intersection it is (empty with regionInfinite: everything).
    std::vector<Path> region;
    bool regionInfinite = false;
};

struct PlusObjects {
    std::array<PlusObject, kPlusObjectSlots> slots;
    // An object spread over several records: its bytes so far.
    std::vector<uint8_t> pending;
    uint32_t pendingTotal = 0;
    int pendingId = -1;
    size_t pendingKind = 0;
    // Decoded image pixels so far on this page, against a budget.
    size_t imageBytes = 0;
};

// Reads one object's data into obj; "" when it was read, else why not.
std::string readPlusObject(uint32_t kind, Bytes data, PlusObject& obj, size_t& imageBytes);

// Points as the drawing records and paths store them: 16-bit integers (flag 0x4000), relative
// run-length coordinates (flag 0x0800), else 32-bit floats. Returns the bytes read, or 0 when
// count points do not fit.
size_t readPlusPoints(Bytes data, size_t offset, uint32_t count, uint16_t flags, std::vector<Point>& out);

inline bool finiteMatrix(const Matrix& m) {
    return std::isfinite(m.a) && std::isfinite(m.b) && std::isfinite(m.c) && std::isfinite(m.d) &&
           std::isfinite(m.e) && std::isfinite(m.f);
}

// The six floats of a transform at offset o; nothing when one is not finite or missing.
std::optional<Matrix> readPlusMatrix(Bytes data, size_t offset);

// A rectangle (x, y, width, height): 16-bit integers with flag 0x4000, else floats.
struct PlusRect {
    double x = 0, y = 0, w = 0, h = 0;
};
PlusRect readPlusRect(Bytes data, size_t offset, bool compressed);

} // namespace qx::emf
