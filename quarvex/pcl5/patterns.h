#pragma once
// The built-in area-fill patterns: grey shadings by percentage and the six cross-hatches, as
// tiles of 300 dpi pixels (black = ink, white = none).

#include "render/device.h"

#include <memory>

namespace qx::pcl5 {

// The size of one pixel of a pattern designed at `designDpi` (the built-in ones at 300), in
// 1/7200 inch, for output at `dpi`: the pattern's own pixel where the output is as fine or finer
// (a 300 dpi pattern at 600 dpi takes 2 x 2 pixels), the output's own pixel where it is coarser,
// so that every shading level keeps its share of ink at every resolution.
double patternPixelUnits(double dpi, double designDpi = 300);
// A shading of `percent` (0..100) ink coverage: one of the printer's eight levels.
std::shared_ptr<PatternTile> shadingTile(int percent);
// Cross-hatch 1..6: horizontal, vertical, diagonal up, diagonal down, square grid, diagonal grid,
// with lines `width` pixels wide every `spacing` pixels.
std::shared_ptr<PatternTile> crossHatchTile(int id, int spacing = 16, int width = 2);

} // namespace qx::pcl5
