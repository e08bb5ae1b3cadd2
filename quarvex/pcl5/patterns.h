#pragma once
// The built-in area-fill patterns: grey shadings by percentage and the six cross-hatches, as
// tiles of 300 dpi pixels (black = ink, white = none).

#include "render/device.h"

#include <memory>

namespace qx::pcl5 {

// A shading of `percent` (0..100) ink coverage.
std::shared_ptr<PatternTile> shadingTile(int percent);
// Cross-hatch 1..6: horizontal, vertical, diagonal up, diagonal down, square grid, diagonal grid.
std::shared_ptr<PatternTile> crossHatchTile(int id);

} // namespace qx::pcl5
