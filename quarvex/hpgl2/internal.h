#pragma once
// Constants and small helpers shared by the parts of the HP-GL/2 interpreter.

#include "render/device.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace qx::hpgl2::internal {

constexpr double kPi = 3.14159265358979323846;
constexpr double kPointsPerPlu = 72.0 / 1016.0;
constexpr uint8_t kEsc = 0x1B;
// Coordinates are kept within a range that no page reaches, so that nothing overflows.
constexpr double kMaxPlu = 1e8;
// The largest em, in device pixels, that labels are rendered at.
constexpr double kMaxGlyphPixels = 6000;
// Labels are drawn in pieces of at most this many characters: more than a line of any page.
constexpr size_t kMaxLabelLine = 4096;
// The polygon buffer holds this many points, as a printer with 4 MB of memory free for it
// (8 bytes a point); points beyond are dropped with a warning.
constexpr size_t kMaxPolygonPoints = 500000;
// Parameters are read in pieces of this many numbers: the most any instruction takes (RF's
// 255 by 255 pens), a whole number of point pairs and of Bézier sextets.
constexpr size_t kMaxParameters = 65538;
// A line drawn with the pen down is handed to the device in pieces of this many points.
constexpr size_t kMaxStrokePoints = 65536;

inline double clampPlu(double v) {
    if (!std::isfinite(v))
        return 0;
    return std::clamp(v, -kMaxPlu, kMaxPlu);
}

inline Point clampPlu(Point p) { return {clampPlu(p.x), clampPlu(p.y)}; }

inline int toInt(double v) {
    if (!std::isfinite(v))
        return 0;
    return static_cast<int>(std::lround(std::clamp(v, -1e9, 1e9)));
}

// The fixed line types, in percent of the pattern length: dash, gap, dash, gap...
inline const std::vector<double>& fixedLineType(int type) {
    static const std::vector<double> kTypes[9] = {
        {},
        {0, 100},
        {50, 50},
        {70, 30},
        {80, 10, 0, 10},
        {70, 10, 10, 10},
        {50, 10, 10, 10, 10, 10},
        {70, 10, 0, 10, 0, 10},
        {50, 10, 0, 10, 10, 10, 0, 10},
    };
    return kTypes[std::clamp(type, 0, 8)];
}

// The default colours of the pens when NP or a reset sets them: white, black, red, green,
// yellow, blue, magenta, cyan, then the same again.
inline Rgb defaultPenColour(int pen) {
    static const Rgb kColours[8] = {{255, 255, 255}, {0, 0, 0},     {255, 0, 0},   {0, 255, 0},
                                    {255, 255, 0},   {0, 0, 255},   {255, 0, 255}, {0, 255, 255}};
    return kColours[static_cast<size_t>(pen) % 8];
}

inline bool isStickTypeface(int typeface) { return typeface == 48 || typeface == 50; }

} // namespace qx::hpgl2::internal
