#pragma once
// The built-in area-fill patterns: grey shadings by percentage and the six cross-hatches, as
// tiles of 300 dpi pixels (black = ink, white = none).

#include "render/device.h"

#include <memory>

namespace qx::pcl5 {

// The size of one pixel of the built-in patterns, in 1/7200 inch, for output at `dpi`: a 300 dpi
// dot at 300 dpi and finer (where the printer's patterns are defined), the output's own pixel
// below that, so that every shading level keeps its share of ink at every resolution.
double patternPixelUnits(double dpi);
// A shading of `percent` (0..100) ink coverage: one of the printer's eight levels.
std::shared_ptr<PatternTile> shadingTile(int percent);
// Cross-hatch 1..6: horizontal, vertical, diagonal up, diagonal down, square grid, diagonal grid,
// with lines `width` pixels wide every `spacing` pixels.
std::shared_ptr<PatternTile> crossHatchTile(int id, int spacing = 16, int width = 2);

} // namespace qx::pcl5
